// Shared by every test program: unique guids, waits with a deadline, descriptors, clean-up.
#ifndef TESTS_SUPPORT_TESTSUPPORT_H_
#define TESTS_SUPPORT_TESTSUPPORT_H_

#include <chrono>
#include <functional>
#include <string>

namespace qvtest {

// Test name, pid and a counter, at most 63 characters: parallel runs never share FIFOs.
std::string TestGuid();
// Polls pred every 10 ms until it holds or the deadline passes; returns the last result.
bool WaitFor(const std::function<bool()>& pred, std::chrono::milliseconds deadline);
int CountOpenFds();
int CountFds(int pid);
// Calls f with the name of every entry of dir but . and ..
void ForEachEntry(const std::string& dir, const std::function<void(const std::string&)>& f);
// Removes every /tmp and /dev/shm entry whose name holds guid.
void RemoveGuidFiles(const std::string& guid);
const char* Emulator();      // the one the test binaries run under, "" when native
void KillAndReap(int& pid);  // SIGKILL and wait, when pid > 0; then -1

// A forked child that runs body() and holds what it took (a lock, a counter) until killed.
class CHeldChild {
public:
    explicit CHeldChild(const std::function<bool()>& body);  // returns once body() returned
    ~CHeldChild() { kill(); }
    CHeldChild(const CHeldChild&) = delete;
    CHeldChild& operator=(const CHeldChild&) = delete;
    bool ok() const { return m_bOk; }  // body() returned true
    void kill() { KillAndReap(m_pid); }

private:
    int m_pid = -1;
    bool m_bOk = false;
};

}  // namespace qvtest

#endif  // TESTS_SUPPORT_TESTSUPPORT_H_
