// qvipc ping: K client endpoints of one process connect to a service and each sends N requests
// with bodies (and header extensions) of known content, one at a time, and checks the echoes.
// Per client, one thread serves the requests the server sends and learns of connections and
// breaks, another takes the responses. The main thread watches the deadlines, draws the progress
// line, takes SIGINT and SIGTERM, and prints the summary.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "json/JSONSerialize.h"
#include "tools/qvipc/Commands.h"
#include "tools/qvipc/Options.h"
#include "tools/qvipc/ToolSupport.h"

namespace {

const char HELP[] =
    "usage: qvipc ping --guid G [--count N] [--size BYTES] [--ext-size N] [--clients K]\n"
    "                  [--timeout S] [--connect-timeout S] [--strict] [--json]\n"
    "\n"
    "Connects K clients (threads of this process) to the service G; each sends N requests\n"
    "whose bodies carry known content and checks every echoed response, while it also\n"
    "echoes every request the server sends it. Prints a summary: round trips, failures,\n"
    "latency percentiles in microseconds, messages per second (requests and responses),\n"
    "MB/s (bodies both ways), and the connection breaks: how many, the requests whose\n"
    "responses they lost, and how long each client took to reconnect, in milliseconds from\n"
    "the moment it noticed the break.\n"
    "\n"
    "The clients ride through a restart of the server: each waits for its new connection\n"
    "and goes on with its next request. SIGINT or SIGTERM ends the run early with the\n"
    "summary of what was done. Fails (exit status 1) when a response differs or is missing\n"
    "without a break, or when a client is not connected within the connect time-out, at the\n"
    "start or after a break.\n"
    "\n"
    "  --count N            requests per client (default 100)\n"
    "  --size BYTES[,...]   body sizes, used in turn (default 64)\n"
    "  --ext-size N         header extension bytes, 0 to 48, as the server uses (default 0);\n"
    "                       every request carries a full extension of known content\n"
    "  --clients K          client endpoints, 1 to 63 (default 1)\n"
    "  --timeout S          send time-out in whole seconds, and the longest wait for a\n"
    "                       response, 3 s at least (default: no send time-out, 30 s for\n"
    "                       a response)\n"
    "  --connect-timeout S  how long the clients may take to connect, and to reconnect\n"
    "                       after a break (default 10)\n"
    "  --strict             fail also when a break lost a request\n"
    "  --json               print the summary as one JSON object\n";

constexpr int PING_REQUEST_TYPE = 1;
constexpr size_t EXT_MAX = 48;
constexpr unsigned long MAX_CLIENTS = 63;
constexpr unsigned long long MAX_BODY = 64ull << 20;
constexpr double DEFAULT_RESPONSE_WAIT_S = 30;
// An endpoint reports a break only after a pause of its own (about 1.2 s); a response is
// awaited at least this long, so that a break is not taken for a missing answer.
constexpr double MIN_RESPONSE_WAIT_S = 3;
constexpr double DEFAULT_CONNECT_TIMEOUT_S = 10;
// After its own requests a client keeps echoing until the server has been quiet this long,
// so that a server pushing requests of its own gets its answers.
constexpr std::chrono::milliseconds LINGER_QUIET(300);
constexpr std::chrono::seconds LINGER_MAX(5);
constexpr std::chrono::milliseconds WATCH_PERIOD(50);
constexpr std::chrono::milliseconds PROGRESS_PERIOD(250);

using Clock = std::chrono::steady_clock;

struct CPingConfig {
    std::string guid;
    unsigned long long count = 100;
    std::vector<unsigned long long> sizes{64};
    unsigned long extSize = 0;
    unsigned long sendTimeout = QVIPC_NO_TIMEOUT;
    Clock::duration responseWait;
    Clock::duration connectTimeout;
};

uint32_t Seed(unsigned index, uint64_t seq) {
    return static_cast<uint32_t>(index) * 7919u + static_cast<uint32_t>(seq) * 104729u + 1u;
}

std::string Format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* fmt, ...) {
    char text[128];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    return text;
}

// One client endpoint and its one open request. A request is sent by whichever thread finds
// the line free: the response thread right after the previous answer, or the request thread
// when a connection has just come up. The connection count (m_epoch) ties each request to
// the connection it went out on, so that a break settles exactly the request it cut off.
class CPingClient {
public:
    enum class End { NONE, NO_CONNECTION, NO_RECONNECTION, FAILED };

    CPingClient(unsigned index, const CPingConfig& config, Clock::time_point start)
        : m_index(index), m_config(config), m_start(start) {}

    // False with *error set when the endpoint cannot be made or started.
    bool start(std::string* error);
    // The main thread's look at the deadlines: a client past one is stopped. True once the
    // client has finished, by its own requests or by a deadline.
    bool watch(Clock::time_point now);
    // Stops the endpoint (finalize ends every wait) and joins the threads.
    void finish();
    uint64_t settled();

    // Results, read after finish().
    struct CReconnect {
        Clock::time_point since;
        uint32_t ms;
    };
    std::vector<uint32_t> m_latencies;
    std::vector<CReconnect> m_reconnects;
    uint64_t m_failures = 0;  // wrong or missing answers, stray responses, unsent requests
    uint64_t m_lost = 0;      // requests whose answers a break took
    uint64_t m_breaks = 0;
    uint64_t m_bodyBytes = 0;
    Clock::time_point m_first, m_last;
    bool m_started = false;
    End m_end = End::NONE;
    std::string m_error;  // the first failure, for the error line

private:
    enum class Line { IDLE, SENDING, WAITING, DOUBT };

    void requestLoop();
    void responseLoop();
    void onResponse(std::unique_lock<std::mutex>& lock, unsigned long rid, const char* body,
                    unsigned long len, const char* ext, Clock::time_point at);
    // The following run with m_mutex held.
    void sendNext(std::unique_lock<std::mutex>& lock);
    void connectionBroke(Clock::time_point now);
    void trouble(Clock::time_point at);
    void settle(Clock::time_point at);
    void lose(Clock::time_point at);
    void fail(const std::string& what);
    void stop(End end, const std::string& why);

    const unsigned m_index;
    const CPingConfig& m_config;
    const Clock::time_point m_start;
    std::unique_ptr<CQVIPCLibrary> m_endpoint;
    std::thread m_requests;
    std::thread m_responses;
    std::atomic<bool> m_stop{false};
    std::atomic<long long> m_lastServerRequest{0};  // ns on Clock

    std::mutex m_mutex;              // guards everything below and the results above
    std::condition_variable m_sent;  // a send has returned
    bool m_linked = false;           // connected, as far as this client has seen
    bool m_everLinked = false;
    bool m_inBreak = false;  // broken and not yet connected again
    unsigned m_epoch = 0;    // connections so far
    Clock::time_point m_breakSince;
    // A sign of a break that the request thread has not confirmed yet: a failed send or
    // receive. The break is dated from the first sign.
    bool m_trouble = false;
    Clock::time_point m_troubleSince;
    bool m_done = false;
    // The open request.
    Line m_line = Line::IDLE;
    uint64_t m_nextSeq = 0;
    uint64_t m_settledCount = 0;
    unsigned long m_id = 0;
    unsigned m_sentEpoch = 0;
    Clock::time_point m_t0, m_settledAt;
    std::string m_doubt;  // what failed, should no break explain it
    std::string m_body, m_ext;
    std::set<unsigned long> m_lostIds;  // a late answer to one of these is no wrong echo
};

long long NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

bool CPingClient::start(std::string* error) {
    try {
        m_endpoint.reset(new CQVIPCLibrary("qvipc ping", m_config.guid, 0, 0, m_config.extSize,
                                           m_config.sendTimeout));
    } catch (LQException& e) {
        *error = Format("cannot create a client endpoint: 0x%08X", static_cast<unsigned>(e.code));
        return false;
    }
    const QVRESULT rc = m_endpoint->initialize();
    if (rc != S_OK) {
        *error = Format("cannot start a client endpoint: 0x%08X", static_cast<unsigned>(rc));
        return false;
    }
    m_requests = std::thread(&CPingClient::requestLoop, this);
    m_responses = std::thread(&CPingClient::responseLoop, this);
    return true;
}

void CPingClient::requestLoop() {
    char ext[EXT_MAX];
    for (;;) {
        unsigned long ipcid = 0, id = 0, len = 0;
        char* body = nullptr;
        int type = 0;
        const QVRESULT rc = m_endpoint->receiveRequest(&ipcid, &id, &body, &len, &type, ext);
        std::unique_ptr<char[]> owned(body);
        if (rc == QVIPC_E_SHUTDOWN) return;
        if (rc == S_OK) {
            m_lastServerRequest.store(NowNs());
            m_endpoint->sendResponse(0, id, body, len, m_config.extSize != 0 ? ext : nullptr);
            continue;
        }
        const Clock::time_point now = Clock::now();
        std::unique_lock<std::mutex> lock(m_mutex);
        if (rc == QVIPC_E_NEW_CONNECTION) {
            // A connection that comes while the old one looked whole ended unreported.
            if (m_linked) connectionBroke(now);
            if (m_inBreak) {
                m_reconnects.push_back(
                    {m_breakSince,
                     static_cast<uint32_t>(std::min<long long>(
                         std::chrono::duration_cast<std::chrono::milliseconds>(now - m_breakSince)
                             .count(),
                         0xFFFFFFFFll))});
                m_inBreak = false;
            }
            ++m_epoch;
            m_linked = m_everLinked = true;
            m_trouble = false;
            sendNext(lock);
        } else if ((rc == QVIPC_E_DISCONNECTED || rc == QVIPC_E_READ) && m_linked) {
            // The request reader sees every break once; the endpoint reconnects by itself.
            connectionBroke(now);
        }
    }
}

void CPingClient::responseLoop() {
    char ext[EXT_MAX];
    for (;;) {
        unsigned epoch = 0;
        bool linked = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            epoch = m_epoch;
            linked = m_linked;
        }
        unsigned long ipcid = 0, len = 0, rid = 0;
        char* reply = nullptr;
        memset(ext, 0, sizeof ext);
        const QVRESULT rc = m_endpoint->receiveResponse(&ipcid, &reply, &len, &rid, ext);
        const Clock::time_point at = Clock::now();
        std::unique_ptr<char[]> owned(reply);
        if (rc == QVIPC_E_SHUTDOWN) return;
        std::unique_lock<std::mutex> lock(m_mutex);
        // The answer may beat sendRequest's return; its id is known once the send is back.
        m_sent.wait(lock, [this] { return m_line != Line::SENDING || m_stop.load(); });
        if (m_stop.load()) return;
        if (rc == S_OK) {
            onResponse(lock, rid, reply, len, ext, at);
        } else if (linked && m_linked && epoch == m_epoch) {
            // Only a hint: the failure may belong to the connection this call began on, and
            // the request thread confirms the break.
            trouble(at);
            if (m_line == Line::WAITING && m_sentEpoch == m_epoch) {
                m_line = Line::DOUBT;
                m_doubt =
                    Format("a response is missing: %s (0x%08X)",
                           rc == QVIPC_E_DISCONNECTED ? "the connection broke" : "receive failed",
                           static_cast<unsigned>(rc));
            }
        }
    }
}

void CPingClient::onResponse(std::unique_lock<std::mutex>& lock, unsigned long rid,
                             const char* body, unsigned long len, const char* ext,
                             Clock::time_point at) {
    if ((m_line == Line::WAITING || m_line == Line::DOUBT) && rid == m_id) {
        const size_t size = m_body.size();
        if (len != size || (size != 0 && memcmp(body, m_body.data(), size) != 0) ||
            memcmp(ext, m_ext.data(), m_ext.size()) != 0) {
            fail("a response differs from its request");
        } else {
            m_latencies.push_back(static_cast<uint32_t>(std::min<long long>(
                std::chrono::duration_cast<std::chrono::microseconds>(at - m_t0).count(),
                0xFFFFFFFFll)));
            m_bodyBytes += 2 * static_cast<uint64_t>(size);
        }
        m_trouble = false;  // an answer shows the connection whole
        settle(at);
        sendNext(lock);
    } else if (m_lostIds.erase(rid) == 0) {
        fail("a response came for a request that is not open");
    }
}

void CPingClient::sendNext(std::unique_lock<std::mutex>& lock) {
    while (m_linked && m_line == Line::IDLE && m_nextSeq < m_config.count && !m_stop.load()) {
        m_line = Line::SENDING;
        const uint64_t seq = m_nextSeq++;
        m_sentEpoch = m_epoch;
        const size_t size = static_cast<size_t>(m_config.sizes[seq % m_config.sizes.size()]);
        // The body is this thread's while the line is SENDING: the lock is not needed for it.
        lock.unlock();
        m_body.resize(size);
        m_ext.resize(m_config.extSize);
        FillPattern(&m_body[0], size, Seed(m_index, seq));
        FillPattern(&m_ext[0], m_ext.size(), ~Seed(m_index, seq));
        const Clock::time_point t0 = Clock::now();
        unsigned long id = 0;
        const QVRESULT rc = m_endpoint->sendRequest(0, m_body.data(), size, &id, PING_REQUEST_TYPE,
                                                    m_config.extSize != 0 ? m_ext.data() : nullptr);
        const Clock::time_point after = Clock::now();
        lock.lock();
        if (!m_started) {
            m_started = true;
            m_first = t0;
        }
        m_id = id;
        m_t0 = t0;
        m_line = Line::WAITING;
        if (!m_linked || m_sentEpoch != m_epoch) {
            // The connection broke while the request went out; whether it reached the old
            // server or the new one, it counts as lost, and a late answer is dropped.
            lose(after);
        } else if (rc != S_OK) {
            // A broken connection fails the send before its readers notice; that, or no
            // break at all, is for the request thread to show.
            trouble(after);
            m_line = Line::DOUBT;
            m_doubt = Format("a request could not be sent: 0x%08X", static_cast<unsigned>(rc));
        }
        m_sent.notify_all();
    }
}

void CPingClient::connectionBroke(Clock::time_point now) {
    m_linked = false;
    m_inBreak = true;
    ++m_breaks;
    m_breakSince = m_trouble ? std::min(m_troubleSince, now) : now;
    m_trouble = false;
    // A request on the line when it is SENDING is settled by its sender.
    if ((m_line == Line::WAITING || m_line == Line::DOUBT) && m_sentEpoch == m_epoch) lose(now);
}

void CPingClient::trouble(Clock::time_point at) {
    if (!m_trouble) {
        m_trouble = true;
        m_troubleSince = at;
    }
}

void CPingClient::settle(Clock::time_point at) {
    m_line = Line::IDLE;
    ++m_settledCount;
    m_settledAt = at;
    m_last = at;
}

void CPingClient::lose(Clock::time_point at) {
    ++m_lost;
    m_lostIds.insert(m_id);
    settle(at);
}

void CPingClient::fail(const std::string& what) {
    ++m_failures;
    if (m_error.empty()) m_error = what;
}

void CPingClient::stop(End end, const std::string& why) {
    m_end = end;
    m_done = true;
    if (m_error.empty()) m_error = why;
}

uint64_t CPingClient::settled() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_settledCount;
}

bool CPingClient::watch(Clock::time_point now) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_done) return true;
        const Clock::duration connect = m_config.connectTimeout;
        if (!m_everLinked && now - m_start > connect) {
            stop(End::NO_CONNECTION, "no connection");
        } else if (m_inBreak && now - m_breakSince > connect) {
            stop(End::NO_RECONNECTION, "no reconnection");
        } else if ((m_line == Line::WAITING || m_line == Line::DOUBT) &&
                   now - m_t0 > m_config.responseWait) {
            stop(End::FAILED,
                 m_line == Line::DOUBT ? m_doubt : "a response is missing: no answer in time");
        } else if (m_linked && m_line == Line::IDLE && m_nextSeq >= m_config.count) {
            const long long quietNs = NowNs() - m_lastServerRequest.load();
            m_done = quietNs >= std::chrono::nanoseconds(LINGER_QUIET).count() ||
                     now - m_settledAt >= LINGER_MAX;
            return m_done;
        } else {
            return false;
        }
        m_stop.store(true);
        m_sent.notify_all();
    }
    // Outside the lock: finalize waits for the receive calls, whose threads take it.
    m_endpoint->finalize();
    return true;
}

void CPingClient::finish() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop.store(true);
        m_sent.notify_all();
    }
    if (m_endpoint) m_endpoint->finalize();
    if (m_responses.joinable()) m_responses.join();
    if (m_requests.joinable()) m_requests.join();
    m_endpoint.reset();
}

bool ParseSizes(const std::string& text, std::vector<unsigned long long>* sizes) {
    sizes->clear();
    size_t from = 0;
    for (;;) {
        const size_t comma = text.find(',', from);
        const std::string item =
            text.substr(from, comma == std::string::npos ? comma : comma - from);
        if (item.empty() || item.find_first_not_of("0123456789") != std::string::npos ||
            item.size() > 12) {
            return false;
        }
        const unsigned long long v = strtoull(item.c_str(), nullptr, 10);
        if (v > MAX_BODY) return false;
        sizes->push_back(v);
        if (comma == std::string::npos) return true;
        from = comma + 1;
    }
}

uint32_t Percentile(const std::vector<uint32_t>& sorted, double p) {
    if (sorted.empty()) return 0;
    size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(sorted.size())));
    if (rank == 0) rank = 1;
    return sorted[std::min(rank, sorted.size()) - 1];
}

// What the clients did, summed up after the run.
struct CPingTotals {
    unsigned long long clients = 0;
    std::vector<uint32_t> latencies;                  // sorted
    std::vector<CPingClient::CReconnect> reconnects;  // in the order of the breaks
    uint64_t failures = 0, lost = 0, breaks = 0, bytes = 0;
    double seconds = 0;
};

void PrintSummary(const CPingTotals& t, bool json) {
    const uint64_t roundTrips = t.latencies.size();
    const double messagesPerSecond =
        t.seconds > 0 ? 2.0 * static_cast<double>(roundTrips) / t.seconds : 0.0;
    const double mbPerSecond = t.seconds > 0 ? static_cast<double>(t.bytes) / 1e6 / t.seconds : 0.0;
    const uint32_t p50 = Percentile(t.latencies, 50), p90 = Percentile(t.latencies, 90),
                   p99 = Percentile(t.latencies, 99),
                   max = t.latencies.empty() ? 0 : t.latencies.back();
    if (json) {
        JSON::Serialize w;
        const std::pair<const char*, uint64_t> counts[] = {
            {"clients", t.clients}, {"round-trips", roundTrips}, {"failures", t.failures}};
        const std::pair<const char*, uint32_t> latency[] = {
            {"p50", p50}, {"p90", p90}, {"p99", p99}, {"max", max}};
        w.OO();
        for (const auto& c : counts) w.N(c.first).V(static_cast<unsigned long long>(c.second));
        w.N("latency-us").OO();
        for (const auto& l : latency) w.N(l.first).V(static_cast<unsigned long long>(l.second));
        w.OC();
        w.N("messages-per-second").V(std::round(messagesPerSecond * 10) / 10);
        w.N("mb-per-second").V(std::round(mbPerSecond * 100) / 100);
        w.N("breaks").V(static_cast<unsigned long long>(t.breaks));
        w.N("lost").V(static_cast<unsigned long long>(t.lost));
        w.N("reconnect-ms").AO();
        for (const auto& r : t.reconnects) w.V(static_cast<unsigned long long>(r.ms));
        w.AC().OC();
        OutLine("%s", w.String().c_str());
        return;
    }
    OutLine("round trips: %llu (%llu clients), failures: %llu",
            static_cast<unsigned long long>(roundTrips), t.clients,
            static_cast<unsigned long long>(t.failures));
    OutLine("latency (us): p50 %u, p90 %u, p99 %u, max %u", static_cast<unsigned>(p50),
            static_cast<unsigned>(p90), static_cast<unsigned>(p99), static_cast<unsigned>(max));
    OutLine("throughput: %.0f messages/s, %.2f MB/s", messagesPerSecond, mbPerSecond);
    std::string reconnects;
    for (const auto& r : t.reconnects) {
        reconnects += (reconnects.empty() ? ", reconnect (ms): " : ", ") + std::to_string(r.ms);
    }
    OutLine("breaks: %llu, lost: %llu%s", static_cast<unsigned long long>(t.breaks),
            static_cast<unsigned long long>(t.lost), reconnects.c_str());
}

}  // namespace

int RunPing(int argc, char** argv, int first) {
    COptions opts("ping", {{"guid", true},
                           {"count", true},
                           {"size", true},
                           {"ext-size", true},
                           {"clients", true},
                           {"timeout", true},
                           {"connect-timeout", true},
                           {"strict", false},
                           {"json", false}});
    int status = EXIT_OK;
    if (!opts.begin(argc, argv, first, HELP, 0, &status)) return status;
    CPingConfig config;
    config.guid = opts.value("guid", "");
    if (config.guid.empty()) return opts.usage("--guid G is needed");
    unsigned long long extSize = 0, clients = 1, timeout = 0;
    double connectTimeout = DEFAULT_CONNECT_TIMEOUT_S;
    if (!opts.number("count", 1, 100000000, &config.count) ||
        !opts.number("ext-size", 0, EXT_MAX, &extSize) ||
        !opts.number("clients", 1, MAX_CLIENTS, &clients) ||
        !opts.number("timeout", 1, QVIPC_NO_TIMEOUT - 1, &timeout) ||
        !opts.seconds("connect-timeout", 86400, &connectTimeout)) {
        return EXIT_USAGE;
    }
    if (opts.has("size") && !ParseSizes(opts.value("size", ""), &config.sizes)) {
        return opts.usage("--size must be sizes in bytes from 0 to " + std::to_string(MAX_BODY) +
                          ", separated by commas, not '" + opts.value("size", "") + "'");
    }
    config.extSize = static_cast<unsigned long>(extSize);
    config.sendTimeout = timeout != 0 ? static_cast<unsigned long>(timeout) : QVIPC_NO_TIMEOUT;
    config.responseWait = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
        timeout != 0 ? std::max(static_cast<double>(timeout), MIN_RESPONSE_WAIT_S)
                     : DEFAULT_RESPONSE_WAIT_S));
    config.connectTimeout =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(connectTimeout));

    // The signals are taken by the main thread alone, with sigtimedwait; every thread started
    // from here on, the library's connect threads included, inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    // The clients make the admin FIFO when there is none; one that no server ever opened is
    // removed again at the end.
    const std::string admin = AdminFifoPath(ServiceGuid(config.guid));
    struct stat st;
    const bool adminExisted = lstat(admin.c_str(), &st) == 0;

    const Clock::time_point start = Clock::now();
    std::vector<std::unique_ptr<CPingClient>> pingers;
    std::string error;
    for (unsigned i = 0; i < clients && error.empty(); ++i) {
        pingers.emplace_back(new CPingClient(i, config, start));
        if (!pingers.back()->start(&error)) pingers.pop_back();
    }

    const bool progress = isatty(STDERR_FILENO) != 0 && !pingers.empty();
    bool progressShown = false;
    Clock::time_point nextProgress = start + std::chrono::seconds(1);
    const uint64_t total = config.count * pingers.size();
    bool interrupted = false;
    while (error.empty()) {
        bool allDone = true;
        const Clock::time_point now = Clock::now();
        for (auto& p : pingers) allDone = p->watch(now) && allDone;
        if (allDone) break;
        if (progress && now >= nextProgress) {
            uint64_t done = 0;
            for (auto& p : pingers) done += p->settled();
            fprintf(stderr, "\r%llu/%llu round trips", static_cast<unsigned long long>(done),
                    static_cast<unsigned long long>(total));
            fflush(stderr);
            progressShown = true;
            nextProgress = now + PROGRESS_PERIOD;
        }
        timespec wait = {0, static_cast<long>(std::chrono::nanoseconds(WATCH_PERIOD).count())};
        const int sig = sigtimedwait(&signals, nullptr, &wait);
        if (sig == SIGINT || sig == SIGTERM) {
            interrupted = true;
            break;
        }
    }
    if (progressShown) fputs("\r\033[K", stderr);

    CPingTotals totals;
    totals.clients = clients;
    bool noConnection = false, noReconnection = false;
    Clock::time_point firstSend = Clock::time_point::max(), lastDone = Clock::time_point::min();
    for (auto& p : pingers) {
        p->finish();
        totals.latencies.insert(totals.latencies.end(), p->m_latencies.begin(),
                                p->m_latencies.end());
        totals.reconnects.insert(totals.reconnects.end(), p->m_reconnects.begin(),
                                 p->m_reconnects.end());
        // An interrupted run counts what was done; otherwise the requests never settled,
        // sent or not, failed.
        totals.failures += p->m_failures + (interrupted ? 0 : config.count - p->settled());
        totals.lost += p->m_lost;
        totals.breaks += p->m_breaks;
        totals.bytes += p->m_bodyBytes;
        if (p->m_started) {
            firstSend = std::min(firstSend, p->m_first);
            lastDone = std::max(lastDone, p->m_last);
        }
        noConnection = noConnection || p->m_end == CPingClient::End::NO_CONNECTION;
        noReconnection = noReconnection || p->m_end == CPingClient::End::NO_RECONNECTION;
        if (error.empty() && !p->m_error.empty()) error = p->m_error;
    }
    pingers.clear();
    if (!adminExisted && FifoUnused(admin)) unlink(admin.c_str());

    std::sort(totals.latencies.begin(), totals.latencies.end());
    std::stable_sort(totals.reconnects.begin(), totals.reconnects.end(),
                     [](const CPingClient::CReconnect& a, const CPingClient::CReconnect& b) {
                         return a.since < b.since;
                     });
    totals.seconds =
        lastDone > firstSend ? std::chrono::duration<double>(lastDone - firstSend).count() : 0.0;
    PrintSummary(totals, opts.has("json"));

    char limit[32];
    snprintf(limit, sizeof limit, "%g s", connectTimeout);
    const std::string hint = " (is 'qvipc serve --guid " + config.guid + "' running?)";
    if (noConnection) return opts.fail(std::string("no connection within ") + limit + hint);
    if (noReconnection) {
        return opts.fail(std::string("no reconnection within ") + limit + " of a break" + hint);
    }
    if (!error.empty()) return opts.fail(error);
    if (totals.failures != 0) {
        return opts.fail(std::to_string(totals.failures) + " round trips failed");
    }
    if (opts.has("strict") && totals.lost != 0) {
        return opts.fail("requests lost to connection breaks: " + std::to_string(totals.lost));
    }
    return EXIT_OK;
}
