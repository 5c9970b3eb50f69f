// 64-bit directory offsets on i686 too: its 32-bit readdir fails with EOVERFLOW on ext4.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include "tests/support/TestSupport.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <thread>

namespace qvtest {

std::string TestGuid() {
    static std::atomic<int> counter{0};
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    std::string name = "qvt";
    for (char c : std::string(info != nullptr ? info->name() : "t")) {
        const unsigned char u = static_cast<unsigned char>(c);
        name += std::isalnum(u) ? static_cast<char>(std::tolower(u)) : '-';
    }
    const std::string tail = "-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
    return name.substr(0, 63 - tail.size()) + tail;
}

bool WaitFor(const std::function<bool()>& pred, std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= end) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

void ForEachEntry(const std::string& dir, const std::function<void(const std::string&)>& f) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return;
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name != "." && name != "..") f(name);
    }
    closedir(d);
}

int CountFds(int pid) {
    int n = 0;
    ForEachEntry("/proc/" + std::to_string(pid) + "/fd", [&](const std::string&) { ++n; });
    return n;
}

int CountOpenFds() { return CountFds(getpid()) - 1; }  // less the directory stream's own

void RemoveGuidFiles(const std::string& guid) {
    for (const char* dir : {"/tmp/", "/dev/shm/"}) {
        ForEachEntry(dir, [&](const std::string& name) {
            const std::string path = dir + name;
            if (name.find(guid) != std::string::npos && unlink(path.c_str()) != 0)
                rmdir(path.c_str());
        });
    }
}

const char* Emulator() { return QVIPC_TEST_EMULATOR; }

CHeldChild::CHeldChild(const std::function<bool()>& body) {
    int up[2];
    if (pipe(up) != 0) return;
    m_pid = fork();
    if (m_pid == 0) {
        const char result = body() ? 'y' : 'n';
        if (write(up[1], &result, 1) == 1) pause();
        _exit(1);
    }
    close(up[1]);
    char result = 'n';
    m_bOk = m_pid > 0 && read(up[0], &result, 1) == 1 && result == 'y';
    close(up[0]);
}

void KillAndReap(int& pid) {
    if (pid > 0 && ::kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
    pid = -1;
}

}  // namespace qvtest
