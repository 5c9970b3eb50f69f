// A server and client processes exchange checked bodies while this controller watches them.
//   stress chaos|soak [--seconds N] [--clients 1..63] [--seed N] [--kill-connecting 1]
//                     [--sweep QVIPC_TOOL]
// chaos: 8 clients, bodies up to 1 MiB, the server or a client killed and restarted at random;
// soak: 63 clients doing small round trips flat out. Exit 0 on a pass; one line of figures.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <set>

#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

constexpr int MAX_CLIENTS = 63;
constexpr int TYPE_DATA = 5;

struct Setting {
    bool chaos = false;
    int seconds = 30;
    int clients = 8;
    uint32_t seed = static_cast<uint32_t>(time(nullptr));
    bool killConnecting = false;
    std::string sweepTool;
} g_setting;

// Per endpoint, in memory shared with the children so that they survive a SIGKILL. LOST: the
// peer went before it answered; RESTARTS: client endpoints started over after a refusal.
enum { ACCEPTED, MISMATCHES, DUPLICATES, LOST, CONNECTS, RESTARTS, LAST_CONNECT_MS, COUNTERS };
using Counters = std::atomic<uint64_t>[COUNTERS];

struct Shared {
    std::atomic<int> go{0};
    std::atomic<int> stop{0};  // 1: clients stop; 2: the server too
    Counters server;
    Counters clients[MAX_CLIENTS];
}* g_shared = nullptr;

uint64_t NowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

std::string Body(std::mt19937& rng) {
    if (!g_setting.chaos) return Pattern(rng() % 4097, rng());
    const uint32_t pick = rng() % 100;
    const size_t most = pick < 5 ? 0 : pick < 70 ? 4095 : pick < 95 ? 65535 : 1024 * 1024;
    return Pattern(rng() % (most + 1), rng());
}

// One endpoint's life: answers what it is asked and asks (a client always, the server in chaos)
// one request at a time while connected. False when a client was not connected within 25 s: a
// refused connect thread does not try again, so the application starts over. (25 s: longer than
// a server may spend on a CONNECT of a client that is gone.)
bool Session(const std::string& guid, int index, uint32_t seed) {
    const bool isServer = index < 0;
    Counters& c = isServer ? g_shared->server : g_shared->clients[index];
    CQVIPCLibrary lib("stress", guid, isServer ? 1 : 0,
                      static_cast<unsigned long>(g_setting.clients), 48, NO_TIMEOUT);
    if (lib.initialize() != 0) return false;
    std::mutex slotsMutex;
    std::set<unsigned long> slots;  // the server's connected clients; {0} for a client
    std::thread requests([&] {
        for (Received r; (r = ReceiveRequest(lib)).hr != QVIPC_E_SHUTDOWN;) {
            if (r.hr == 0 && r.type == TYPE_DATA) AnswerFlipped(lib, r);
            std::lock_guard<std::mutex> lock(slotsMutex);
            if (r.hr == QVIPC_E_NEW_CONNECTION) {
                ++c[CONNECTS];
                c[LAST_CONNECT_MS] = NowMs();
                slots.insert(r.ipcid);
            } else if (r.hr != 0 && isServer) {
                slots.erase(r.ipcid);
            }
        }
    });
    std::mt19937 rng(seed);
    const uint64_t giveUp = NowMs() + 25000;
    bool everConnected = isServer;
    while (g_shared->stop.load() < (isServer ? 2 : 1)) {
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
        const std::string body = Body(rng), ext = Pattern(48, rng());
        unsigned long id = 0;
        if (lib.sendRequest(ipcid, body.data(), body.size(), &id, TYPE_DATA, ext.data()) != 0) {
            if (!isServer) SleepMs(50);
            std::lock_guard<std::mutex> lock(slotsMutex);
            if (isServer) slots.erase(ipcid);
            continue;
        }
        // The answer, or the news that its peer is gone; other slots' news is not for us.
        Received r = ReceiveResponse(lib);
        while (r.hr != QVIPC_E_SHUTDOWN && r.ipcid != ipcid) r = ReceiveResponse(lib);
        const bool same = r.id == id && r.body == Flip(body) && r.ext == Flip(ext);
        ++c[r.hr != 0 ? LOST : r.id < id ? DUPLICATES : same ? ACCEPTED : MISMATCHES];
    }
    lib.finalize();
    requests.join();
    return everConnected || g_shared->stop.load() != 0;
}

struct Child {
    pid_t pid = -1;
    uint64_t startedMs = 0;
};

Child Spawn(const std::string& guid, int index, uint32_t seed) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return {pid, NowMs()};
    alarm(900);  // a child that outlives any run by far ends itself
    while (!Session(guid, index, seed)) {
        if (index < 0) _exit(3);
        ++g_shared->clients[index][RESTARTS];
    }
    _exit(0);
}

void Kill(Child& child) {
    kill(child.pid, SIGKILL);
    waitpid(child.pid, nullptr, 0);
    child.pid = -1;
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

    std::vector<Child> kids;  // [0] is the server
    for (int i = -1; i < s.clients; ++i) kids.push_back(Spawn(guid, i, rng()));
    Child& server = kids[0];
    auto lastConnect = [&](size_t k) { return g_shared->clients[k - 1][LAST_CONNECT_MS].load(); };
    auto connected = [&] {
        int n = 0;
        for (size_t k = 1; k < kids.size(); ++k) n += lastConnect(k) != 0;
        return n;
    };
    // A soak starts once all are connected, so that every client runs the same time.
    if (!s.chaos && !WaitFor([&] { return connected() == s.clients; }, DEADLINE)) {
        fail(std::to_string(s.clients - connected()) + " clients never connected");
    }
    g_shared->go.store(1);

    uint64_t serverKills = 0, clientKills = 0, lateReconnects = 0;
    int maxFds[2] = {0, 0};  // server, client
    size_t maxEntries = 0;
    std::vector<long> rss;
    const uint64_t startMs = NowMs(), endMs = startMs + static_cast<uint64_t>(s.seconds) * 1000;
    uint64_t nextKill = startMs + 1000 + rng() % 1000;
    uint64_t checkReconnectAt = 0, serverBackMs = 0;  // 0: no server return to check
    bool wantServer = false;
    std::vector<uint64_t> restartAt(kids.size(), 0);
    while (NowMs() < endMs) {
        SleepMs(50);
        const uint64_t now = NowMs();
        for (Child& ch : kids) {
            int status = 0;
            if (ch.pid > 0 && waitpid(ch.pid, &status, WNOHANG) == ch.pid) {
                fail("a process ended by itself, status " + std::to_string(status));
                ch.pid = -1;
            }
            int& most = maxFds[&ch == &server ? 0 : 1];
            if (ch.pid > 0) most = std::max(most, CountFds(ch.pid));
        }
        maxEntries = std::max(maxEntries, GuidFiles(guid).size());
        if (rss.size() < (now - startMs) / 1000) rss.push_back(ResidentKiB(server.pid));
        if (!s.chaos) continue;

        // Clients not back 5 s after the server's return are counted; not back in 15 s, failed.
        if (checkReconnectAt != 0 && now >= checkReconnectAt) {
            uint64_t late = 0;
            for (size_t k = 1; k < kids.size(); ++k) {
                late += kids[k].startedMs < serverBackMs && lastConnect(k) < serverBackMs;
            }
            if (checkReconnectAt == serverBackMs + 5000) lateReconnects += late;
            const bool over = now >= serverBackMs + 15000;
            if (late != 0 && over) fail(std::to_string(late) + " clients not back within 15 s");
            checkReconnectAt = late == 0 || over ? 0 : now + 500;
        }
        for (size_t k = 1; k < kids.size(); ++k) {
            if (kids[k].pid <= 0 && restartAt[k] != 0 && now >= restartAt[k]) {
                restartAt[k] = 0;
                kids[k] = Spawn(guid, static_cast<int>(k - 1), rng());
            }
        }
        if (now < nextKill) continue;
        // A server killed between a client's CONNECT and its reply leaves that client waiting
        // for ever; a client killed there holds the server's request loop for 20 s. Unless asked
        // to, avoid both: kill the server only when every client is connected, only connected
        // clients, and no client while clients come back.
        if (!wantServer && checkReconnectAt == 0 && rng() % 4 == 0) wantServer = true;
        const bool killServer = wantServer && (connected() == s.clients || s.killConnecting);
        if (wantServer && !killServer) continue;
        nextKill = now + 300 + rng() % 1200;
        const size_t k = killServer ? 0 : 1 + rng() % (kids.size() - 1);
        Child& victim = kids[k];
        if (victim.pid <= 0 ||
            (!killServer && !s.killConnecting && (checkReconnectAt != 0 || lastConnect(k) == 0))) {
            continue;
        }
        const pid_t pid = victim.pid;
        Kill(victim);
        if (killServer) {
            wantServer = false;
            ++serverKills;
            server = Spawn(guid, -1, rng());
            serverBackMs = server.startedMs;
            checkReconnectAt = serverBackMs + 5000;
        } else {
            // A sweep removes its FIFOs by pid. It comes back after 1.5 s: the server frees a
            // vanished client's slot a second after it notices, and refuses it before.
            ++clientKills;
            RemoveClientFifos(guid, pid);
            g_shared->clients[k - 1][LAST_CONNECT_MS] = 0;
            restartAt[k] = NowMs() + 1500;
        }
    }

    // Stop: clients first, then the server; each finalizes and leaves by itself, or it hung.
    const uint64_t stopBy = NowMs() + 30000;
    for (int level = 1; level <= 2; ++level) {
        g_shared->stop.store(level);
        for (size_t k = level == 1 ? 1 : 0; k < (level == 1 ? kids.size() : 1); ++k) {
            int status = 0;
            while (kids[k].pid > 0 && waitpid(kids[k].pid, &status, WNOHANG) != kids[k].pid) {
                if (NowMs() > stopBy) {
                    fail("process " + std::to_string(kids[k].pid) + " hung at stop");
                    Kill(kids[k]);
                }
                SleepMs(20);
            }
            if (kids[k].pid > 0 && status != 0) {
                fail("a process ended with status " + std::to_string(status));
            }
        }
    }

    // What may stay: the admin FIFO, which is never removed, and the id counter's lock.
    if (GuidFiles(guid).size() > 1) fail("service entries left in /tmp");
    if (!s.sweepTool.empty() &&
        (system(("'" + s.sweepTool + "' sweep --guid " + guid).c_str()) != 0 ||
         !GuidFiles(guid).empty())) {
        fail("qvipc sweep failed or left service entries");
    }
    RemoveGuidFiles(guid);
    if (maxFds[0] > 40 + 4 * s.clients) fail("server descriptors grew");
    if (maxFds[1] > 40) fail("client descriptors grew");
    if (maxEntries > 1 + 4 * static_cast<size_t>(s.clients) + 8) fail("/tmp entries grew");

    uint64_t total[COUNTERS] = {};
    std::vector<uint64_t> counts;
    for (int i = -1; i < s.clients; ++i) {
        const Counters& c = i < 0 ? g_shared->server : g_shared->clients[i];
        for (int k = 0; k < COUNTERS; ++k) total[k] += c[k].load();
        if (i >= 0) counts.push_back(c[ACCEPTED].load());
    }
    std::sort(counts.begin(), counts.end());
    const uint64_t median = counts[counts.size() / 2];
    if (total[MISMATCHES] != 0) fail("answers with other bytes");
    if (total[DUPLICATES] != 0) fail("answers that came twice");
    if (total[ACCEPTED] == 0) fail("no message went through");
    // The first quarter of a soak is warm-up: buffers grow to their working size.
    const long base = rss.empty() ? 0 : rss[rss.size() / 4], last = rss.empty() ? 0 : rss.back();
    if (!s.chaos) {
        if (total[LOST] != 0) fail("responses lost");
        if (counts.front() * 2 < median || counts.back() > median * 2) fail("unfair");
        if (last > base + base / 10 + 4096) fail("server memory grew");
    }
    printf("%s: client kills %" PRIu64 ", server kills %" PRIu64 ", connects %" PRIu64
           " (later than 5 s: %" PRIu64 ", started over: %" PRIu64 "), messages %" PRIu64
           " (per client min %" PRIu64 ", median %" PRIu64 ", max %" PRIu64 "), lost %" PRIu64
           "; max fds server %d client %d, /tmp entries %zu, server RSS %ld -> %ld KiB; "
           "failures %d\n",
           name, clientKills, serverKills, total[CONNECTS], lateReconnects, total[RESTARTS],
           total[ACCEPTED], counts.front(), median, counts.back(), total[LOST], maxFds[0],
           maxFds[1], maxEntries, base, last, failures);
    return failures == 0 ? 0 : 1;
}
