// Server and client processes exchange checked bodies while this controller watches them:
//   stress chaos|soak [--seconds N] [--seed N] [--sweep QVIPC_TOOL]
// chaos: 8 clients, bodies up to 1 MiB, random kills and restarts; soak: 63 clients flat out.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <random>

#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

constexpr int MAX_CLIENTS = 63, TYPE_DATA = 5;
bool g_chaos = false;
int g_clients = 8;

// In memory shared with the children, so that it survives a SIGKILL. LOST: the peer went first.
enum { ACCEPTED, WRONG, LOST, COUNTERS };
struct Shared {
    std::atomic<int> stop{0};  // 1: clients stop; 2: the server too
    std::atomic<uint64_t> totals[COUNTERS], lastConnectMs[1 + MAX_CLIENTS];  // [0]: the server
}* g_shared = nullptr;

uint64_t NowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Answers what it is asked and asks (a client always, the server in chaos) one request at a time.
// False when a client was not connected within 25 s: a refused connect thread does not try again.
bool Session(const std::string& guid, int index, uint32_t seed) {
    const bool isServer = index < 0;
    CQVIPCLibrary lib("stress", guid, isServer, static_cast<unsigned long>(g_clients), 48,
                      NO_TIMEOUT);
    if (lib.initialize() != 0) return false;
    std::atomic<bool> connected{isServer};
    std::thread requests([&] {
        for (Received r; (r = ReceiveRequest(lib)).hr != QVIPC_E_SHUTDOWN;) {
            if (r.hr == 0) AnswerFlipped(lib, r);
            if (r.hr == QVIPC_E_NEW_CONNECTION) g_shared->lastConnectMs[index + 1] = NowMs();
            connected = connected || r.hr == QVIPC_E_NEW_CONNECTION;
        }
    });
    // At stop the endpoint is finalized from here: the loop below may be waiting for an answer
    // that a kill took away (a slot freed before its reader saw the break), and finalize ends
    // that wait. A finalize that hangs still shows as a process that does not exit.
    std::atomic<bool> done{false};
    std::thread stopper([&] {
        while (!done && g_shared->stop.load() < (isServer ? 2 : 1)) SleepMs(20);
        if (!done) lib.finalize();
    });
    std::mt19937 rng(seed);
    for (const uint64_t giveUp = NowMs() + 25000;
         g_shared->stop.load() < (isServer ? 2 : 1) && (connected || NowMs() < giveUp);) {
        const unsigned long ipcid = isServer ? 1 + rng() % static_cast<unsigned>(g_clients) : 0;
        const uint32_t pick = rng() % 100;
        const size_t most = !g_chaos ? 4096 : pick < 70 ? 4095 : pick < 95 ? 65535 : 1 << 20;
        const std::string body = Pattern(rng() % (most + 1), rng()), ext = Pattern(48, rng());
        unsigned long id = 0;
        if (!connected || (isServer && !g_chaos) ||
            lib.sendRequest(ipcid, body.data(), body.size(), &id, TYPE_DATA, ext.data()) != 0) {
            SleepMs(20);
            continue;
        }
        // The answer, or the news that its peer is gone; other slots' news is not for us.
        Received r = ReceiveResponse(lib);
        while (r.hr != QVIPC_E_SHUTDOWN && r.ipcid != ipcid) r = ReceiveResponse(lib);
        if (r.hr == QVIPC_E_SHUTDOWN) break;  // stopped while waiting: neither lost nor answered
        const bool same = r.id == id && r.body == Flip(body) && r.ext == Flip(ext);
        ++g_shared->totals[r.hr != 0 ? LOST : same ? ACCEPTED : WRONG];
    }
    done = true;
    stopper.join();
    lib.finalize();
    requests.join();
    return connected || g_shared->stop.load() != 0;
}

pid_t Spawn(const std::string& guid, int index, uint32_t seed, int delayMs = 0) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    alarm(900);  // a child that outlives any run by far ends itself
    SleepMs(delayMs);
    while (!Session(guid, index, seed)) {
        if (index < 0) _exit(3);  // a refused client starts over
    }
    _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    g_chaos = argc >= 2 && strcmp(argv[1], "chaos") == 0;
    g_clients = g_chaos ? 8 : MAX_CLIENTS;
    int seconds = 30;
    uint32_t seed = std::random_device()();
    std::string sweepTool;
    for (int i = 2; i + 1 < argc; i += 2) {
        const std::string flag = argv[i], value = argv[i + 1];
        seconds = flag == "--seconds" ? std::stoi(value) : seconds;
        seed = flag == "--seed" ? static_cast<uint32_t>(std::stoul(value)) : seed;
        sweepTool = flag == "--sweep" ? value : sweepTool;
    }
    if (argc < 2 || (!g_chaos && strcmp(argv[1], "soak") != 0) || seconds < 2) {
        fprintf(stderr, "usage: stress chaos|soak [--seconds N>=2] [--seed N] [--sweep TOOL]\n");
        return 2;
    }
    g_shared = new (mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared();
    const std::string guid = TestGuid();
    std::mt19937 rng(seed);
    printf("%s: seed %u, %d clients, %d s\n", argv[1], seed, g_clients, seconds);
    int failures = 0;
    auto fail = [&](const std::string& what) {
        ++failures;
        fprintf(stderr, "%s: FAIL %s\n", argv[1], what.c_str());
    };

    std::vector<pid_t> kids;  // [0] is the server
    for (int i = -1; i < g_clients; ++i) kids.push_back(Spawn(guid, i, rng()));
    // A killed client's stamp is cleared; after a server kill, only later connects count.
    uint64_t serverBackMs = 0;
    auto allConnected = [&] {
        return std::all_of(g_shared->lastConnectMs + 1, g_shared->lastConnectMs + 1 + g_clients,
                           [&](std::atomic<uint64_t>& ms) { return ms > serverBackMs; });
    };
    if (!WaitFor(allConnected, DEADLINE)) fail("clients never connected");

    uint64_t kills = 0, maxEntries = 0;
    int maxFds[2] = {0, 0};   // server, client
    long base = 0, last = 0;  // the server's RSS: the first quarter is warm-up
    const uint64_t startMs = NowMs(), endMs = startMs + static_cast<uint64_t>(seconds) * 1000;
    uint64_t nextKill = startMs + 1000, lastKill = startMs;
    while (NowMs() < endMs) {
        SleepMs(50);
        const uint64_t now = NowMs();
        for (size_t k = 0; k < kids.size(); ++k) {
            int status = 0;
            if (kids[k] > 0 && waitpid(kids[k], &status, WNOHANG) == kids[k]) {
                fail("a process ended by itself, status " + std::to_string(status));
                kids[k] = -1;
            }
            if (kids[k] > 0) maxFds[k != 0] = std::max(maxFds[k != 0], CountFds(kids[k]));
        }
        maxEntries = std::max<uint64_t>(maxEntries, GuidFiles(guid).size());
        last = kids[0] > 0 ? ResidentKiB(kids[0]) : last;
        base = now < startMs + static_cast<uint64_t>(seconds) * 250 ? last : base;
        if (!g_chaos || now < nextKill) continue;
        // Kill only when everyone is connected: a peer killed mid-connect stalls the other side.
        if (!allConnected()) {
            if (now > lastKill + 15000) fail("clients not back within 15 s");
            lastKill = now > lastKill + 15000 ? now : lastKill;
            continue;
        }
        const size_t k = rng() % kids.size();
        kill(kids[k], SIGKILL);
        waitpid(kids[k], nullptr, 0);
        ++kills;
        lastKill = now;
        nextKill = now + 300 + rng() % 1200;
        // The server comes back at once; a client, its FIFOs removed as a sweep would, after
        // 1.5 s: the server frees a vanished client's slot a second after it notices.
        if (k == 0) serverBackMs = now;
        if (k != 0) RemoveClientFifos(guid, kids[k]);
        g_shared->lastConnectMs[k] = 0;
        kids[k] = Spawn(guid, static_cast<int>(k) - 1, rng(), k == 0 ? 0 : 1500);
    }

    // Stop: clients first, then the server; each finalizes and leaves by itself, or it hung.
    const uint64_t stopBy = NowMs() + 30000;
    for (size_t n = 1; n <= kids.size(); ++n) {
        const size_t k = n % kids.size();  // the server last
        g_shared->stop.store(k == 0 ? 2 : 1);
        int status = 0;
        while (kids[k] > 0 && waitpid(kids[k], &status, WNOHANG) == 0) {
            if (NowMs() > stopBy) kill(kids[k], SIGKILL);  // hung: its status says so
            SleepMs(20);
        }
        if (status != 0) fail("a process hung or failed at stop: " + std::to_string(status));
    }

    // What may stay: the admin FIFO, which is never removed, and the id counter's lock.
    if (GuidFiles(guid).size() > 1) fail("service entries left in /tmp");
    if (!sweepTool.empty() && (system(("'" + sweepTool + "' sweep --guid " + guid).c_str()) != 0 ||
                               !GuidFiles(guid).empty())) {
        fail("qvipc sweep failed or left service entries");
    }
    RemoveGuidFiles(guid);
    if (maxFds[0] > 40 + 4 * g_clients || maxFds[1] > 40) fail("descriptors grew");
    if (maxEntries > 1 + 4 * static_cast<uint64_t>(g_clients) + 8) fail("/tmp entries grew");

    std::atomic<uint64_t>* total = g_shared->totals;
    if (total[WRONG] != 0) fail("answers with other bytes or ids");
    if (total[ACCEPTED] == 0) fail("no message went through");
    if (!g_chaos && total[LOST] != 0) fail("responses lost");
    if (!g_chaos && last > base + base / 10 + 4096) fail("server memory grew");
    printf("%s: kills %" PRIu64 ", messages %" PRIu64 ", lost %" PRIu64
           "; max fds %d/%d, /tmp entries %" PRIu64 ", RSS %ld -> %ld KiB; failures %d\n",
           argv[1], kills, total[ACCEPTED].load(), total[LOST].load(), maxFds[0], maxFds[1],
           maxEntries, base, last, failures);
    return failures == 0 ? 0 : 1;
}
