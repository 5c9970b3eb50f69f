// 64-bit directory offsets even on i686: ext4 hands out 64-bit readdir cookies, and the
// 32-bit readdir fails with EOVERFLOW on them, which left /tmp unswept there.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include "tests/support/TestSupport.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
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
            unlink((std::string(dir) + "/" + entry).c_str());
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

}  // namespace qvtest
