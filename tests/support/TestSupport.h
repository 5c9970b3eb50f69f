// Helpers shared by every test program: unique guids, waiting on a condition with a deadline,
// counting the process's descriptors, the path of the running test binary for re-exec, and a
// forked child that holds something for as long as a test needs.
#ifndef TESTS_SUPPORT_TESTSUPPORT_H_
#define TESTS_SUPPORT_TESTSUPPORT_H_

#include <chrono>
#include <functional>
#include <string>

namespace qvtest {

// A guid unique to this test, this process and this call: test name, pid and a counter,
// lower case, at most 63 characters, so parallel ctest runs never share FIFOs or counters.
std::string TestGuid();

// Polls pred every 10 ms until it holds or the deadline passes; returns the last result.
bool WaitFor(const std::function<bool()>& pred, std::chrono::milliseconds deadline);

// Number of entries in /proc/self/fd.
int CountOpenFds();

// Removes every /tmp entry whose name holds guid (empty folders too) and its shared objects.
void RemoveGuidFiles(const std::string& guid);

// Path of the running executable and the emulator to exec it through ("" when native).
std::string SelfExe();
const char* Emulator();

// A forked child that runs body() and then holds on to what it took until it is let go (it
// exits) or killed; the destructor kills it. For what another process sees: a lock held by a
// live or a dead process, a counter that another process changed.
class CHeldChild {
public:
    // Returns once body() has returned in the child.
    explicit CHeldChild(const std::function<bool()>& body);
    ~CHeldChild();
    CHeldChild(const CHeldChild&) = delete;
    CHeldChild& operator=(const CHeldChild&) = delete;

    bool ok() const { return m_bOk; }  // body() returned true
    bool letGo();                      // lets it exit; true when it exited with status 0
    void kill();                       // SIGKILL at once, and reaps it

private:
    int m_pid = -1;
    int m_fdToChild = -1;
    bool m_bOk = false;
};

}  // namespace qvtest

#endif  // TESTS_SUPPORT_TESTSUPPORT_H_
