// Shared by the reliability programs (mixed word sizes, chaos, soak): checksummed bodies, the
// connect id a client endpoint drew, descriptor and FIFO counts, and the sweep of a dead
// client's FIFOs.
#ifndef TESTS_RELIABILITY_RELIABILITYSUPPORT_H_
#define TESTS_RELIABILITY_RELIABILITYSUPPORT_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"

namespace rel {

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;
constexpr unsigned long EXT_SIZE = 48;

// n bytes that depend on n and seed: a body whose every byte is checked on return.
std::string Pattern(size_t n, uint32_t seed);
// What a peer answers: every byte flipped by a fixed mask, so that an answer can never be the
// request itself coming back unread.
std::string Answer(const std::string& bytes);
// The connect id of the client endpoint of process pid on guid, from its FIFO names; -1 when
// it has none.
long long ClientConnectId(const std::string& guid, pid_t pid);
// Entries of /tmp whose names start with guid.
int CountGuidFiles(const std::string& guid);
// Removes the four FIFOs of a client process that is gone, as a sweep of stale FIFOs does.
void RemoveClientFifos(const std::string& guid, pid_t pid);
// Removes every /tmp and /dev/shm entry of guid.
void RemoveGuidFiles(const std::string& guid);
// Open descriptors and resident set (KiB) of a process.
int CountFds(pid_t pid);
long ResidentKiB(pid_t pid);
// One result of a receive call with its outputs.
struct Got {
    QVRESULT hr = 0;
    unsigned long ipcid = 0;
    unsigned long id = 0;
    int type = 0;
    std::string body;
    std::string ext;
};
Got ReceiveRequest(CQVIPCLibrary& lib);
Got ReceiveResponse(CQVIPCLibrary& lib);
// Answers a received request with Answer() of its body and extension.
QVRESULT AnswerRequest(CQVIPCLibrary& lib, const Got& request);

// Milliseconds of a monotonic clock.
uint64_t NowMs();

}  // namespace rel

#endif  // TESTS_RELIABILITY_RELIABILITYSUPPORT_H_
