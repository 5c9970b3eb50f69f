// What transport tests, reliability programs, fuzzers and benchmarks share.
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
#include "platform/QVLog.h"
#include "tests/support/TestSupport.h"

namespace qvtest {

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;
// Allows for the design's own polling (200 ms, 1 s), for qemu and for a loaded machine.
constexpr std::chrono::milliseconds DEADLINE{60000};

inline std::unique_ptr<CQVIPCLibrary> MakeServer(const std::string& guid, unsigned long clients,
                                                 unsigned long ext = 48,
                                                 unsigned long sto = NO_TIMEOUT) {
    return std::make_unique<CQVIPCLibrary>("server", guid, 1, clients, ext, sto);
}
inline std::unique_ptr<CQVIPCLibrary> MakeClient(const std::string& guid, unsigned long ext = 48,
                                                 unsigned long sto = NO_TIMEOUT) {
    return std::make_unique<CQVIPCLibrary>("client", guid, 0, 0, ext, sto);
}

// One receive call's result and outputs; ext holds extSize bytes.
struct Received {
    QVRESULT hr = 0;
    unsigned long ipcid = 0, id = 0;
    int type = 0;
    std::string body, ext;
    bool bodyNull = true;
};
Received ReceiveRequest(CQVIPCLibrary& lib, unsigned long extSize = 48);
Received ReceiveResponse(CQVIPCLibrary& lib, unsigned long extSize = 48);

// n bytes that depend on n and seed, the same on every word size.
std::string Pattern(size_t n, uint32_t seed);
// Every byte changed: an answer that can never be the request coming back unread.
std::string Flip(const std::string& bytes);
QVRESULT AnswerFlipped(CQVIPCLibrary& lib, const Received& request);

// Retries while the endpoint has no pipe yet (a client's connect thread is still at work).
QVRESULT SendWhenConnected(CQVIPCLibrary& lib, const std::string& body, int type = 1,
                           unsigned long ipcid = 0, unsigned long* pId = nullptr);
void ExpectRoundTrip(CQVIPCLibrary& client, const std::string& body);

// Records every receiveRequest result until shutdown; with echo, answers nonzero types in kind.
class RequestLoop {
public:
    RequestLoop(CQVIPCLibrary& lib, unsigned long extSize = 48, bool echo = true);
    ~RequestLoop();  // finalizes the endpoint, then joins

    std::vector<Received> results() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_results;
    }
    std::vector<unsigned long> connections();  // ipcids of QVIPC_E_NEW_CONNECTION
    size_t count(QVRESULT hr, long ipcid = -1);
    bool waitConnections(size_t n) { return waitResult(QVIPC_E_NEW_CONNECTION, n); }
    bool waitResult(QVRESULT hr, size_t n, long ipcid = -1) {
        return WaitFor([&] { return count(hr, ipcid) >= n; }, DEADLINE);
    }
    void join() {
        if (m_thread.joinable()) m_thread.join();
    }

private:
    CQVIPCLibrary& m_lib;
    std::mutex m_mutex;
    std::vector<Received> m_results;
    std::thread m_thread;
};

// A server for `clients` and one client, each with a RequestLoop (that finalizes it first); ok
// once both are connected.
struct ConnectedPair {
    ConnectedPair(const std::string& guid, unsigned long clients, unsigned long ext = 48,
                  bool echo = true);
    std::unique_ptr<CQVIPCLibrary> server, client;
    std::unique_ptr<RequestLoop> serverLoop, clientLoop;
    bool ok = false;
};

// The service's entries in /tmp: names starting with guid, less the id generator's lock.
std::vector<std::string> GuidFiles(const std::string& guid);
long ResidentKiB(pid_t pid);
long long ClientConnectId(const std::string& guid, pid_t pid);  // -1 when it has no FIFOs
void RemoveClientFifos(const std::string& guid, pid_t pid);     // as a sweep would

// Loop over short transfers; false on end of file or an error other than EINTR.
bool ReadFull(int fd, void* buf, size_t len);
bool WriteFull(int fd, const void* buf, size_t len);
bool WaitFifoDrained(const std::string& path);  // nothing left to read in the FIFO

// A request header or admin record, built by the library's own builder.
std::string Frame(uint32_t type, uint32_t requestId, uint32_t bodySize, int32_t requestType);
std::string Record(uint32_t type, uint32_t connectId, uint32_t pid, int32_t requestType = 0);
// A 68-byte response header, built by the library's own builder.
std::string ResponseBytes(uint32_t type, uint32_t requestId, uint32_t result, uint32_t bodySize,
                          uint32_t pid = 0);
bool WriteFifo(const std::string& path, const std::string& bytes);  // in one write, once read
inline bool WriteAdmin(const std::string& guid, const std::string& bytes) {
    return WriteFifo("/tmp/" + guid + "-svr-admin", bytes);
}

// A client in this process that speaks the wire format itself, under a connect id of its own.
class RawClient {
public:
    RawClient(const std::string& guid, uint32_t connectId) : m_guid(guid), m_id(connectId) {}
    ~RawClient() { closeAll(); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    uint32_t connect();           // the reply's result word, ~0u when none came
    bool connectWithoutReader();  // FIFOs and CONNECT only: the server's reply waits...
    uint32_t answerConnect();     // ...until this opens the read ends and takes it
    bool send(const std::string& bytes, bool closeAfter = false);
    void closeAll();
    std::string path(const char* role) const;

private:
    void openReadEnds();
    std::string m_guid;
    uint32_t m_id;
    int m_fds[4] = {-1, -1, -1, -1};  // cli-req, svr-rsp (read); svr-req, cli-rsp (write)
};

// Every trace and log line while it exists, as "<T|L>/<class>/<priority> <text>".
class LineCapture {
public:
    LineCapture();
    ~LineCapture() { QVSetLogCallback(nullptr, nullptr); }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    size_t count(const std::string& text);  // outside LogLineTest, only a point to wait for
    bool wait(const std::string& text, size_t n = 1) {
        return WaitFor([&] { return count(text) >= n; }, DEADLINE);
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

// This program run again with --peer=<role>,<guid>; killed and reaped at the latest when it goes.
class Peer {
public:
    Peer(const std::string& role, const std::string& guid);
    ~Peer() { kill(); }  // never copied: EndpointTest holds it by pointer
    void kill() { KillAndReap(m_pid); }
    int wait();  // exit status, -1 when it did not exit

private:
    pid_t m_pid = -1;
};
struct PeerRole {
    const char* name;
    int (*run)(const std::string& guid);
};
int PeerMain(int argc, char** argv, const std::vector<PeerRole>& roles);

// A transport test: a guid of its own, its entries removed and its descriptors closed by the end.
class EndpointTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    Peer& startPeer(const std::string& role) {
        m_peers.emplace_back(new Peer(role, m_guid));
        return *m_peers.back();
    }

    std::string m_guid;
    int m_fdsBefore = 0;
    LineCapture m_capture;
    std::vector<std::unique_ptr<Peer>> m_peers;
    std::vector<std::string> m_moreGuids;  // removed too
};

}  // namespace qvtest

#endif  // TESTS_SUPPORT_IPCSUPPORT_H_
