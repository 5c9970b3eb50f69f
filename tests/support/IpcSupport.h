// What the transport's tests, the reliability programs, the fuzz harnesses and the benchmarks
// share on top of TestSupport.h: endpoints and what their receive calls deliver, bodies that
// check themselves, the service's entries in /tmp, a client that speaks the wire format through
// the library's own frame builders, a re-executed peer process and the log capture.
#ifndef TESTS_SUPPORT_IPCSUPPORT_H_
#define TESTS_SUPPORT_IPCSUPPORT_H_

#include <gtest/gtest.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "QVIPC/Library-Linux/Framing.h"
#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "tests/support/TestSupport.h"

namespace qvtest {

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;
// Allows for the design's own polling (200 ms, 1 s), for qemu and for a loaded machine.
constexpr std::chrono::milliseconds DEADLINE{60000};

std::unique_ptr<CQVIPCLibrary> MakeServer(const std::string& guid, unsigned long clients,
                                          unsigned long ext = 48, unsigned long sto = NO_TIMEOUT);
std::unique_ptr<CQVIPCLibrary> MakeClient(const std::string& guid, unsigned long ext = 48,
                                          unsigned long sto = NO_TIMEOUT);

// One result of a receive call with its outputs; ext holds the endpoint's extension size.
struct Received {
    QVRESULT hr = 0;
    unsigned long ipcid = 0;
    unsigned long id = 0;
    int type = 0;
    std::string body;
    bool bodyNull = true;
    std::string ext;
};
Received ReceiveRequest(CQVIPCLibrary& lib, unsigned long extSize = 48);
Received ReceiveResponse(CQVIPCLibrary& lib, unsigned long extSize = 48);

// n bytes that depend on n and seed, the same on every word size.
std::string Pattern(size_t n, uint32_t seed);
// Every byte flipped: an answer that can never be the request coming back unread.
std::string Flip(const std::string& bytes);
// Answers a received request with Flip() of its body and extension.
QVRESULT AnswerFlipped(CQVIPCLibrary& lib, const Received& request);

// Sends a request to ipcid once the endpoint has the pipe for it (a client's connect thread
// publishes its write ends after the connection is announced).
QVRESULT SendWhenConnected(CQVIPCLibrary& lib, const std::string& body, int type = 1,
                           unsigned long ipcid = 0, unsigned long* pId = nullptr);
// One echoed round trip of a client: its result, id and bytes.
void ExpectRoundTrip(CQVIPCLibrary& client, const std::string& body);

// A thread looping on receiveRequest until QVIPC_E_SHUTDOWN, recording every result; with echo,
// data requests of nonzero type are answered with their own body and extension.
class RequestLoop {
public:
    RequestLoop(CQVIPCLibrary& lib, unsigned long extSize = 48, bool echo = true);
    ~RequestLoop();  // finalizes the endpoint (safe to repeat), then joins
    RequestLoop(const RequestLoop&) = delete;
    RequestLoop& operator=(const RequestLoop&) = delete;

    std::vector<Received> results();
    std::vector<unsigned long> connections();  // ipcids of QVIPC_E_NEW_CONNECTION so far
    size_t count(QVRESULT hr, long ipcid = -1);
    bool waitConnections(size_t n);
    bool waitResult(QVRESULT hr, size_t n, long ipcid = -1);
    void join();

private:
    CQVIPCLibrary& m_lib;
    unsigned long m_extSize;
    bool m_echo;
    std::mutex m_mutex;
    std::vector<Received> m_results;
    std::thread m_thread;
};

// A server for `clients` and one client, each with a RequestLoop; ok once both saw the
// connection. Destroyed client first.
struct ConnectedPair {
    ConnectedPair(const std::string& guid, unsigned long clients, unsigned long ext = 48,
                  bool echo = true);
    ~ConnectedPair();
    std::unique_ptr<CQVIPCLibrary> server, client;
    std::unique_ptr<RequestLoop> serverLoop, clientLoop;
    bool ok = false;
};

// The service's entries in /tmp: every name starting with guid, less the id generator's lock.
std::vector<std::string> GuidFiles(const std::string& guid);
// Descriptors and resident memory (KiB) of another process.
int CountFds(pid_t pid);
long ResidentKiB(pid_t pid);
// The connect id in the FIFO names of process pid's client endpoint; -1 when there are none.
long long ClientConnectId(const std::string& guid, pid_t pid);
// Removes the FIFOs a killed client process left, as a sweep of stale FIFOs would.
void RemoveClientFifos(const std::string& guid, pid_t pid);

// Whole transfers: loop over short ones; false on end of file or an error other than EINTR.
bool ReadFull(int fd, void* buf, size_t len);
bool WriteFull(int fd, const void* buf, size_t len);
// Waits until nobody has anything left to read in the FIFO at path (its readers took it).
bool WaitFifoDrained(const std::string& path);

// A request header or admin record, built by the library's own builder.
std::string Frame(uint32_t type, uint32_t requestId, uint32_t bodySize, int32_t requestType);
std::string Record(uint32_t type, uint32_t connectId, uint32_t pid, int32_t requestType = 0);
// Writes bytes into the service's admin FIFO in one write.
bool WriteAdmin(const std::string& guid, const std::string& bytes);

// A client of this process that speaks the protocol itself, under a connect id of its own.
class RawClient {
public:
    RawClient(const std::string& guid, uint32_t connectId);
    ~RawClient() { closeAll(); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    // FIFOs, read ends, CONNECT, reply; the write ends on success. The reply's result word,
    // ~0u when none came.
    uint32_t connect();
    // FIFOs and CONNECT only: the server's open of the reply FIFO waits for a reader.
    bool connectWithoutReader();
    // Then: opens the read ends and takes the reply as connect() does.
    uint32_t answerConnect();
    bool send(const std::string& bytes, bool closeAfter = false);
    void closeAll();
    std::string path(const char* role) const;

private:
    void makeFifos() const;
    void openReadEnds();

    std::string m_guid;
    uint32_t m_connectId;
    int m_fds[4] = {-1, -1, -1, -1};  // recv request, recv response, send request, send response
};

// Every trace and log line while it exists, as "<T|L>/<class>/<priority> <text>".
class LineCapture {
public:
    LineCapture();
    ~LineCapture();
    LineCapture(const LineCapture&) = delete;
    LineCapture& operator=(const LineCapture&) = delete;
    std::vector<std::string> lines();
    // Lines holding text so far. A line is only ever a point to wait for, never an oracle.
    size_t count(const std::string& text);
    bool wait(const std::string& text, size_t n = 1);

private:
    static void callback(void* ctx, int kind, int traceClass, int priority, const char* text);
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

// This program run again with --peer=<role>,<guid>; killed and reaped at the latest when it goes.
class Peer {
public:
    Peer(const std::string& role, const std::string& guid);
    ~Peer() { kill(); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    void kill();
    int wait();  // exit status of a peer that ends by itself, -1 when it did not exit

private:
    pid_t m_pid = -1;
};
// A peer's body, by role; returns its exit status. PeerMain runs the one named on the command
// line, or the tests.
using PeerFn = int (*)(const std::string& guid);
struct PeerRole {
    const char* name;
    PeerFn run;
};
int PeerMain(int argc, char** argv, const std::vector<PeerRole>& roles);

// A test of the transport: a guid of its own, its /tmp and /dev/shm entries removed and every
// descriptor it opened closed again by the end.
class EndpointTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    Peer& startPeer(const std::string& role);

    std::string m_guid;
    int m_fdsBefore = 0;
    LineCapture m_capture;
    std::vector<std::unique_ptr<Peer>> m_peers;
    std::vector<std::string> m_moreGuids;  // removed too
};

}  // namespace qvtest

#endif  // TESTS_SUPPORT_IPCSUPPORT_H_
