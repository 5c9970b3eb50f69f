// IPC benchmarks: the library's endpoints against what a user could build or pick instead, each
// with its server in a child process. Every transport echoes through the same shapes (round
// trip, one-way stream with a closing acknowledgement, many clients), so the rows of one table
// differ only in the transport. Run with "--peer MODE ..." the program is one of those children.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "bench/BenchSupport.h"
#include "bench/IpcPeers.h"

#ifdef QVBENCH_HAVE_ZMQ
#include <zmq.h>
#endif

namespace qvbench {
namespace {

constexpr int PIPE_SIZE_LARGE = 1 << 20;  // the default /proc/sys/fs/pipe-max-size
constexpr auto CONNECT_LIMIT = std::chrono::seconds(30);

// A client endpoint of the library with a thread that sits in receiveRequest, as applications
// run it: it counts the connect notifications, so connecting and reconnecting can be timed.
class CQvClient {
public:
    explicit CQvClient(const std::string& guid)
        : m_endpoint(
              new CQVIPCLibrary("bench client", guid, 0, 0, BENCH_EXT_SIZE, BENCH_SEND_TIMEOUT)) {}
    ~CQvClient() { stop(); }
    CQvClient(const CQvClient&) = delete;
    CQvClient& operator=(const CQvClient&) = delete;

    bool start() {
        if (m_endpoint->initialize() != S_OK) return false;
        m_receiver = std::thread([this] {
            for (;;) {
                unsigned long ipcid = 0, id = 0, len = 0;
                char* body = nullptr;
                int type = 0;
                const QVRESULT rc =
                    m_endpoint->receiveRequest(&ipcid, &id, &body, &len, &type, nullptr);
                delete[] body;
                if (rc == QVIPC_E_SHUTDOWN) return;
                if (rc == QVIPC_E_NEW_CONNECTION) m_connections.fetch_add(1);
            }
        });
        return true;
    }

    // Waits until count connect notifications have arrived; false after CONNECT_LIMIT.
    bool waitConnections(int count) {
        const Clock::time_point end = Clock::now() + CONNECT_LIMIT;
        while (m_connections.load() < count) {
            if (Clock::now() > end) return false;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        return true;
    }
    int connections() const { return m_connections.load(); }

    void stop() {
        m_endpoint->finalize();
        if (m_receiver.joinable()) m_receiver.join();
    }

    CQVIPCLibrary& endpoint() { return *m_endpoint; }

private:
    std::unique_ptr<CQVIPCLibrary> m_endpoint;
    std::thread m_receiver;
    std::atomic<int> m_connections{0};
};

// Starts the library's server in a child and waits until it has initialized.
pid_t StartQvServer(const std::string& guid, int maxConnections) {
    int ready[2];
    if (!MakePipe(ready)) return -1;
    const pid_t pid = SpawnSelf(
        {"--peer", "qvipc-server", guid, std::to_string(maxConnections), std::to_string(ready[1])},
        {ready[1]});
    close(ready[1]);
    char token = 0;
    const bool up = ReadFull(ready[0], &token, 1);
    close(ready[0]);
    if (!up) {
        WaitChild(pid);
        return -1;
    }
    return pid;
}

// One connection of one transport: a server child and this process as its client.
class CSession {
public:
    virtual ~CSession() = default;
    virtual bool roundTrip(const char* body, uint32_t len) = 0;
    virtual bool oneWay(const char* body, uint32_t len) = 0;
    // Returns when the server has received everything sent before.
    virtual bool flush() = 0;
};

class CRawSession : public CSession {
public:
    // pipeSize 0 keeps the kernel's default FIFO size.
    static CSession* Fifo(int pipeSize, bool libraryCalls = false) {
        std::unique_ptr<CRawSession> s(new CRawSession);
        const std::string req = "/tmp/" + s->m_guid + "-req";
        const std::string rsp = "/tmp/" + s->m_guid + "-rsp";
        if (mkfifo(req.c_str(), 0600) != 0 || mkfifo(rsp.c_str(), 0600) != 0) return nullptr;
        s->m_pid = SpawnSelf(
            {"--peer", "fifo-echo", req, rsp, libraryCalls ? "library-calls" : "plain"}, {});
        s->m_wfd = open(req.c_str(), O_WRONLY | O_CLOEXEC);
        s->m_rfd = open(rsp.c_str(), O_RDONLY | O_CLOEXEC);
        if (s->m_wfd < 0 || s->m_rfd < 0) return nullptr;
        if (pipeSize != 0 && (fcntl(s->m_wfd, F_SETPIPE_SZ, pipeSize) < 0 ||
                              fcntl(s->m_rfd, F_SETPIPE_SZ, pipeSize) < 0)) {
            return nullptr;
        }
        return s.release();
    }

    static CSession* UnixSocket() {
        std::unique_ptr<CRawSession> s(new CRawSession);
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return nullptr;
        s->m_pid = SpawnSelf({"--peer", "socket-echo", std::to_string(sv[1])}, {sv[1]});
        close(sv[1]);
        s->m_wfd = sv[0];
        s->m_rfd = dup(sv[0]);
        return s.release();
    }

    ~CRawSession() override {
        if (m_wfd >= 0) RawSendRequest(m_wfd, 0, OP_STOP, nullptr, 0);
        if (m_wfd >= 0) close(m_wfd);
        if (m_rfd >= 0) close(m_rfd);
        WaitChild(m_pid);
        RemoveGuidFiles(m_guid);
    }

    bool roundTrip(const char* body, uint32_t len) override {
        return RawSendRequest(m_wfd, ++m_id, OP_ECHO, body, len) &&
               RawReadResponse(m_rfd, &m_reply, &m_len);
    }
    bool oneWay(const char* body, uint32_t len) override {
        return RawSendRequest(m_wfd, ++m_id, OP_ONE_WAY, body, len);
    }
    bool flush() override {
        return RawSendRequest(m_wfd, ++m_id, OP_FLUSH, nullptr, 0) &&
               RawReadResponse(m_rfd, &m_reply, &m_len);
    }

private:
    CRawSession() = default;
    std::string m_guid = NewGuid();
    pid_t m_pid = -1;
    int m_wfd = -1;
    int m_rfd = -1;
    uint32_t m_id = 0;
    std::unique_ptr<char[]> m_reply;
    uint32_t m_len = 0;
};

class CQvSession : public CSession {
public:
    static CSession* Make() {
        std::unique_ptr<CQvSession> s(new CQvSession);
        s->m_pid = StartQvServer(s->m_guid, 4);
        if (s->m_pid < 0) return nullptr;
        s->m_client.reset(new CQvClient(s->m_guid));
        if (!s->m_client->start() || !s->m_client->waitConnections(1)) return nullptr;
        return s.release();
    }

    ~CQvSession() override {
        if (m_client) {
            unsigned long id = 0;
            m_client->endpoint().sendRequest(0, nullptr, 0, &id, OP_STOP, nullptr);
        }
        StopChild(m_pid);
        m_client.reset();
        RemoveGuidFiles(m_guid);
    }

    bool roundTrip(const char* body, uint32_t len) override { return call(OP_ECHO, body, len); }
    bool oneWay(const char* body, uint32_t len) override {
        unsigned long id = 0;
        return m_client->endpoint().sendRequest(0, body, len, &id, OP_ONE_WAY, nullptr) == S_OK;
    }
    bool flush() override { return call(OP_FLUSH, nullptr, 0); }

private:
    CQvSession() = default;

    bool call(int op, const char* body, uint32_t len) {
        CQVIPCLibrary& ep = m_client->endpoint();
        unsigned long id = 0;
        if (ep.sendRequest(0, body, len, &id, op, nullptr) != S_OK) return false;
        for (;;) {
            unsigned long ipcid = 0, got = 0, rid = 0;
            char* reply = nullptr;
            const QVRESULT rc = ep.receiveResponse(&ipcid, &reply, &got, &rid, nullptr);
            delete[] reply;
            if (rc != S_OK) return false;
            if (rid == id) return true;
        }
    }

    std::string m_guid = NewGuid();
    pid_t m_pid = -1;
    std::unique_ptr<CQvClient> m_client;
};

#ifdef QVBENCH_HAVE_ZMQ
// REQ/REP for round trips, PUSH/PULL for streams (the PULL side acknowledges a flush on a pipe).
class CZmqSession : public CSession {
public:
    static CSession* Make(bool push) {
        std::unique_ptr<CZmqSession> s(new CZmqSession);
        s->m_push = push;
        int ack[2];
        if (!MakePipe(ack)) return nullptr;
        const std::string endpoint = "ipc:///tmp/" + s->m_guid + "-zmq";
        s->m_pid = SpawnSelf(
            {"--peer", push ? "zmq-pull" : "zmq-rep", endpoint, std::to_string(ack[1])}, {ack[1]});
        close(ack[1]);
        s->m_ackFd = ack[0];
        char token = 0;
        if (!ReadFull(s->m_ackFd, &token, 1)) return nullptr;
        s->m_ctx = zmq_ctx_new();
        s->m_sock = zmq_socket(s->m_ctx, push ? ZMQ_PUSH : ZMQ_REQ);
        const int linger = 0;
        zmq_setsockopt(s->m_sock, ZMQ_LINGER, &linger, sizeof linger);
        if (zmq_connect(s->m_sock, endpoint.c_str()) != 0) return nullptr;
        return s.release();
    }

    ~CZmqSession() override {
        if (m_sock != nullptr) zmq_close(m_sock);
        if (m_ctx != nullptr) zmq_ctx_term(m_ctx);
        StopChild(m_pid);
        if (m_ackFd >= 0) close(m_ackFd);
        RemoveGuidFiles(m_guid);
    }

    bool roundTrip(const char* body, uint32_t len) override {
        if (!send(OP_ECHO, body, len)) return false;
        bool more = true;
        while (more) {
            zmq_msg_t part;
            zmq_msg_init(&part);
            if (zmq_msg_recv(&part, m_sock, 0) < 0) return false;
            more = zmq_msg_more(&part) != 0;
            zmq_msg_close(&part);
        }
        return true;
    }
    bool oneWay(const char* body, uint32_t len) override { return send(OP_ONE_WAY, body, len); }
    bool flush() override {
        if (!m_push) return roundTrip(nullptr, 0);
        char token = 0;
        return send(OP_FLUSH, nullptr, 0) && ReadFull(m_ackFd, &token, 1);
    }

private:
    CZmqSession() = default;

    bool send(int32_t op, const char* body, uint32_t len) {
        unsigned char header[REQUEST_HEADER] = {};
        const uint32_t words[6] = {3, ++m_id, 0, 0, len, static_cast<uint32_t>(op)};
        std::memcpy(header, words, sizeof words);
        if (zmq_send(m_sock, header, sizeof header, len != 0 ? ZMQ_SNDMORE : 0) < 0) return false;
        return len == 0 || zmq_send(m_sock, body, len, 0) >= 0;
    }

    std::string m_guid = NewGuid();
    bool m_push = false;
    pid_t m_pid = -1;
    int m_ackFd = -1;
    void* m_ctx = nullptr;
    void* m_sock = nullptr;
    uint32_t m_id = 0;
};
#endif

// One session at a time, kept across the sizes of a transport so that a connection is made
// once per transport rather than once per benchmark run.
std::unique_ptr<CSession> g_session;
std::string g_sessionKey;

CSession* SessionFor(const std::string& key, const std::function<CSession*()>& make) {
    if (key != g_sessionKey) {
        g_session.reset();
        g_sessionKey = key;
        g_session.reset(make());
    }
    return g_session.get();
}

struct Transport {
    std::string name;
    std::function<CSession*()> make;
};

// The rows of the round-trip and streaming tables; ZeroMQ's natural pattern differs between
// them (REQ/REP for round trips, PUSH/PULL for streams).
std::vector<Transport> Transports(bool streaming) {
    std::vector<Transport> t = {
        {"qvipc", [] { return CQvSession::Make(); }},
        {"fifo", [] { return CRawSession::Fifo(0); }},
        {"fifo_1MiB_pipe", [] { return CRawSession::Fifo(PIPE_SIZE_LARGE); }},
        // Not a competitor: the raw FIFO server making the library's extra system calls, to
        // show how much of the gap to the raw FIFO they explain.
        {"fifo_library_calls", [] { return CRawSession::Fifo(0, true); }},
        {"unix_socket", [] { return CRawSession::UnixSocket(); }},
    };
#ifdef QVBENCH_HAVE_ZMQ
    t.push_back({"zmq", [streaming] { return CZmqSession::Make(streaming); }});
#else
    (void)streaming;
#endif
    return t;
}

void RoundTrip(benchmark::State& state, const Transport& t, uint32_t size) {
    CSession* s = SessionFor("rt-" + t.name, t.make);
    if (s == nullptr) {
        state.SkipWithError("transport could not be set up");
        return;
    }
    const std::string body(size, 'b');
    CLatencies latencies;
    for (auto _ : state) {
        const Clock::time_point t0 = Clock::now();
        if (!s->roundTrip(body.data(), size)) {
            state.SkipWithError("round trip failed");
            break;
        }
        const double dt = SecondsSince(t0);
        state.SetIterationTime(dt);
        latencies.add(dt);
    }
    latencies.report(state);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 * size);
}

// Messages per timed batch: enough that the closing acknowledgement is a small share.
int BatchFor(uint32_t size) { return size <= 1024 ? 1000 : size <= 65536 ? 64 : 8; }

void Stream(benchmark::State& state, const Transport& t, uint32_t size) {
    CSession* s = SessionFor("st-" + t.name, t.make);
    if (s == nullptr) {
        state.SkipWithError("transport could not be set up");
        return;
    }
    const std::string body(size, 's');
    const int batch = BatchFor(size);
    for (auto _ : state) {
        const Clock::time_point t0 = Clock::now();
        bool ok = true;
        for (int i = 0; i < batch && ok; ++i) ok = s->oneWay(body.data(), size);
        if (!ok || !s->flush()) {
            state.SkipWithError("stream failed");
            break;
        }
        state.SetIterationTime(SecondsSince(t0));
    }
    state.counters["batch"] = batch;
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * batch);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * batch * size);
}

// n client processes, each doing round trips of 100 bytes for ms milliseconds once all are
// connected. Returns the aggregate round trips per second.
double ManyClientsRun(const std::string& kind, int n, int ms, bool* ok) {
    const std::string guid = NewGuid();
    int ready[2], start[2];
    *ok = MakePipe(ready) && MakePipe(start);
    if (!*ok) return 0;
    pid_t server = -1;
    std::vector<pid_t> clients;
    const std::string prefix = "/tmp/" + guid;
    if (kind == "fifo") {
        for (int i = 0; i < n && *ok; ++i) {
            *ok = mkfifo((prefix + "-req-" + std::to_string(i)).c_str(), 0600) == 0 &&
                  mkfifo((prefix + "-rsp-" + std::to_string(i)).c_str(), 0600) == 0;
        }
        server = SpawnSelf({"--peer", "select-server", prefix, std::to_string(n)}, {});
    } else {
        server = StartQvServer(guid, n + 2);
        *ok = *ok && server > 0;
    }
    for (int i = 0; i < n && *ok; ++i) {
        const std::string a = kind == "fifo" ? prefix + "-req-" + std::to_string(i) : guid;
        const std::string b = kind == "fifo" ? prefix + "-rsp-" + std::to_string(i) : "-";
        clients.push_back(SpawnSelf({"--peer", "many-client", kind, a, b, std::to_string(ms),
                                     std::to_string(ready[1]), std::to_string(start[0])},
                                    {ready[1], start[0]}));
    }
    close(ready[1]);
    close(start[0]);
    const size_t all = clients.size();
    std::vector<char> tokens(all, 's');
    std::vector<uint32_t> counts(all, 0);
    double rate = 0;
    *ok = *ok && ReadFull(ready[0], tokens.data(), all);
    if (*ok) {
        *ok = WriteFull(start[1], tokens.data(), all) &&
              ReadFull(ready[0], counts.data(), all * sizeof(uint32_t));
        double total = 0;
        for (uint32_t c : counts) total += c;
        rate = total * 1000.0 / ms;
    }
    close(start[1]);
    close(ready[0]);
    for (pid_t c : clients) WaitChild(c);
    if (kind == "fifo") {
        WaitChild(server);
    } else {
        StopChild(server);
    }
    RemoveGuidFiles(guid);
    return rate;
}

void ManyClients(benchmark::State& state, const std::string& kind, int n) {
    g_session.reset();
    g_sessionKey.clear();
    constexpr int RUN_MS = 1000;
    double sum = 0;
    for (auto _ : state) {
        bool ok = false;
        const double rate = ManyClientsRun(kind, n, RUN_MS, &ok);
        if (!ok) {
            state.SkipWithError("clients could not be run");
            break;
        }
        // The iteration's time is that of one round trip of the aggregate.
        state.SetIterationTime(1.0 / rate);
        sum += rate;
    }
    if (state.iterations() > 0) {
        state.counters["round_trips_per_s"] = sum / static_cast<double>(state.iterations());
    }
}

void Connect(benchmark::State& state) {
    g_session.reset();
    g_sessionKey.clear();
    const std::string guid = NewGuid();
    const pid_t server = StartQvServer(guid, 8);
    if (server < 0) {
        state.SkipWithError("server could not be started");
        return;
    }
    for (auto _ : state) {
        const Clock::time_point t0 = Clock::now();
        CQvClient client(guid);
        if (!client.start() || !client.waitConnections(1)) {
            state.SkipWithError("no connection");
            break;
        }
        state.SetIterationTime(SecondsSince(t0));
    }
    StopChild(server);
    RemoveGuidFiles(guid);
}

// The server is killed and started again; timed from the new server's start-up until the
// client's receiveRequest reports the new connection.
void Reconnect(benchmark::State& state) {
    g_session.reset();
    g_sessionKey.clear();
    const std::string guid = NewGuid();
    pid_t server = StartQvServer(guid, 8);
    CQvClient client(guid);
    if (server < 0 || !client.start() || !client.waitConnections(1)) {
        state.SkipWithError("no first connection");
        StopChild(server);
        RemoveGuidFiles(guid);
        return;
    }
    for (auto _ : state) {
        const int before = client.connections();
        StopChild(server, SIGKILL);
        server = StartQvServer(guid, 8);
        const Clock::time_point t0 = Clock::now();
        if (server < 0 || !client.waitConnections(before + 1)) {
            state.SkipWithError("no reconnection");
            break;
        }
        state.SetIterationTime(SecondsSince(t0));
    }
    client.stop();
    StopChild(server);
    RemoveGuidFiles(guid);
}

void RegisterAll() {
    static const uint32_t ROUND_TRIP_SIZES[] = {0, 100, 4096, 65536, 1 << 20};
    static const uint32_t STREAM_SIZES[] = {100, 65536, 1 << 20};
    for (const Transport& t : Transports(false)) {
        for (uint32_t size : ROUND_TRIP_SIZES) {
            benchmark::RegisterBenchmark(
                ("RoundTrip/" + t.name + "/" + std::to_string(size)).c_str(),
                [t, size](benchmark::State& s) { RoundTrip(s, t, size); })
                ->UseManualTime()
                ->Unit(benchmark::kMicrosecond);
        }
    }
    for (const Transport& t : Transports(true)) {
        for (uint32_t size : STREAM_SIZES) {
            benchmark::RegisterBenchmark(("Stream/" + t.name + "/" + std::to_string(size)).c_str(),
                                         [t, size](benchmark::State& s) { Stream(s, t, size); })
                ->UseManualTime()
                ->Unit(benchmark::kMicrosecond);
        }
    }
    for (const char* kind : {"qvipc", "fifo"}) {
        for (int n : {8, 32}) {
            const std::string name = std::string("Clients/") +
                                     (std::string(kind) == "fifo" ? "select_fifo" : kind) + "/" +
                                     std::to_string(n);
            const std::string k = kind;
            benchmark::RegisterBenchmark(name.c_str(),
                                         [k, n](benchmark::State& s) { ManyClients(s, k, n); })
                ->UseManualTime()
                ->Iterations(3)
                ->Repetitions(1)
                ->Unit(benchmark::kMicrosecond);
        }
    }
    benchmark::RegisterBenchmark("Connect/qvipc", Connect)
        ->UseManualTime()
        ->Iterations(5)
        ->Repetitions(1)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("Reconnect/qvipc", Reconnect)
        ->UseManualTime()
        ->Iterations(3)
        ->Repetitions(1)
        ->Unit(benchmark::kMillisecond);
}

}  // namespace
}  // namespace qvbench

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "--peer") == 0) return qvbench::RunPeer(argc, argv);
    signal(SIGPIPE, SIG_IGN);
    qvbench::RegisterAll();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    qvbench::g_session.reset();
    benchmark::Shutdown();
    return 0;
}
