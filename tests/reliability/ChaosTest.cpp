// Chaos: one server and 8 client processes, all without a send time-out, exchange checksummed
// bodies of random sizes (0 B to 1 MiB) both ways while this controller kills the server or a
// client with SIGKILL at random moments and starts it again.
//   chaos [--seconds N] [--clients N] [--seed N] [--kill-connecting 1]
// Passes (exit 0) when no process crashed or hung, every answer that a requester accepted
// matched its request byte for byte, every client was connected again within 5 s of the
// server's return, the descriptors of every process and the service's /tmp entries stayed
// bounded, and /tmp is clean at the end. Prints one line of counts.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "tests/reliability/ReliabilitySupport.h"

namespace {

constexpr int MAX_CLIENTS = 16;
constexpr int TYPE_DATA = 5;
// An answer not back in this time counts as lost (its peer was killed), not as a hang: the
// requester goes on with a new request. A hang is a process that does not stop when asked.
constexpr auto ANSWER_WAIT = std::chrono::seconds(10);
constexpr uint64_t RECONNECT_LIMIT_MS = 5000;
constexpr uint64_t LATE_LIMIT_MS = 15000;
// A killed client comes back after this pause: the server frees a vanished client's slot a
// second after it notices, and a client that asks before is refused.
constexpr uint64_t RESTART_DELAY_MS = 1500;
// Descriptors of one process and service entries in /tmp that count as growth.
constexpr int SERVER_FD_LIMIT = 40 + 4 * MAX_CLIENTS;
constexpr int CLIENT_FD_LIMIT = 40;

// Counters in memory shared with the children, so that they survive a SIGKILL.
struct Counters {
    std::atomic<uint64_t> accepted{0};    // answers that matched their request
    std::atomic<uint64_t> mismatches{0};  // answers that did not: failures
    std::atomic<uint64_t> lost{0};        // requests whose answer never came (peer killed)
    std::atomic<uint64_t> answered{0};    // requests of the other side answered
    std::atomic<uint64_t> connects{0};    // connections made (client) or taken in (server)
    std::atomic<uint64_t> lastConnectMs{0};
    std::atomic<uint64_t> restarts{0};  // client endpoints started over after a refusal
};

struct Shared {
    std::atomic<int> stop{0};
    Counters server;
    Counters clients[MAX_CLIENTS];
};

Shared* g_shared = nullptr;

// A body that carries its own check: the size and seed in front, then the seed's pattern.
std::string Body(std::mt19937& rng) {
    const uint32_t pick = rng() % 100;
    size_t size;
    if (pick < 5) {
        size = 0;
    } else if (pick < 70) {
        size = rng() % 4096;
    } else if (pick < 95) {
        size = rng() % 65536;
    } else {
        size = rng() % (1024 * 1024 + 1);
    }
    return rel::Pattern(size, static_cast<uint32_t>(rng()));
}

std::string Ext(std::mt19937& rng) { return rel::Pattern(rel::EXT_SIZE, rng()); }

using rel::Got;

// Requests in flight, keyed by (ipcid, request id): the response thread checks each answer
// against the request kept here and wakes the sender.
class Pending {
public:
    explicit Pending(Counters& c) : m_c(c) {}

    // Called after the send, as only the send tells the id: an answer that came first waits
    // among the early ones.
    void add(unsigned long ipcid, unsigned long id, const std::string& body,
             const std::string& ext) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open[{ipcid, id}] = {rel::Answer(body), rel::Answer(ext)};
        auto early = m_early.find({ipcid, id});
        if (early != m_early.end()) {
            const Got g = early->second;
            m_early.erase(early);
            check(g);
        }
    }

    void answer(const Got& g) {
        std::lock_guard<std::mutex> lock(m_mutex);
        check(g);
    }

    // Waits for the answer; false when it did not come in time (then it is given up).
    bool wait(unsigned long ipcid, unsigned long id) {
        std::unique_lock<std::mutex> lock(m_mutex);
        const auto until = std::chrono::steady_clock::now() + ANSWER_WAIT;
        bool done = false;
        while (!done && std::chrono::steady_clock::now() < until) {
            done = m_cv.wait_for(lock, std::chrono::milliseconds(100), [&] {
                return m_open.count({ipcid, id}) == 0 || g_shared->stop.load() != 0;
            });
        }
        if (!done || m_open.count({ipcid, id}) != 0) {
            m_open.erase({ipcid, id});
            ++m_c.lost;
            return false;
        }
        return true;
    }

    void wakeAll() { m_cv.notify_all(); }

private:
    void check(const Got& g) {
        auto it = m_open.find({g.ipcid, g.id});
        if (it == m_open.end()) {
            // Not asked yet, or given up (its peer was killed): kept a while, never accepted.
            if (m_early.size() >= 64) m_early.erase(m_early.begin());
            m_early[{g.ipcid, g.id}] = g;
            return;
        }
        if (g.body == it->second.first && g.ext == it->second.second) {
            ++m_c.accepted;
        } else {
            ++m_c.mismatches;
            fprintf(stderr, "chaos: mismatch on ipcid %lu id %lu (%zu bytes)\n", g.ipcid, g.id,
                    g.body.size());
        }
        m_open.erase(it);
        m_cv.notify_all();
    }

private:
    Counters& m_c;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::map<std::pair<unsigned long, unsigned long>, std::pair<std::string, std::string>> m_open;
    std::map<std::pair<unsigned long, unsigned long>, Got> m_early;
};

void Answer(CQVIPCLibrary& lib, const Got& g, Counters& c) {
    if (rel::AnswerRequest(lib, g) == 0) ++c.answered;
}

void ResponseLoop(CQVIPCLibrary& lib, Pending& pending) {
    for (;;) {
        const Got g = rel::ReceiveResponse(lib);
        if (g.hr == QVIPC_E_SHUTDOWN) break;
        if (g.hr == 0) pending.answer(g);
    }
}

int RunServer(const std::string& guid, int clients, uint32_t seed) {
    Counters& c = g_shared->server;
    CQVIPCLibrary lib("chaos", guid, 1, static_cast<unsigned long>(clients), rel::EXT_SIZE,
                      rel::NO_TIMEOUT);
    if (lib.initialize() != 0) return 3;
    Pending pending(c);
    std::mutex slotsMutex;
    std::set<unsigned long> slots;
    std::thread responses([&] { ResponseLoop(lib, pending); });
    // The request loop may be held in a connect (up to 20 s for a client that died half-way);
    // the stop reaches it through finalize.
    std::thread stopper([&] {
        while (g_shared->stop.load() == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        lib.finalize();
    });
    // Questions the connected clients in turn, one request at a time.
    std::thread asker([&] {
        std::mt19937 rng(seed);
        while (g_shared->stop.load() == 0) {
            std::vector<unsigned long> now;
            {
                std::lock_guard<std::mutex> lock(slotsMutex);
                now.assign(slots.begin(), slots.end());
            }
            if (now.empty()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                continue;
            }
            const unsigned long slot = now[rng() % now.size()];
            const std::string body = Body(rng);
            const std::string ext = Ext(rng);
            unsigned long id = 0;
            if (lib.sendRequest(slot, body.data(), body.size(), &id, TYPE_DATA, ext.data()) != 0) {
                std::lock_guard<std::mutex> lock(slotsMutex);
                slots.erase(slot);
                continue;
            }
            pending.add(slot, id, body, ext);
            pending.wait(slot, id);
        }
    });
    for (;;) {
        const Got g = rel::ReceiveRequest(lib);
        if (g.hr == QVIPC_E_SHUTDOWN) break;
        if (g.hr == QVIPC_E_NEW_CONNECTION) {
            ++c.connects;
            std::lock_guard<std::mutex> lock(slotsMutex);
            slots.insert(g.ipcid);
        } else if (g.hr == 0 && g.type == TYPE_DATA) {
            Answer(lib, g, c);
        } else if (g.hr != 0 && g.ipcid != 0) {
            std::lock_guard<std::mutex> lock(slotsMutex);
            slots.erase(g.ipcid);
        }
    }
    pending.wakeAll();
    asker.join();
    stopper.join();
    responses.join();
    return 0;
}

// One endpoint's life in a client process; false when it was never connected within 25 s. A
// client that asks while the server still holds the slot of a killed one is refused (too many
// clients), and a refused connect thread does not try again: the application finalizes and
// starts over. (25 s: longer than a server may spend on a CONNECT of a client that is gone,
// whose abandoned CONNECT would otherwise hold the server again.)
bool ClientSession(const std::string& guid, Counters& c, std::mt19937& rng) {
    CQVIPCLibrary lib("chaos", guid, 0, 0, rel::EXT_SIZE, rel::NO_TIMEOUT);
    if (lib.initialize() != 0) return false;
    Pending pending(c);
    std::atomic<bool> connected{false};
    std::thread requests([&] {
        for (;;) {
            const Got g = rel::ReceiveRequest(lib);
            if (g.hr == QVIPC_E_SHUTDOWN) break;
            if (g.hr == QVIPC_E_NEW_CONNECTION) {
                ++c.connects;
                c.lastConnectMs.store(rel::NowMs());
                connected.store(true);
            } else if (g.hr == 0 && g.type == TYPE_DATA) {
                Answer(lib, g, c);
            } else if (g.hr != 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
    });
    std::thread responses([&] { ResponseLoop(lib, pending); });
    const uint64_t giveUp = rel::NowMs() + 25000;
    bool everConnected = false;
    while (g_shared->stop.load() == 0) {
        if (!connected.load()) {
            if (!everConnected && rel::NowMs() > giveUp) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            continue;
        }
        everConnected = true;
        const std::string body = Body(rng);
        const std::string ext = Ext(rng);
        unsigned long id = 0;
        if (lib.sendRequest(0, body.data(), body.size(), &id, TYPE_DATA, ext.data()) != 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            continue;
        }
        pending.add(0, id, body, ext);
        pending.wait(0, id);
    }
    lib.finalize();
    requests.join();
    responses.join();
    return everConnected || g_shared->stop.load() != 0;
}

int RunClient(const std::string& guid, int index, uint32_t seed) {
    Counters& c = g_shared->clients[index];
    std::mt19937 rng(seed);
    while (!ClientSession(guid, c, rng)) ++c.restarts;
    return 0;
}

struct Child {
    pid_t pid = -1;
    uint64_t startedMs = 0;
};

pid_t Spawn(const std::string& guid, int index, int clients, uint32_t seed) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    alarm(600);  // a child that outlives any run by far ends itself
    const int rc = index < 0 ? RunServer(guid, clients, seed) : RunClient(guid, index, seed);
    _exit(rc);
}

}  // namespace

// Runs `tool sweep --guid guid` (the qvipc tool) and waits for it; true when it exited 0.
bool RunSweep(const std::string& tool, const std::string& guid) {
    const pid_t pid = fork();
    if (pid == 0) {
        execl(tool.c_str(), tool.c_str(), "sweep", "--guid", guid.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

int main(int argc, char** argv) {
    int seconds = 30;
    int clients = 8;
    uint32_t seed = static_cast<uint32_t>(time(nullptr));
    bool killConnecting = false;
    std::string sweepTool;  // the qvipc tool: it sweeps /tmp at the end
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--seconds") == 0) seconds = atoi(argv[i + 1]);
        if (strcmp(argv[i], "--clients") == 0) clients = atoi(argv[i + 1]);
        if (strcmp(argv[i], "--seed") == 0) seed = static_cast<uint32_t>(atoll(argv[i + 1]));
        if (strcmp(argv[i], "--kill-connecting") == 0) killConnecting = atoi(argv[i + 1]) != 0;
        if (strcmp(argv[i], "--sweep") == 0) sweepTool = argv[i + 1];
    }
    if (clients < 1 || clients > MAX_CLIENTS || seconds < 1) {
        fprintf(stderr,
                "usage: chaos [--seconds N] [--clients 1..16] [--seed N] [--kill-connecting 1] "
                "[--sweep QVIPC_TOOL]\n");
        return 2;
    }
    void* mem =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) return 2;
    g_shared = new (mem) Shared();
    const std::string guid = "qvchaos-" + std::to_string(getpid());
    std::mt19937 rng(seed);
    printf("chaos: seed %u, %d clients, %d s\n", seed, clients, seconds);

    int failures = 0;
    auto fail = [&](const std::string& what) {
        ++failures;
        fprintf(stderr, "chaos: FAIL %s\n", what.c_str());
    };

    Child server;
    std::vector<Child> kids(static_cast<size_t>(clients));
    server.pid = Spawn(guid, -1, clients, rng());
    server.startedMs = rel::NowMs();
    for (int i = 0; i < clients; ++i) {
        kids[i].pid = Spawn(guid, i, clients, rng());
        kids[i].startedMs = rel::NowMs();
    }

    uint64_t serverKills = 0, clientKills = 0;
    int maxServerFds = 0, maxClientFds = 0, maxEntries = 0;
    const uint64_t endMs = rel::NowMs() + static_cast<uint64_t>(seconds) * 1000;
    uint64_t nextKill = rel::NowMs() + 1000 + rng() % 1000;
    uint64_t checkReconnectAt = 0;  // when a server return is to be checked, 0 for none
    uint64_t serverBackMs = 0;
    uint64_t lateReconnects = 0;
    bool wantServer = false;
    std::vector<uint64_t> restartAt(kids.size(), 0);
    std::vector<bool> lateSeen(kids.size(), false);

    auto reapUnexpected = [&](Child& ch, const char* who) {
        int status = 0;
        if (ch.pid > 0 && waitpid(ch.pid, &status, WNOHANG) == ch.pid) {
            fail(std::string(who) + " ended by itself, status " + std::to_string(status));
            ch.pid = -1;
        }
    };

    while (rel::NowMs() < endMs) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const uint64_t now = rel::NowMs();
        reapUnexpected(server, "server");
        for (Child& k : kids) reapUnexpected(k, "client");

        if (server.pid > 0) maxServerFds = std::max(maxServerFds, rel::CountFds(server.pid));
        for (Child& k : kids) {
            if (k.pid > 0) maxClientFds = std::max(maxClientFds, rel::CountFds(k.pid));
        }
        maxEntries = std::max(maxEntries, rel::CountGuidFiles(guid));

        // Clients that came back later than 5 s are counted and named; one that is not back
        // within 15 s fails the run.
        if (checkReconnectAt != 0 && now >= checkReconnectAt) {
            bool pendingLate = false;
            for (int i = 0; i < clients; ++i) {
                const bool olderThanServer = kids[i].startedMs < serverBackMs;
                if (!olderThanServer || g_shared->clients[i].lastConnectMs.load() >= serverBackMs) {
                    continue;
                }
                if (now < serverBackMs + LATE_LIMIT_MS) {
                    if (!lateSeen[i]) {
                        ++lateReconnects;
                        lateSeen[i] = true;
                        fprintf(stderr, "chaos: client %d not connected again within 5 s\n", i);
                    }
                    pendingLate = true;
                } else {
                    fail("client " + std::to_string(i) + " not connected again within 15 s");
                }
            }
            checkReconnectAt = pendingLate ? now + 500 : 0;
            if (!pendingLate) lateSeen.assign(kids.size(), false);
        }

        for (int i = 0; i < clients; ++i) {
            if (kids[i].pid <= 0 && restartAt[i] != 0 && now >= restartAt[i]) {
                restartAt[i] = 0;
                kids[i].pid = Spawn(guid, i, clients, rng());
                kids[i].startedMs = rel::NowMs();
            }
        }
        if (now < nextKill) continue;
        // A server killed after it read a client's CONNECT and before it answered leaves that
        // client waiting for the reply until it finalizes (the reply wait has no bound); a
        // client killed between its CONNECT and the reply holds the server's request loop for
        // 20 s (100 tries to open its response FIFO). Unless asked for, the controller avoids
        // both: once it has chosen the server, it kills no client and waits until every
        // client is connected; it kills only connected clients, and none while the clients
        // come back to a returned server.
        bool allConnected = true;
        for (int i = 0; i < clients; ++i) {
            if (g_shared->clients[i].lastConnectMs.load() == 0) allConnected = false;
        }
        if (!wantServer && checkReconnectAt == 0 && rng() % 4 == 0) wantServer = true;
        const bool killServer = wantServer && (allConnected || killConnecting);
        if (wantServer && !killServer) continue;
        nextKill = now + 300 + rng() % 1200;
        Child& victim = killServer ? server : kids[rng() % kids.size()];
        if (victim.pid <= 0) continue;
        const int index = static_cast<int>(&victim - kids.data());
        if (!killServer && !killConnecting &&
            (checkReconnectAt != 0 || g_shared->clients[index].lastConnectMs.load() == 0)) {
            continue;
        }
        kill(victim.pid, SIGKILL);
        waitpid(victim.pid, nullptr, 0);
        if (killServer) {
            wantServer = false;
            ++serverKills;
            server.pid = Spawn(guid, -1, clients, rng());
            server.startedMs = serverBackMs = rel::NowMs();
            checkReconnectAt = serverBackMs + RECONNECT_LIMIT_MS;
        } else {
            ++clientKills;
            // A killed client leaves its four FIFOs behind; they are swept by its pid. (The
            // tool's sweep would keep them while the server still holds them open, until its
            // clean-up of the slot a second later.)
            rel::RemoveClientFifos(guid, victim.pid);
            g_shared->clients[index].lastConnectMs.store(0);
            victim.pid = -1;
            restartAt[index] = rel::NowMs() + RESTART_DELAY_MS;
        }
    }

    // Stop: every process finalizes and leaves by itself within the limit, or it hung.
    g_shared->stop.store(1);
    const uint64_t stopBy = rel::NowMs() + 30000;
    // Clients first, then the server, so that no client's reconnect races the stop.
    std::vector<Child*> all;
    for (Child& k : kids) all.push_back(&k);
    all.push_back(&server);
    for (Child* ch : all) {
        while (ch->pid > 0) {
            int status = 0;
            const pid_t r = waitpid(ch->pid, &status, WNOHANG);
            if (r == ch->pid) {
                if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
                    fail("process did not end cleanly, status " + std::to_string(status));
                }
                ch->pid = -1;
            } else if (rel::NowMs() > stopBy) {
                fail("process " + std::to_string(ch->pid) + " hung at stop");
                kill(ch->pid, SIGKILL);
                waitpid(ch->pid, nullptr, 0);
                ch->pid = -1;
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        }
    }

    // What may stay: the admin FIFO (never removed) and the id counter's lock.
    const int left = rel::CountGuidFiles(guid);
    if (left > 2) fail(std::to_string(left) + " service entries left in /tmp");
    if (!sweepTool.empty()) {
        // Nobody uses the service any more: the sweep takes its admin FIFO too, and what stays
        // is the id counter's lock, which is not a FIFO.
        if (!RunSweep(sweepTool, guid)) fail("qvipc sweep failed");
        const int swept = rel::CountGuidFiles(guid);
        if (swept > 1) fail(std::to_string(swept) + " service entries left after qvipc sweep");
    }
    rel::RemoveGuidFiles(guid);
    if (rel::CountGuidFiles(guid) != 0) fail("/tmp not clean");
    if (maxServerFds > SERVER_FD_LIMIT)
        fail("server descriptors grew to " + std::to_string(maxServerFds));
    if (maxClientFds > CLIENT_FD_LIMIT)
        fail("client descriptors grew to " + std::to_string(maxClientFds));
    if (maxEntries > 2 + 4 * clients + 8)
        fail("/tmp entries grew to " + std::to_string(maxEntries));

    uint64_t accepted = g_shared->server.accepted, mismatches = g_shared->server.mismatches;
    uint64_t lost = g_shared->server.lost, connects = 0, restarts = 0;
    for (int i = 0; i < clients; ++i) {
        accepted += g_shared->clients[i].accepted;
        mismatches += g_shared->clients[i].mismatches;
        lost += g_shared->clients[i].lost;
        connects += g_shared->clients[i].connects;
        restarts += g_shared->clients[i].restarts;
    }
    if (mismatches != 0) fail(std::to_string(mismatches) + " answers did not match");
    if (accepted == 0) fail("no message went through");
    printf(
        "chaos: kills %llu (server %llu, clients %llu), reconnects %llu (later than 5 s: %llu, "
        "endpoints started over: %llu), "
        "messages %llu, lost %llu, failures %d; max fds server %d client %d, max /tmp entries "
        "%d\n",
        static_cast<unsigned long long>(serverKills + clientKills),
        static_cast<unsigned long long>(serverKills), static_cast<unsigned long long>(clientKills),
        static_cast<unsigned long long>(connects), static_cast<unsigned long long>(lateReconnects),
        static_cast<unsigned long long>(restarts), static_cast<unsigned long long>(accepted),
        static_cast<unsigned long long>(lost), failures, maxServerFds, maxClientFds, maxEntries);
    return failures == 0 ? 0 : 1;
}
