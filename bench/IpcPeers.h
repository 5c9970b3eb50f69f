// The other side of the IPC benchmarks: servers and clients that run as child processes of the
// benchmark program (started by re-running it with "--peer"), and the framing they share with
// the in-process side. Raw channels use the transport's 72-byte request and 68-byte response
// headers written directly with read/writev, so they show what the FIFOs themselves cost.
#ifndef BENCH_IPCPEERS_H_
#define BENCH_IPCPEERS_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace qvbench {

constexpr size_t REQUEST_HEADER = 72;
constexpr size_t RESPONSE_HEADER = 68;

// What a request asks of the benchmark servers, carried as its request type.
enum Op : int32_t {
    OP_ECHO = 0,     // answer with the same body
    OP_ONE_WAY = 1,  // no answer
    OP_FLUSH = 2,    // answer without body: everything sent before has been received
    OP_STOP = 3,     // leave the serving loop
};

// Writes a request (header and body in one gather write, completed when the kernel splits it).
bool RawSendRequest(int fd, uint32_t id, int32_t op, const char* body, uint32_t len);
// Reads one response into a new[] buffer of exactly its body size, as the transport does.
bool RawReadResponse(int fd, std::unique_ptr<char[]>* body, uint32_t* len);
// Serves requests from rfd, answering on wfd, until OP_STOP or end of file. libraryCalls adds
// the system calls that the library's server makes per message beyond the reads and the write.
void RawServe(int rfd, int wfd, bool libraryCalls);

// Entry of a child started with "--peer MODE ARGS..."; returns the exit status.
int RunPeer(int argc, char** argv);

// Every library endpoint in these benchmarks: no header extension, no send time-out.
constexpr unsigned long BENCH_EXT_SIZE = 0;
constexpr unsigned long BENCH_SEND_TIMEOUT = 0xFFFFFFFFul;

}  // namespace qvbench

#endif  // BENCH_IPCPEERS_H_
