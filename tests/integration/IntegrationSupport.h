// Shared by the transport's integration tests: endpoints driven by threads that loop on the
// receive calls, a raw peer that speaks the wire format by hand (for faults a real endpoint never
// makes), child processes running this binary as a peer, and the line capture.
#ifndef TESTS_INTEGRATION_INTEGRATIONSUPPORT_H_
#define TESTS_INTEGRATION_INTEGRATIONSUPPORT_H_

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "tests/ipc/IpcTestSupport.h"

namespace itest {

using namespace std::chrono_literals;

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;
// Deadlines allow for the design's own polling (200 ms, 1 s) and for qemu.
constexpr std::chrono::milliseconds DEADLINE = 60s;

std::unique_ptr<CQVIPCLibrary> MakeServer(const std::string& guid, unsigned long clients,
                                          unsigned long ext = 48, unsigned long sto = NO_TIMEOUT);
std::unique_ptr<CQVIPCLibrary> MakeClient(const std::string& guid, unsigned long ext = 48,
                                          unsigned long sto = NO_TIMEOUT);

// One result of a receive call, with its outputs.
struct Received {
    QVRESULT hr = 0;
    unsigned long ipcid = 0;
    unsigned long requestId = 0;
    int requestType = 0;
    std::string body;
    bool bodyNull = true;
    std::string ext;
};

// A thread looping on receiveRequest until QVIPC_E_SHUTDOWN. Every result is recorded; with
// echo set, a data request of nonzero request type is answered on the same thread with its own
// body and extension (records of unknown type come back as S_OK with type 0 and are not).
class RequestLoop {
public:
    RequestLoop(CQVIPCLibrary& lib, unsigned long extSize, bool echo);
    ~RequestLoop();  // finalizes the endpoint, then joins
    RequestLoop(const RequestLoop&) = delete;
    RequestLoop& operator=(const RequestLoop&) = delete;

    std::vector<Received> results();
    // Slots (server) or count (client) of QVIPC_E_NEW_CONNECTION results so far.
    std::vector<unsigned long> connections();
    bool waitConnections(size_t n);
    bool waitResult(QVRESULT hr, size_t n);
    bool finished() const { return m_finished.load(); }
    void join();

private:
    void run();

    CQVIPCLibrary& m_lib;
    unsigned long m_extSize;
    bool m_echo;
    std::mutex m_mutex;
    std::vector<Received> m_results;
    std::atomic<bool> m_finished{false};
    std::thread m_thread;
};

// A server for `clients` clients and one client of it, both initialized and each with a
// RequestLoop; ok once both sides reported the new connection. The destructor finalizes the
// client, then the server, and joins the loops.
struct ConnectedPair {
    ConnectedPair(const std::string& guid, unsigned long clients, unsigned long ext, bool echo);
    ~ConnectedPair();
    ConnectedPair(const ConnectedPair&) = delete;
    ConnectedPair& operator=(const ConnectedPair&) = delete;

    std::unique_ptr<CQVIPCLibrary> server;
    std::unique_ptr<CQVIPCLibrary> client;
    std::unique_ptr<RequestLoop> serverLoop;
    std::unique_ptr<RequestLoop> clientLoop;
    bool ok = false;
};

// receiveRequest / receiveResponse once, on the calling thread.
Received ReceiveRequest(CQVIPCLibrary& lib, unsigned long extSize);
Received ReceiveResponse(CQVIPCLibrary& lib, unsigned long extSize);

// One echoed round trip of a client, sent once the client has its connection.
void ExpectRoundTrip(CQVIPCLibrary& client, const std::string& body);

// A body of n bytes whose content depends on n and seed.
std::string Pattern(size_t n, unsigned seed);

// The "0x%08X" text of the first (or last) endpoint built for guid, from its constructor's
// trace line.
std::string AddressOf(ipctest::LineCapture& capture, const std::string& guid, int isServer,
                      bool last = false);
// Number of captured lines equal to line ("T/16/2 text" form).
size_t CountLines(ipctest::LineCapture& capture, const std::string& line);
bool WaitLine(ipctest::LineCapture& capture, const std::string& line, size_t n = 1);

// The service's FIFOs that exist now (names in /tmp).
std::vector<std::string> GuidFiles(const std::string& guid);

// The wire formats, built by hand.
std::string RequestRecord(uint32_t type, uint32_t requestId, uint32_t connectId, uint32_t pid,
                          uint32_t bodySize, int32_t requestType);
std::string ResponseRecord(uint32_t type, uint32_t requestId, uint32_t result, uint32_t pid,
                           uint32_t bodySize);

// A client that speaks the protocol by hand, with a connect id no real endpoint uses.
class RawClient {
public:
    RawClient(const std::string& guid, uint32_t connectId);
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    // Makes the four FIFOs and the read ends, writes CONNECT and waits for the reply; on
    // success opens the write ends. Returns the reply's result word, or ~0u on time-out.
    uint32_t connect();
    // Makes the FIFOs and writes CONNECT, but opens no read end: the server can never answer.
    bool connectWithoutReader();
    // After connectWithoutReader: opens the read ends the server waits for and takes the reply
    // as connect() does.
    uint32_t answerConnect();
    // Writes raw bytes into the server-request FIFO; closeAfter closes the write end.
    bool sendRaw(const std::string& bytes, bool closeAfter);
    // Closes every descriptor (the server then sees end of file).
    void closeAll();

    std::string adminPath() const;

private:
    std::string path(const char* role) const;
    void makeFifos() const;
    bool writeConnect() const;
    void openReadEnds();

    std::string m_guid;
    uint32_t m_connectId;
    int m_recvResponse = -1;
    int m_recvRequest = -1;
    int m_sendRequest = -1;
    int m_sendResponse = -1;
};

// Writes bytes into the service's admin FIFO in one write.
bool WriteAdmin(const std::string& guid, const std::string& bytes);

// A child process running this binary with --peer=<role>,<guid>; killed and reaped by Stop.
class Peer {
public:
    Peer(const std::string& role, const std::string& guid);
    ~Peer() { stop(); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    pid_t pid() const { return m_pid; }
    void kill();  // SIGKILL and reap
    int wait();   // reaps a peer that ends by itself; its exit status, -1 if it did not exit
    void stop() { kill(); }

private:
    pid_t m_pid = -1;
};

// Entry of a peer process; returns its exit status. argument is "<role>,<guid>"; the roles:
// server (an echo server for 8 clients), client (sends requests without pause), exit-client
// (connects, then leaves main without finalize), swallow-connect (reads the first admin record
// and exits: 0 when it was a CONNECT), readme-server (README.md's example server).
int RunPeer(const std::string& argument);

}  // namespace itest

#endif  // TESTS_INTEGRATION_INTEGRATIONSUPPORT_H_
