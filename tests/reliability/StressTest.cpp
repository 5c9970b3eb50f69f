// Stress: one server and many client processes exchange checksummed bodies while this
// controller watches them, in one of two settings:
//   stress chaos [--seconds N] [--clients 1..63] [--seed N] [--kill-connecting 1] [--sweep TOOL]
//     8 clients, bodies of 0 B to 1 MiB both ways; the server or a client is killed with
//     SIGKILL at random moments and started again. Every client must be connected again within
//     15 s of the server's return (later than 5 s is reported), and `TOOL sweep` must leave
//     nothing of the service behind.
//   stress soak [--seconds N] [--clients 1..63]
//     63 clients doing round trips of 0 to 4 KiB as fast as they can, nobody killed. No
//     response may be lost, the server's resident memory must stay flat (the last sample within
//     10% + 4 MiB of the one after warm-up) and every client's count within 2x of the median.
// Both fail on an answer with other bytes or one that came twice, a process that crashed or did
// not stop when asked, descriptors or /tmp entries that grew, and /tmp not clean at the end.
// Exit 0 on a pass; one line of figures either way.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <set>

#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

constexpr int MAX_CLIENTS = 63;
constexpr int TYPE_DATA = 5;
constexpr unsigned long EXT = 48;

struct Setting {
    bool chaos = false;
    int seconds = 30;
    int clients = 8;
    uint32_t seed = static_cast<uint32_t>(time(nullptr));
    bool killConnecting = false;
    std::string sweepTool;
};

// Counters in memory shared with the children, so that they survive a SIGKILL.
struct Counters {
    std::atomic<uint64_t> accepted{0};    // answers that matched their request
    std::atomic<uint64_t> mismatches{0};  // answers with other bytes
    std::atomic<uint64_t> duplicates{0};  // answers that came twice
    std::atomic<uint64_t> lost{0};        // requests whose peer went before it answered
    std::atomic<uint64_t> connects{0};
    std::atomic<uint64_t> lastConnectMs{0};
    std::atomic<uint64_t> restarts{0};  // client endpoints started over after a refusal
};

struct Shared {
    std::atomic<int> go{0};
    std::atomic<int> stop{0};  // 1: clients stop; 2: the server too
    Counters server;
    Counters clients[MAX_CLIENTS];
};

Shared* g_shared = nullptr;
Setting g_setting;

uint64_t NowMs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

std::string Body(std::mt19937& rng) {
    if (!g_setting.chaos) return Pattern(rng() % 4097, rng());
    const uint32_t pick = rng() % 100;
    const size_t size = pick < 5    ? 0
                        : pick < 70 ? rng() % 4096
                        : pick < 95 ? rng() % 65536
                                    : rng() % (1024 * 1024 + 1);
    return Pattern(size, rng());
}

// One endpoint's life: answers what it is asked, and asks (a client always, the server in
// chaos) one request at a time while it is connected. Returns false when a client was never
// connected within 25 s: a client that asks while the server still holds the slot of a killed
// one is refused, and a refused connect thread does not try again, so the application starts
// over. (25 s: longer than a server may spend on a CONNECT of a client that is gone.)
bool Session(const std::string& guid, int index, uint32_t seed) {
    const bool isServer = index < 0;
    Counters& c = isServer ? g_shared->server : g_shared->clients[index];
    CQVIPCLibrary lib("stress", guid, isServer ? 1 : 0,
                      static_cast<unsigned long>(g_setting.clients), EXT, NO_TIMEOUT);
    if (lib.initialize() != 0) return false;
    std::mutex slotsMutex;
    std::set<unsigned long> slots;  // the server's connected clients; {0} for a client
    std::thread requests([&] {
        for (;;) {
            const Received r = ReceiveRequest(lib);
            if (r.hr == QVIPC_E_SHUTDOWN) break;
            if (r.hr == 0 && r.type == TYPE_DATA) AnswerFlipped(lib, r);
            std::lock_guard<std::mutex> lock(slotsMutex);
            if (r.hr == QVIPC_E_NEW_CONNECTION) {
                ++c.connects;
                c.lastConnectMs.store(NowMs());
                slots.insert(r.ipcid);
            } else if (r.hr != 0 && isServer) {
                slots.erase(r.ipcid);
            }
        }
    });
    std::mt19937 rng(seed);
    const uint64_t giveUp = NowMs() + 25000;
    bool everConnected = isServer;
    const int stopAt = isServer ? 2 : 1;
    while (g_shared->stop.load() < stopAt) {
        std::vector<unsigned long> now;
        {
            std::lock_guard<std::mutex> lock(slotsMutex);
            now.assign(slots.begin(), slots.end());
        }
        if (now.empty() || g_shared->go.load() == 0 || (isServer && !g_setting.chaos)) {
            if (!everConnected && NowMs() > giveUp) break;
            SleepMs(20);
            continue;
        }
        everConnected = true;
        const unsigned long ipcid = now[rng() % now.size()];
        const std::string body = Body(rng);
        const std::string ext = Pattern(EXT, rng());
        unsigned long id = 0;
        if (lib.sendRequest(ipcid, body.data(), body.size(), &id, TYPE_DATA, ext.data()) != 0) {
            if (isServer) {
                std::lock_guard<std::mutex> lock(slotsMutex);
                slots.erase(ipcid);
            } else {
                SleepMs(50);
            }
            continue;
        }
        // The answer, or the news that its peer is gone; other slots' news is not for us.
        Received r = ReceiveResponse(lib);
        while (r.hr != QVIPC_E_SHUTDOWN && r.ipcid != ipcid) r = ReceiveResponse(lib);
        if (r.hr != 0) {
            ++c.lost;
        } else if (r.id < id) {
            ++c.duplicates;
        } else if (r.id != id || r.body != Flip(body) || r.ext != Flip(ext)) {
            ++c.mismatches;
        } else {
            ++c.accepted;
        }
    }
    lib.finalize();
    requests.join();
    return everConnected || g_shared->stop.load() != 0;
}

pid_t Spawn(const std::string& guid, int index, uint32_t seed) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    alarm(900);  // a child that outlives any run by far ends itself
    while (!Session(guid, index, seed)) {
        if (index < 0) _exit(3);
        ++g_shared->clients[index].restarts;
    }
    _exit(0);
}

struct Child {
    pid_t pid = -1;
    uint64_t startedMs = 0;
};

// Runs `tool sweep --guid guid` and waits for it; true when it exited 0.
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

bool ParseArgs(int argc, char** argv) {
    if (argc < 2 || (strcmp(argv[1], "chaos") != 0 && strcmp(argv[1], "soak") != 0)) return false;
    g_setting.chaos = strcmp(argv[1], "chaos") == 0;
    g_setting.clients = g_setting.chaos ? 8 : MAX_CLIENTS;
    for (int i = 2; i + 1 < argc; i += 2) {
        const std::string flag = argv[i];
        if (flag == "--seconds") g_setting.seconds = atoi(argv[i + 1]);
        if (flag == "--clients") g_setting.clients = atoi(argv[i + 1]);
        if (flag == "--seed") g_setting.seed = static_cast<uint32_t>(atoll(argv[i + 1]));
        if (flag == "--kill-connecting") g_setting.killConnecting = atoi(argv[i + 1]) != 0;
        if (flag == "--sweep") g_setting.sweepTool = argv[i + 1];
    }
    return g_setting.clients >= 1 && g_setting.clients <= MAX_CLIENTS && g_setting.seconds >= 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (!ParseArgs(argc, argv)) {
        fprintf(stderr,
                "usage: stress chaos|soak [--seconds N>=2] [--clients 1..63] [--seed N] "
                "[--kill-connecting 1] [--sweep QVIPC_TOOL]\n");
        return 2;
    }
    const Setting& s = g_setting;
    const char* name = s.chaos ? "chaos" : "soak";
    void* mem =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) return 2;
    g_shared = new (mem) Shared();
    const std::string guid = TestGuid();
    std::mt19937 rng(s.seed);
    printf("%s: seed %u, %d clients, %d s\n", name, s.seed, s.clients, s.seconds);
    int failures = 0;
    auto fail = [&](const std::string& what) {
        ++failures;
        fprintf(stderr, "%s: FAIL %s\n", name, what.c_str());
    };

    Child server{Spawn(guid, -1, rng()), NowMs()};
    std::vector<Child> kids;
    for (int i = 0; i < s.clients; ++i) kids.push_back({Spawn(guid, i, rng()), NowMs()});
    auto connected = [&] {
        int n = 0;
        for (int i = 0; i < s.clients; ++i) n += g_shared->clients[i].lastConnectMs.load() != 0;
        return n;
    };
    // A soak starts once all are connected, so that every client runs the same time.
    if (!s.chaos && !WaitFor([&] { return connected() == s.clients; }, DEADLINE)) {
        fail(std::to_string(s.clients - connected()) + " clients never connected");
    }
    g_shared->go.store(1);

    uint64_t serverKills = 0, clientKills = 0, lateReconnects = 0;
    int maxServerFds = 0, maxClientFds = 0;
    size_t maxEntries = 0;
    std::vector<long> rss;
    const uint64_t startMs = NowMs();
    const uint64_t endMs = startMs + static_cast<uint64_t>(s.seconds) * 1000;
    uint64_t nextKill = startMs + 1000 + rng() % 1000;
    uint64_t checkReconnectAt = 0;  // when a server's return is to be checked, 0 for none
    uint64_t serverBackMs = 0;
    bool wantServer = false;
    std::vector<uint64_t> restartAt(kids.size(), 0);
    std::vector<bool> lateSeen(kids.size(), false);
    while (NowMs() < endMs) {
        SleepMs(50);
        const uint64_t now = NowMs();
        std::vector<Child*> all{&server};
        for (Child& k : kids) all.push_back(&k);
        for (Child* ch : all) {
            int status = 0;
            if (ch->pid > 0 && waitpid(ch->pid, &status, WNOHANG) == ch->pid) {
                fail("a process ended by itself, status " + std::to_string(status));
                ch->pid = -1;
            }
            int& most = ch == &server ? maxServerFds : maxClientFds;
            if (ch->pid > 0) most = std::max(most, CountFds(ch->pid));
        }
        maxEntries = std::max(maxEntries, GuidFiles(guid).size());
        if (rss.size() < (now - startMs) / 1000) rss.push_back(ResidentKiB(server.pid));
        if (!s.chaos) continue;

        // Clients that came back later than 5 s are counted and named; one that is not back
        // within 15 s fails the run.
        if (checkReconnectAt != 0 && now >= checkReconnectAt) {
            bool pendingLate = false;
            for (size_t i = 0; i < kids.size(); ++i) {
                if (kids[i].startedMs >= serverBackMs ||
                    g_shared->clients[i].lastConnectMs.load() >= serverBackMs) {
                    continue;
                }
                if (now >= serverBackMs + 15000) {
                    fail("client " + std::to_string(i) + " not connected again within 15 s");
                    continue;
                }
                if (!lateSeen[i]) {
                    ++lateReconnects;
                    lateSeen[i] = true;
                    fprintf(stderr, "chaos: client %zu not connected again within 5 s\n", i);
                }
                pendingLate = true;
            }
            checkReconnectAt = pendingLate ? now + 500 : 0;
            if (!pendingLate) lateSeen.assign(kids.size(), false);
        }
        for (size_t i = 0; i < kids.size(); ++i) {
            if (kids[i].pid <= 0 && restartAt[i] != 0 && now >= restartAt[i]) {
                restartAt[i] = 0;
                kids[i] = {Spawn(guid, static_cast<int>(i), rng()), NowMs()};
            }
        }
        if (now < nextKill) continue;
        // A server killed between a client's CONNECT and its reply leaves that client waiting
        // for the reply until it finalizes; a client killed between its CONNECT and the reply
        // holds the server's request loop for 20 s. Unless asked for, the controller avoids
        // both: once it has chosen the server, it kills no client and waits until every client
        // is connected; it kills only connected clients, and none while clients come back.
        if (!wantServer && checkReconnectAt == 0 && rng() % 4 == 0) wantServer = true;
        const bool killServer = wantServer && (connected() == s.clients || s.killConnecting);
        if (wantServer && !killServer) continue;
        nextKill = now + 300 + rng() % 1200;
        Child& victim = killServer ? server : kids[rng() % kids.size()];
        const size_t index = static_cast<size_t>(&victim - kids.data());
        if (victim.pid <= 0 ||
            (!killServer && !s.killConnecting &&
             (checkReconnectAt != 0 || g_shared->clients[index].lastConnectMs.load() == 0))) {
            continue;
        }
        kill(victim.pid, SIGKILL);
        waitpid(victim.pid, nullptr, 0);
        if (killServer) {
            wantServer = false;
            ++serverKills;
            server = {Spawn(guid, -1, rng()), NowMs()};
            serverBackMs = server.startedMs;
            checkReconnectAt = serverBackMs + 5000;
        } else {
            // Its FIFOs are swept by pid. A killed client comes back after 1.5 s: the server
            // frees a vanished client's slot a second after it notices, and refuses it before.
            ++clientKills;
            RemoveClientFifos(guid, victim.pid);
            g_shared->clients[index].lastConnectMs.store(0);
            victim.pid = -1;
            restartAt[index] = NowMs() + 1500;
        }
    }

    // Stop: clients first, then the server; each finalizes and leaves by itself, or it hung.
    const uint64_t stopBy = NowMs() + 30000;
    for (int level = 1; level <= 2; ++level) {
        g_shared->stop.store(level);
        std::vector<Child*> leaving{&server};
        if (level == 1) {
            leaving.clear();
            for (Child& k : kids) leaving.push_back(&k);
        }
        for (Child* ch : leaving) {
            int status = 0;
            while (ch->pid > 0 && waitpid(ch->pid, &status, WNOHANG) != ch->pid) {
                if (NowMs() > stopBy) {
                    fail("process " + std::to_string(ch->pid) + " hung at stop");
                    kill(ch->pid, SIGKILL);
                    waitpid(ch->pid, nullptr, 0);
                    ch->pid = -1;
                }
                SleepMs(20);
            }
            if (ch->pid > 0 && (!WIFEXITED(status) || WEXITSTATUS(status) != 0)) {
                fail("a process ended with status " + std::to_string(status));
            }
        }
    }

    // What may stay: the admin FIFO, which is never removed, and the id counter's lock.
    if (GuidFiles(guid).size() > 1) fail("service entries left in /tmp");
    if (!s.sweepTool.empty() && !RunSweep(s.sweepTool, guid)) fail("qvipc sweep failed");
    if (!s.sweepTool.empty() && !GuidFiles(guid).empty())
        fail("qvipc sweep left " + GuidFiles(guid)[0]);
    RemoveGuidFiles(guid);
    if (maxServerFds > 40 + 4 * s.clients)
        fail("server descriptors grew to " + std::to_string(maxServerFds));
    if (maxClientFds > 40) fail("client descriptors grew to " + std::to_string(maxClientFds));
    if (maxEntries > 1 + 4 * static_cast<size_t>(s.clients) + 8) fail("/tmp entries grew");

    Counters total;
    std::vector<uint64_t> counts;
    for (int i = -1; i < s.clients; ++i) {
        const Counters& c = i < 0 ? g_shared->server : g_shared->clients[i];
        total.accepted += c.accepted.load();
        total.mismatches += c.mismatches.load();
        total.duplicates += c.duplicates.load();
        total.lost += c.lost.load();
        total.connects += c.connects.load();
        total.restarts += c.restarts.load();
        if (i >= 0) counts.push_back(c.accepted.load());
    }
    std::sort(counts.begin(), counts.end());
    const uint64_t median = counts[counts.size() / 2];
    if (total.mismatches != 0) fail("answers with other bytes");
    if (total.duplicates != 0) fail("answers that came twice");
    if (total.accepted == 0) fail("no message went through");
    // The first quarter of a soak is warm-up: buffers grow to their working size.
    const long base = rss.empty() ? 0 : rss[rss.size() / 4];
    const long last = rss.empty() ? 0 : rss.back();
    if (!s.chaos) {
        if (total.lost != 0) fail("responses lost");
        if (counts.front() * 2 < median || counts.back() > median * 2) fail("unfair");
        if (last > base + base / 10 + 4096) fail("server memory grew");
    }
    printf(
        "%s: client kills %llu, server kills %llu, connects %llu (later than 5 s: %llu, started "
        "over: %llu), "
        "messages %llu (per client min %llu, median %llu, max %llu), lost %llu; max fds server "
        "%d client %d, /tmp entries %zu, server RSS %ld -> %ld KiB; failures %d\n",
        name, static_cast<unsigned long long>(clientKills),
        static_cast<unsigned long long>(serverKills),
        static_cast<unsigned long long>(total.connects.load()),
        static_cast<unsigned long long>(lateReconnects),
        static_cast<unsigned long long>(total.restarts.load()),
        static_cast<unsigned long long>(total.accepted.load()),
        static_cast<unsigned long long>(counts.front()), static_cast<unsigned long long>(median),
        static_cast<unsigned long long>(counts.back()),
        static_cast<unsigned long long>(total.lost.load()), maxServerFds, maxClientFds, maxEntries,
        base, last, failures);
    return failures == 0 ? 0 : 1;
}
