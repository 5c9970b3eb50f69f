// qvipc serve: an echo server. One thread answers requests (and learns of connections), one
// takes the responses to the requests that --push sends, one pusher thread per connection
// sends them, and the main thread waits for signals, prints dumps and notices connections
// that ended without a word (a client's clean DISCONNECT is handled inside the library).
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "json/JSONPrettyPrint.h"
#include "json/JSONSerialize.h"
#include "platform/QVLog.h"
#include "tools/qvipc/Commands.h"
#include "tools/qvipc/Options.h"
#include "tools/qvipc/ToolSupport.h"

namespace {

const char HELP[] =
    "usage: qvipc serve --guid G [--clients N] [--ext-size N] [--timeout S] [--push N]\n"
    "                   [--dump-every S] [--log FILE] [--trace]\n"
    "\n"
    "Runs an echo server for the service G: every request is answered with a response that\n"
    "carries the same request id, body and header extension. Prints \"serving G\" once\n"
    "ready, then one line per connection event:\n"
    "  connected <slot> pid <pid>\n"
    "  disconnected <slot>\n"
    "SIGINT or SIGTERM stops it (exit status 0); its admin FIFO is removed when no other\n"
    "process holds it open.\n"
    "\n"
    "  --clients N     clients accepted, 0 to 63 (default 63)\n"
    "  --ext-size N    header extension bytes of every message, 0 to 48 (default 0)\n"
    "  --timeout S     send time-out in whole seconds (default: none)\n"
    "  --push N        send every client that connects N requests with bodies of known\n"
    "                  content, check the echoes and print\n"
    "                  \"push <slot>: N sent, K echoed, B bad, M missing\"\n"
    "  --dump-every S  print the endpoint's diagnostics document every S seconds (also on\n"
    "                  SIGUSR1)\n"
    "  --log FILE      append the library's log lines to FILE\n"
    "  --trace         with --log: add the trace lines\n";

constexpr int PUSH_REQUEST_TYPE = 2;
constexpr size_t PUSH_SEQ_BYTES = 8;  // a push body starts with its sequence number in hex
constexpr size_t EXT_MAX = 48;
constexpr unsigned long MAX_CLIENTS = 63;
constexpr std::chrono::milliseconds SIGNAL_POLL(200);
constexpr std::chrono::milliseconds DISCONNECTED_PAUSE(20);

uint32_t PushSeed(unsigned long slot, uint32_t seq) {
    return static_cast<uint32_t>(slot) * 1000003u + seq;
}

size_t PushSize(uint32_t seq) { return PUSH_SEQ_BYTES + (seq * 389u) % 2048u; }

// The body and extension of push request seq to slot.
std::string PushBody(unsigned long slot, uint32_t seq) {
    std::string body(PushSize(seq), '\0');
    char head[PUSH_SEQ_BYTES + 1];
    snprintf(head, sizeof head, "%08x", static_cast<unsigned>(seq));
    memcpy(&body[0], head, PUSH_SEQ_BYTES);
    FillPattern(&body[PUSH_SEQ_BYTES], body.size() - PUSH_SEQ_BYTES, PushSeed(slot, seq));
    return body;
}

// What --push has sent to one connection and what came back. Guarded by CEchoServer::m_mutex.
struct CPushState {
    unsigned long slot = 0;
    uint32_t total = 0;
    uint32_t sent = 0;
    bool sendingDone = false;
    bool reported = false;
    std::vector<unsigned long> sentIds;  // per sequence number, the id sendRequest gave
    std::vector<unsigned long> gotIds;   // per sequence number, the id of the echo
    std::vector<char> got;               // 0 none, 1 good content, 2 bad content
    uint32_t received = 0;
    uint32_t bad = 0;  // echoes that match no request
};

class CEchoServer {
public:
    CEchoServer(CQVIPCLibrary& endpoint, unsigned long extSize, uint32_t push)
        : m_endpoint(endpoint), m_extSize(extSize), m_push(push) {}

    void requestLoop();
    void responseLoop();
    // Notices connections that ended inside the library (the client's own DISCONNECT).
    void checkConnections();
    void printDump();
    // After finalize: ends the pushers and reports the pushes still open.
    void joinAll();

    std::atomic<bool> m_stopping{false};

private:
    void onConnected(unsigned long slot);
    void onDisconnected(unsigned long slot);
    // Drops the connections the dump no longer shows. Caller holds m_mutex.
    void pruneLocked(const std::vector<CLiveConnection>& live);
    // Reports slot disconnected and closes its push, if it is known. Caller holds m_mutex.
    void dropLocked(unsigned long slot);
    void pushTo(std::shared_ptr<CPushState> state);
    void onPushResponse(unsigned long slot, unsigned long id, const char* body, unsigned long len,
                        const char* ext);
    // Prints the summary once all echoes are in, or when final. Caller holds m_mutex.
    void reportLocked(CPushState& state, bool final);
    bool checkId(const CPushState& state, uint32_t seq) const;

    CQVIPCLibrary& m_endpoint;
    const unsigned long m_extSize;
    const uint32_t m_push;

    std::mutex m_mutex;
    std::map<unsigned long, std::string> m_slots;  // connected slot -> its connection name
    std::map<unsigned long, std::shared_ptr<CPushState>> m_pushes;
    std::vector<std::thread> m_pushers;
    // sendRequest hands out ids without a lock of its own; the pushers take turns.
    std::mutex m_sendMutex;
};

void CEchoServer::requestLoop() {
    char ext[EXT_MAX];
    for (;;) {
        unsigned long slot = 0, id = 0, len = 0;
        char* body = nullptr;
        int type = 0;
        const QVRESULT rc = m_endpoint.receiveRequest(&slot, &id, &body, &len, &type, ext);
        std::unique_ptr<char[]> owned(body);
        if (rc == QVIPC_E_SHUTDOWN || m_stopping.load()) return;
        if (rc == S_OK) {
            const QVRESULT sent =
                m_endpoint.sendResponse(slot, id, body, len, m_extSize != 0 ? ext : nullptr);
            if (sent != S_OK) {
                fprintf(stderr, "qvipc serve: echo to slot %lu failed: 0x%08X\n", slot,
                        static_cast<unsigned>(sent));
            }
        } else if (rc == QVIPC_E_NEW_CONNECTION) {
            onConnected(slot);
        } else if (rc == QVIPC_E_DISCONNECTED || rc == QVIPC_E_READ) {
            onDisconnected(slot);
        }
    }
}

void CEchoServer::dropLocked(unsigned long slot) {
    if (m_slots.erase(slot) == 0) return;  // already noticed
    OutLine("disconnected %lu", slot);
    const auto push = m_pushes.find(slot);
    if (push != m_pushes.end()) {
        reportLocked(*push->second, true);
        m_pushes.erase(push);
    }
}

void CEchoServer::pruneLocked(const std::vector<CLiveConnection>& live) {
    std::vector<unsigned long> gone;
    for (const auto& known : m_slots) {
        // A connection whose name could not be found is left to the receive loop's report.
        if (known.second.empty()) continue;
        const bool present = std::any_of(live.begin(), live.end(), [&](const CLiveConnection& c) {
            return c.name == known.second;
        });
        if (!present) gone.push_back(known.first);
    }
    for (unsigned long slot : gone) dropLocked(slot);
}

// The dump lists the connections in use in slot order, without their slot numbers. The new
// slot's entry is found by its rank among the slots in use, checked against the names of the
// connections already known; a client that came back under its old name while its old slot
// was dropped shows up as one known slot too many, found by trying each.
void CEchoServer::onConnected(unsigned long slot) {
    const std::vector<CLiveConnection> live = LiveConnections(m_endpoint);
    std::shared_ptr<CPushState> push;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        dropLocked(slot);  // a slot reported again has lost its old client
        pruneLocked(live);
        auto consistent = [&](const std::map<unsigned long, std::string>& known,
                              long* pid) -> bool {
            std::vector<unsigned long> slots;
            for (const auto& k : known) slots.push_back(k.first);
            slots.push_back(slot);
            std::sort(slots.begin(), slots.end());
            if (slots.size() != live.size()) return false;
            for (size_t i = 0; i < slots.size(); ++i) {
                if (slots[i] == slot) {
                    *pid = live[i].pid;
                } else if (known.at(slots[i]) != live[i].name) {
                    return false;
                }
            }
            return true;
        };
        long pid = 0;
        bool found = consistent(m_slots, &pid);
        for (auto it = m_slots.begin(); !found && it != m_slots.end(); ++it) {
            std::map<unsigned long, std::string> without = m_slots;
            without.erase(it->first);
            if (consistent(without, &pid)) {
                found = true;
                dropLocked(it->first);
                break;
            }
        }
        if (found) {
            std::vector<unsigned long> slots;
            for (const auto& k : m_slots) slots.push_back(k.first);
            slots.push_back(slot);
            std::sort(slots.begin(), slots.end());
            const size_t rank =
                static_cast<size_t>(std::find(slots.begin(), slots.end(), slot) - slots.begin());
            m_slots[slot] = live[rank].name;
            OutLine("connected %lu pid %ld", slot, pid);
        } else {
            // Not expected: the slot is served all the same, with its process unknown unless
            // exactly one connection in the dump is new.
            std::vector<const CLiveConnection*> fresh;
            for (const CLiveConnection& c : live) {
                const bool known =
                    std::any_of(m_slots.begin(), m_slots.end(),
                                [&](const std::pair<const unsigned long, std::string>& k) {
                                    return k.second == c.name;
                                });
                if (!known) fresh.push_back(&c);
            }
            if (fresh.size() == 1) {
                m_slots[slot] = fresh[0]->name;
                OutLine("connected %lu pid %ld", slot, fresh[0]->pid);
            } else {
                m_slots[slot] = std::string();
                OutLine("connected %lu pid ?", slot);
            }
        }
        if (m_push != 0 && !m_stopping.load()) {
            push = std::make_shared<CPushState>();
            push->slot = slot;
            push->total = m_push;
            push->sentIds.assign(m_push, 0);
            push->gotIds.assign(m_push, 0);
            push->got.assign(m_push, 0);
            m_pushes[slot] = push;
            m_pushers.emplace_back(&CEchoServer::pushTo, this, push);
        }
    }
}

void CEchoServer::onDisconnected(unsigned long slot) {
    std::lock_guard<std::mutex> lock(m_mutex);
    dropLocked(slot);
}

void CEchoServer::checkConnections() {
    // The dump is taken under the lock: one taken before it could miss a connection that the
    // request thread records meanwhile, and drop it as gone.
    std::lock_guard<std::mutex> lock(m_mutex);
    pruneLocked(LiveConnections(m_endpoint));
}

void CEchoServer::printDump() {
    JSON::Serialize writer;
    m_endpoint.dumpToJSONBuffer(writer);
    std::string pretty;
    JSON_PrettyPrint(writer.String().c_str(), pretty);
    OutText(pretty + "\n");
}

void CEchoServer::pushTo(std::shared_ptr<CPushState> state) {
    char ext[EXT_MAX];
    for (uint32_t seq = 0; seq < state->total && !m_stopping.load(); ++seq) {
        const std::string body = PushBody(state->slot, seq);
        FillPattern(ext, m_extSize, ~PushSeed(state->slot, seq));
        unsigned long id = 0;
        QVRESULT rc;
        {
            std::lock_guard<std::mutex> send(m_sendMutex);
            rc = m_endpoint.sendRequest(state->slot, body.data(), body.size(), &id,
                                        PUSH_REQUEST_TYPE, m_extSize != 0 ? ext : nullptr);
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        // A connection that ended takes its push with it; its slot may serve another client.
        if (rc != S_OK || state->reported) break;
        state->sentIds[seq] = id;
        state->sent = seq + 1;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    state->sendingDone = true;
    reportLocked(*state, false);
}

bool CEchoServer::checkId(const CPushState& state, uint32_t seq) const {
    return state.got[seq] == 1 && state.gotIds[seq] == state.sentIds[seq];
}

void CEchoServer::reportLocked(CPushState& state, bool final) {
    if (state.reported) return;
    if (!final && !(state.sendingDone && state.received >= state.sent)) return;
    state.reported = true;
    uint32_t echoed = 0;
    uint32_t bad = state.bad;
    for (uint32_t seq = 0; seq < state.sent; ++seq) {
        if (state.got[seq] == 0) continue;
        if (checkId(state, seq)) {
            ++echoed;
        } else {
            ++bad;
        }
    }
    const uint32_t answered = echoed + bad - state.bad;
    OutLine("push %lu: %u sent, %u echoed, %u bad, %u missing", state.slot,
            static_cast<unsigned>(state.sent), static_cast<unsigned>(echoed),
            static_cast<unsigned>(bad), static_cast<unsigned>(state.total - answered));
}

void CEchoServer::onPushResponse(unsigned long slot, unsigned long id, const char* body,
                                 unsigned long len, const char* ext) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_pushes.find(slot);
    if (it == m_pushes.end()) return;
    CPushState& state = *it->second;
    unsigned seq = 0;
    char head[PUSH_SEQ_BYTES + 1] = {};
    if (body != nullptr && len >= PUSH_SEQ_BYTES) memcpy(head, body, PUSH_SEQ_BYTES);
    if (sscanf(head, "%8x", &seq) != 1 || seq >= state.total || state.got[seq] != 0) {
        ++state.bad;  // not the echo of any request still open
    } else {
        char expectedExt[EXT_MAX];
        FillPattern(expectedExt, m_extSize, ~PushSeed(slot, seq));
        const bool good =
            len == PushSize(seq) &&
            MatchesPattern(body + PUSH_SEQ_BYTES, len - PUSH_SEQ_BYTES, PushSeed(slot, seq)) &&
            memcmp(ext, expectedExt, m_extSize) == 0;
        state.got[seq] = good ? 1 : 2;
        state.gotIds[seq] = id;
        ++state.received;
    }
    reportLocked(state, false);
}

void CEchoServer::responseLoop() {
    char ext[EXT_MAX];
    for (;;) {
        unsigned long slot = 0, id = 0, len = 0;
        char* body = nullptr;
        const QVRESULT rc = m_endpoint.receiveResponse(&slot, &body, &len, &id, ext);
        std::unique_ptr<char[]> owned(body);
        if (rc == QVIPC_E_SHUTDOWN || m_stopping.load()) return;
        if (rc == S_OK && body != nullptr) {
            onPushResponse(slot, id, body, len, ext);
        } else if (rc != S_OK) {
            // A broken slot is reported here until the request side has freed it.
            std::this_thread::sleep_for(DISCONNECTED_PAUSE);
        }
    }
}

void CEchoServer::joinAll() {
    std::vector<std::thread> pushers;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        pushers.swap(m_pushers);
    }
    for (std::thread& t : pushers) t.join();
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& p : m_pushes) reportLocked(*p.second, true);
    m_pushes.clear();
}

}  // namespace

int RunServe(int argc, char** argv, int first) {
    COptions opts("serve", {{"guid", true},
                            {"clients", true},
                            {"ext-size", true},
                            {"timeout", true},
                            {"push", true},
                            {"dump-every", true},
                            {"log", true},
                            {"trace", false}});
    int status = EXIT_OK;
    if (!opts.begin(argc, argv, first, HELP, 0, &status)) return status;
    const std::string guid = opts.value("guid", "");
    if (guid.empty()) return opts.usage("--guid G is needed");
    unsigned long long clients = MAX_CLIENTS, extSize = 0, timeout = QVIPC_NO_TIMEOUT, push = 0;
    double dumpEvery = 0;
    if (!opts.number("clients", 0, MAX_CLIENTS, &clients) ||
        !opts.number("ext-size", 0, EXT_MAX, &extSize) ||
        !opts.number("timeout", 1, QVIPC_NO_TIMEOUT - 1, &timeout) ||
        !opts.number("push", 0, 10000000, &push) ||
        !opts.seconds("dump-every", 86400.0 * 365, &dumpEvery)) {
        return EXIT_USAGE;
    }
    if (opts.has("trace") && !opts.has("log")) return opts.usage("--trace needs --log FILE");
    if (opts.has("log")) {
        const std::string log = opts.value("log", "");
        if (log.empty() || QVSetLogFile(log.c_str(), opts.has("trace") ? 1 : 0) != 0) {
            return opts.fail("cannot open the log file '" + log + "'");
        }
    }

    // The signals are taken by the main thread alone, with sigtimedwait.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    // Two servers on one admin FIFO would take each other's connect records.
    const std::string service = ServiceGuid(guid);
    const std::string admin = AdminFifoPath(service);
    if (access(admin.c_str(), F_OK) == 0 && !FifoUnused(admin)) {
        return opts.fail("the service " + service + " already has a server (" + admin +
                         " is held open)");
    }

    std::unique_ptr<CQVIPCLibrary> endpoint;
    try {
        endpoint.reset(new CQVIPCLibrary(
            "qvipc serve", guid, 1, static_cast<unsigned long>(clients),
            static_cast<unsigned long>(extSize), static_cast<unsigned long>(timeout)));
    } catch (LQException& e) {
        char code[16];
        snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(e.code));
        return opts.fail(std::string("cannot create the endpoint: ") + code);
    }
    const QVRESULT rc = endpoint->initialize();
    if (rc != S_OK) {
        char code[16];
        snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(rc));
        endpoint->finalize();
        return opts.fail(std::string("cannot start the server: ") + code);
    }
    OutLine("serving %s", service.c_str());

    CEchoServer server(*endpoint, static_cast<unsigned long>(extSize), static_cast<uint32_t>(push));
    std::thread requests(&CEchoServer::requestLoop, &server);
    std::thread responses(&CEchoServer::responseLoop, &server);

    using Clock = std::chrono::steady_clock;
    const auto dumpPeriod =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(dumpEvery));
    auto nextDump = Clock::now() + dumpPeriod;
    for (;;) {
        timespec wait = {0, static_cast<long>(std::chrono::nanoseconds(SIGNAL_POLL).count())};
        const int sig = sigtimedwait(&signals, nullptr, &wait);
        if (sig == SIGINT || sig == SIGTERM) break;
        if (sig == SIGUSR1) server.printDump();
        if (dumpEvery > 0 && Clock::now() >= nextDump) {
            server.printDump();
            nextDump = Clock::now() + dumpPeriod;
        }
        server.checkConnections();
    }

    server.m_stopping.store(true);
    endpoint->finalize();
    requests.join();
    responses.join();
    server.joinAll();
    endpoint.reset();
    // The library never removes the admin FIFO; a server that stops takes its rendezvous
    // with it unless another process still uses it.
    if (FifoUnused(admin)) unlink(admin.c_str());
    return EXIT_OK;
}
