// Helpers shared by every test program: unique guids, waiting on a condition with a deadline,
// counting the process's descriptors, and the path of the running test binary for re-exec.
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

// Removes every /tmp entry whose name starts with guid and the guid's shared objects.
void RemoveGuidFiles(const std::string& guid);

// Path of the running executable and the emulator to exec it through ("" when native).
std::string SelfExe();
const char* Emulator();

}  // namespace qvtest

#endif  // TESTS_SUPPORT_TESTSUPPORT_H_
