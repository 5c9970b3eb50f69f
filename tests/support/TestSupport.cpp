// 64-bit directory offsets even on i686: ext4 hands out 64-bit readdir cookies, and the
// 32-bit readdir fails with EOVERFLOW on them, which left /tmp unswept there.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include "tests/support/TestSupport.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <thread>

namespace qvtest {

std::string TestGuid() {
    static std::atomic<int> counter{0};
    std::string name = "t";
    if (const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info()) {
        name = info->name();
    }
    std::string clean;
    for (char c : name) {
        const unsigned char u = static_cast<unsigned char>(c);
        clean += std::isalnum(u) ? static_cast<char>(std::tolower(u)) : '-';
    }
    const std::string tail = "-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
    const size_t room = 63 - tail.size() - 3;
    if (clean.size() > room) clean.resize(room);
    return "qvt" + clean + tail;
}

bool WaitFor(const std::function<bool()>& pred, std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        if (pred()) return true;
        if (std::chrono::steady_clock::now() >= end) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

int CountOpenFds() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] != '.') ++n;
        }
        closedir(d);
        --n;  // the descriptor of the directory stream itself
    }
    return n;
}

static void RemoveMatching(const char* dir, const std::string& needle) {
    DIR* d = opendir(dir);
    if (d == nullptr) return;
    while (dirent* e = readdir(d)) {
        const std::string entry = e->d_name;
        if (entry.find(needle) != std::string::npos) {
            const std::string path = std::string(dir) + "/" + entry;
            if (unlink(path.c_str()) != 0 && errno == EISDIR) rmdir(path.c_str());
        }
    }
    closedir(d);
}

void RemoveGuidFiles(const std::string& guid) {
    RemoveMatching("/tmp", guid);
    RemoveMatching("/dev/shm", guid);
}

std::string SelfExe() {
    char buf[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0) return std::string();
    buf[n] = '\0';
    return buf;
}

const char* Emulator() { return QVIPC_TEST_EMULATOR; }

CHeldChild::CHeldChild(const std::function<bool()>& body) {
    int up[2];
    int down[2];
    if (pipe(up) != 0) return;
    if (pipe(down) != 0) {
        close(up[0]);
        close(up[1]);
        return;
    }
    m_pid = fork();
    if (m_pid == 0) {
        // A byte, not end of file, lets go: other children may hold copies of the write end.
        const char result = body() ? 'y' : 'n';
        char c = 0;
        _exit(write(up[1], &result, 1) == 1 && read(down[0], &c, 1) == 1 ? 0 : 1);
    }
    close(up[1]);
    close(down[0]);
    m_fdToChild = down[1];
    char result = 'n';
    m_bOk = m_pid > 0 && read(up[0], &result, 1) == 1 && result == 'y';
    close(up[0]);
}

CHeldChild::~CHeldChild() {
    kill();
    if (m_fdToChild != -1) close(m_fdToChild);
}

bool CHeldChild::letGo() {
    const char c = 'g';
    if (m_pid <= 0 || write(m_fdToChild, &c, 1) != 1) return false;
    int status = 0;
    const bool reaped = waitpid(m_pid, &status, 0) == m_pid;
    m_pid = -1;
    return reaped && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void CHeldChild::kill() {
    if (m_pid <= 0) return;
    ::kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

}  // namespace qvtest
