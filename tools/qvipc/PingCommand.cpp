// qvipc ping: K client endpoints of one process connect to a service, each sends N requests
// with bodies (and header extensions) of known content one at a time and checks the echoes,
// while a second thread per client echoes the requests the server sends it. The main thread
// watches the deadlines, draws the progress line and prints the summary.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
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
    "                  [--timeout S] [--connect-timeout S] [--json]\n"
    "\n"
    "Connects K clients (threads of this process) to the service G; each sends N requests\n"
    "whose bodies carry known content and checks every echoed response, while it also\n"
    "echoes every request the server sends it. Prints a summary: round trips, failures,\n"
    "latency percentiles in microseconds, messages per second (requests and responses) and\n"
    "MB/s (bodies both ways). Fails (exit status 1) when a response is missing or differs,\n"
    "or when a client is not connected within the connect time-out.\n"
    "\n"
    "  --count N            requests per client (default 100)\n"
    "  --size BYTES[,...]   body sizes, used in turn (default 64)\n"
    "  --ext-size N         header extension bytes, 0 to 48, as the server uses (default 0);\n"
    "                       every request carries a full extension of known content\n"
    "  --clients K          client endpoints, 1 to 63 (default 1)\n"
    "  --timeout S          send time-out in whole seconds, and the longest wait for a\n"
    "                       response (default: no send time-out, 30 s for a response)\n"
    "  --connect-timeout S  how long the clients may take to connect (default 10)\n"
    "  --json               print the summary as one JSON object\n";

constexpr int PING_REQUEST_TYPE = 1;
constexpr size_t EXT_MAX = 48;
constexpr unsigned long MAX_CLIENTS = 63;
constexpr unsigned long long MAX_BODY = 64ull << 20;
constexpr double DEFAULT_RESPONSE_WAIT_S = 30;
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

class CPingClient {
public:
    CPingClient(unsigned index, const CPingConfig& config) : m_index(index), m_config(config) {}

    // False with *error set when the endpoint cannot be made or started.
    bool start(std::string* error);
    void sendLoop();
    // Ends the endpoint's waits: finalize makes every receive return QVIPC_E_SHUTDOWN.
    void abort(const char* why);
    void finish();

    // Written by the client's threads, read by the main thread.
    std::atomic<bool> m_connected{false};
    std::atomic<bool> m_done{false};
    std::atomic<uint64_t> m_roundTrips{0};
    std::atomic<long long> m_waitingSince{-1};  // ns on Clock while a response is awaited

    // Results, read after the threads are joined.
    std::vector<uint32_t> m_latencies;
    uint64_t m_failures = 0;
    uint64_t m_bodyBytes = 0;
    Clock::time_point m_first, m_last;
    bool m_started = false;
    std::string m_error;  // the first failure, for the error line

private:
    void requestLoop();
    void fail(const std::string& what);

    const unsigned m_index;
    const CPingConfig& m_config;
    std::unique_ptr<CQVIPCLibrary> m_endpoint;
    std::thread m_requests;
    std::thread m_sender;
    std::atomic<bool> m_stop{false};
    std::atomic<long long> m_lastServerRequest{0};
    std::mutex m_errorMutex;  // m_error is also set by abort() on the main thread
    std::string m_abortReason;
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
        char text[64];
        snprintf(text, sizeof text, "cannot create a client endpoint: 0x%08X",
                 static_cast<unsigned>(e.code));
        *error = text;
        return false;
    }
    const QVRESULT rc = m_endpoint->initialize();
    if (rc != S_OK) {
        char text[64];
        snprintf(text, sizeof text, "cannot start a client endpoint: 0x%08X",
                 static_cast<unsigned>(rc));
        *error = text;
        return false;
    }
    m_requests = std::thread(&CPingClient::requestLoop, this);
    m_sender = std::thread(&CPingClient::sendLoop, this);
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
        if (rc == QVIPC_E_NEW_CONNECTION) {
            m_connected.store(true);
        } else if (rc == S_OK) {
            m_lastServerRequest.store(NowNs());
            m_endpoint->sendResponse(0, id, body, len, m_config.extSize != 0 ? ext : nullptr);
        }
    }
}

void CPingClient::fail(const std::string& what) {
    ++m_failures;
    std::lock_guard<std::mutex> lock(m_errorMutex);
    if (m_error.empty()) m_error = what;
}

void CPingClient::sendLoop() {
    while (!m_connected.load() && !m_stop.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const size_t extSize = m_config.extSize;
    char ext[EXT_MAX];
    char gotExt[EXT_MAX];
    std::string body;
    uint64_t seq = 0;
    for (; seq < m_config.count && !m_stop.load(); ++seq) {
        const size_t size = static_cast<size_t>(m_config.sizes[seq % m_config.sizes.size()]);
        body.resize(size);
        FillPattern(&body[0], size, Seed(m_index, seq));
        FillPattern(ext, extSize, ~Seed(m_index, seq));
        const Clock::time_point t0 = Clock::now();
        if (!m_started) {
            m_started = true;
            m_first = t0;
        }
        unsigned long id = 0;
        QVRESULT rc = m_endpoint->sendRequest(0, body.data(), size, &id, PING_REQUEST_TYPE,
                                              extSize != 0 ? ext : nullptr);
        if (rc != S_OK) {
            char text[64];
            snprintf(text, sizeof text, "a request could not be sent: 0x%08X",
                     static_cast<unsigned>(rc));
            fail(text);
            ++seq;
            break;
        }
        m_waitingSince.store(NowNs());
        bool answered = false;
        while (!answered) {
            unsigned long ipcid = 0, len = 0, rid = 0;
            char* reply = nullptr;
            memset(gotExt, 0, sizeof gotExt);
            rc = m_endpoint->receiveResponse(&ipcid, &reply, &len, &rid, gotExt);
            std::unique_ptr<char[]> owned(reply);
            if (rc != S_OK) break;
            if (rid != id) {
                fail("a response came for a request that is not open");
                continue;
            }
            answered = true;
            if (len != size || (size != 0 && memcmp(reply, body.data(), size) != 0) ||
                memcmp(gotExt, ext, extSize) != 0) {
                fail("a response differs from its request");
            } else {
                m_latencies.push_back(static_cast<uint32_t>(std::min<long long>(
                    std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t0)
                        .count(),
                    0xFFFFFFFFll)));
                m_bodyBytes += 2 * static_cast<uint64_t>(size);
            }
        }
        m_waitingSince.store(-1);
        m_last = Clock::now();
        m_roundTrips.fetch_add(1);
        if (!answered) {
            std::string why;
            {
                std::lock_guard<std::mutex> lock(m_errorMutex);
                why = m_abortReason;
            }
            char text[80];
            snprintf(text, sizeof text, "a response is missing: %s (0x%08X)",
                     rc == QVIPC_E_DISCONNECTED ? "the connection broke" : "receive failed",
                     static_cast<unsigned>(rc));
            fail(why.empty() ? text : why);
            ++seq;
            break;
        }
    }
    // The requests never sent count as failed too.
    m_failures += m_config.count - seq;
    if (!m_stop.load()) {
        const Clock::time_point until = Clock::now() + LINGER_MAX;
        while (!m_stop.load() && Clock::now() < until &&
               NowNs() - m_lastServerRequest.load() <
                   std::chrono::duration_cast<std::chrono::nanoseconds>(LINGER_QUIET).count()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    m_done.store(true);
}

void CPingClient::abort(const char* why) {
    if (m_stop.exchange(true)) return;
    {
        std::lock_guard<std::mutex> lock(m_errorMutex);
        if (m_abortReason.empty()) m_abortReason = why;
    }
    if (m_endpoint) m_endpoint->finalize();
}

void CPingClient::finish() {
    m_stop.store(true);
    if (m_endpoint) m_endpoint->finalize();
    if (m_sender.joinable()) m_sender.join();
    if (m_requests.joinable()) m_requests.join();
    m_endpoint.reset();
    if (!m_abortReason.empty() && m_error.empty()) m_error = m_abortReason;
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

}  // namespace

int RunPing(int argc, char** argv, int first) {
    COptions opts("ping", {{"guid", true},
                           {"count", true},
                           {"size", true},
                           {"ext-size", true},
                           {"clients", true},
                           {"timeout", true},
                           {"connect-timeout", true},
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
        timeout != 0 ? static_cast<double>(timeout) : DEFAULT_RESPONSE_WAIT_S));
    config.connectTimeout =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(connectTimeout));

    // The clients make the admin FIFO when there is none; one that no server ever opened is
    // removed again at the end.
    const std::string admin = AdminFifoPath(ServiceGuid(config.guid));
    struct stat st;
    const bool adminExisted = lstat(admin.c_str(), &st) == 0;

    const Clock::time_point start = Clock::now();
    std::vector<std::unique_ptr<CPingClient>> pingers;
    std::string error;
    for (unsigned i = 0; i < clients && error.empty(); ++i) {
        pingers.emplace_back(new CPingClient(i, config));
        if (!pingers.back()->start(&error)) pingers.pop_back();
    }

    const bool progress = isatty(STDERR_FILENO) != 0 && !pingers.empty();
    bool progressShown = false;
    Clock::time_point nextProgress = start + std::chrono::seconds(1);
    const uint64_t total = config.count * pingers.size();
    bool connectFailed = false;
    for (;;) {
        bool allDone = true;
        uint64_t done = 0;
        const Clock::time_point now = Clock::now();
        for (auto& p : pingers) {
            done += p->m_roundTrips.load();
            if (p->m_done.load()) continue;
            allDone = false;
            if (!p->m_connected.load() && now - start > config.connectTimeout) {
                connectFailed = true;
                p->abort("no connection");
            }
            const long long since = p->m_waitingSince.load();
            if (since >= 0 &&
                NowNs() - since >
                    std::chrono::duration_cast<std::chrono::nanoseconds>(config.responseWait)
                        .count()) {
                p->abort("a response is missing: no answer in time");
            }
        }
        if (allDone || !error.empty()) break;
        if (progress && now >= nextProgress) {
            fprintf(stderr, "\r%llu/%llu round trips", static_cast<unsigned long long>(done),
                    static_cast<unsigned long long>(total));
            fflush(stderr);
            progressShown = true;
            nextProgress = now + PROGRESS_PERIOD;
        }
        std::this_thread::sleep_for(WATCH_PERIOD);
    }
    if (progressShown) fputs("\r\033[K", stderr);

    std::vector<uint32_t> latencies;
    uint64_t failures = 0, bytes = 0;
    Clock::time_point firstSend = Clock::time_point::max(), lastDone = Clock::time_point::min();
    for (auto& p : pingers) {
        p->finish();
        latencies.insert(latencies.end(), p->m_latencies.begin(), p->m_latencies.end());
        failures += p->m_failures;
        bytes += p->m_bodyBytes;
        if (p->m_started) {
            firstSend = std::min(firstSend, p->m_first);
            lastDone = std::max(lastDone, p->m_last);
        }
        if (error.empty() && !p->m_error.empty()) error = p->m_error;
    }
    pingers.clear();
    if (!adminExisted && FifoUnused(admin)) unlink(admin.c_str());

    const uint64_t roundTrips = latencies.size();
    std::sort(latencies.begin(), latencies.end());
    const double seconds =
        lastDone > firstSend ? std::chrono::duration<double>(lastDone - firstSend).count() : 0.0;
    const double messagesPerSecond =
        seconds > 0 ? 2.0 * static_cast<double>(roundTrips) / seconds : 0.0;
    const double mbPerSecond = seconds > 0 ? static_cast<double>(bytes) / 1e6 / seconds : 0.0;
    const uint32_t p50 = Percentile(latencies, 50), p90 = Percentile(latencies, 90),
                   p99 = Percentile(latencies, 99), max = latencies.empty() ? 0 : latencies.back();
    if (opts.has("json")) {
        JSON::Serialize w;
        const std::pair<const char*, uint64_t> counts[] = {
            {"clients", clients}, {"round-trips", roundTrips}, {"failures", failures}};
        const std::pair<const char*, uint32_t> latency[] = {
            {"p50", p50}, {"p90", p90}, {"p99", p99}, {"max", max}};
        w.OO();
        for (const auto& c : counts) w.N(c.first).V(static_cast<unsigned long long>(c.second));
        w.N("latency-us").OO();
        for (const auto& l : latency) w.N(l.first).V(static_cast<unsigned long long>(l.second));
        w.OC();
        w.N("messages-per-second").V(std::round(messagesPerSecond * 10) / 10);
        w.N("mb-per-second").V(std::round(mbPerSecond * 100) / 100).OC();
        OutLine("%s", w.String().c_str());
    } else {
        OutLine("round trips: %llu (%llu clients), failures: %llu",
                static_cast<unsigned long long>(roundTrips),
                static_cast<unsigned long long>(clients),
                static_cast<unsigned long long>(failures));
        OutLine("latency (us): p50 %u, p90 %u, p99 %u, max %u", static_cast<unsigned>(p50),
                static_cast<unsigned>(p90), static_cast<unsigned>(p99), static_cast<unsigned>(max));
        OutLine("throughput: %.0f messages/s, %.2f MB/s", messagesPerSecond, mbPerSecond);
    }
    if (connectFailed) {
        char text[64];
        snprintf(text, sizeof text, "no connection within %g s", connectTimeout);
        return opts.fail(std::string(text) + " (is 'qvipc serve --guid " + config.guid +
                         "' running?)");
    }
    if (!error.empty()) return opts.fail(error);
    if (failures != 0) return opts.fail(std::to_string(failures) + " round trips failed");
    return EXIT_OK;
}
