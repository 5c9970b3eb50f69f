// Soak: 63 client processes against one server for a while, each doing round trips as fast as
// it can with bodies of 0 to 4 KiB.
//   soak [--seconds N] [--clients N]
// Passes (exit 0) when no response was lost (each comes within the wait), none came twice or
// with other bytes, the server's resident memory stayed flat (sampled every second; the last
// sample within 10% + 4 MiB of the one taken after warm-up), and every client's round-trip
// count is within 2x of the median. Prints one line of figures.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "tests/reliability/ReliabilitySupport.h"

namespace {

constexpr int MAX_CLIENTS = 63;
constexpr int TYPE_DATA = 5;
constexpr uint64_t ANSWER_WAIT_MS = 20000;

struct ClientCounters {
    std::atomic<uint64_t> roundTrips{0};
    std::atomic<uint64_t> lost{0};
    std::atomic<uint64_t> duplicates{0};
    std::atomic<uint64_t> mismatches{0};
    std::atomic<int> connected{0};
    std::atomic<int> done{0};
};

struct Shared {
    std::atomic<int> go{0};
    std::atomic<int> stop{0};
    ClientCounters clients[MAX_CLIENTS];
};

Shared* g_shared = nullptr;

int RunServer(const std::string& guid, int clients) {
    CQVIPCLibrary lib("soak", guid, 1, static_cast<unsigned long>(clients), rel::EXT_SIZE,
                      rel::NO_TIMEOUT);
    if (lib.initialize() != 0) return 3;
    std::thread stopper([&] {
        while (g_shared->stop.load() < 2)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        lib.finalize();
    });
    for (;;) {
        const rel::Got g = rel::ReceiveRequest(lib);
        if (g.hr == QVIPC_E_SHUTDOWN) break;
        if (g.hr == 0 && g.type == TYPE_DATA) rel::AnswerRequest(lib, g);
    }
    stopper.join();
    return 0;
}

int RunClient(const std::string& guid, int index) {
    ClientCounters& c = g_shared->clients[index];
    CQVIPCLibrary lib("soak", guid, 0, 0, rel::EXT_SIZE, rel::NO_TIMEOUT);
    if (lib.initialize() != 0) return 3;
    std::thread requests([&] {
        for (;;) {
            const rel::Got g = rel::ReceiveRequest(lib);
            if (g.hr == QVIPC_E_SHUTDOWN) break;
            if (g.hr == QVIPC_E_NEW_CONNECTION) c.connected.store(1);
        }
    });
    while (c.connected.load() == 0 || g_shared->go.load() == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::mt19937 rng(static_cast<uint32_t>(index) * 7919u + 1u);
    std::set<unsigned long> answered;
    while (g_shared->stop.load() == 0) {
        const std::string body = rel::Pattern(rng() % 4097, rng());
        const std::string ext = rel::Pattern(rel::EXT_SIZE, rng());
        unsigned long id = 0;
        if (lib.sendRequest(0, body.data(), body.size(), &id, TYPE_DATA, ext.data()) != 0) {
            ++c.lost;
            break;
        }
        // One request at a time: the next response must be this one's; an id seen before is
        // a duplicate, any other id or other bytes a mismatch.
        const rel::Got g = rel::ReceiveResponse(lib);
        if (g.hr != 0) {
            ++c.lost;
            break;
        }
        if (answered.count(g.id) != 0) {
            ++c.duplicates;
        } else if (g.id != id || g.body != rel::Answer(body) || g.ext != rel::Answer(ext)) {
            ++c.mismatches;
        } else {
            ++c.roundTrips;
        }
        answered.insert(g.id);
    }
    c.done.store(1);
    lib.finalize();
    requests.join();
    return 0;
}

pid_t Spawn(const std::string& guid, int index, int clients) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    alarm(900);  // a child that outlives any run by far ends itself
    _exit(index < 0 ? RunServer(guid, clients) : RunClient(guid, index));
}

}  // namespace

int main(int argc, char** argv) {
    int seconds = 20;
    int clients = MAX_CLIENTS;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--seconds") == 0) seconds = atoi(argv[i + 1]);
        if (strcmp(argv[i], "--clients") == 0) clients = atoi(argv[i + 1]);
    }
    if (clients < 1 || clients > MAX_CLIENTS || seconds < 2) {
        fprintf(stderr, "usage: soak [--seconds N>=2] [--clients 1..63]\n");
        return 2;
    }
    void* mem =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) return 2;
    g_shared = new (mem) Shared();
    const std::string guid = "qvsoak-" + std::to_string(getpid());
    int failures = 0;
    auto fail = [&](const std::string& what) {
        ++failures;
        fprintf(stderr, "soak: FAIL %s\n", what.c_str());
    };

    const pid_t server = Spawn(guid, -1, clients);
    std::vector<pid_t> kids;
    for (int i = 0; i < clients; ++i) kids.push_back(Spawn(guid, i, clients));

    // All connected first (a bound, then a failure), so that every client runs the same time.
    const uint64_t connectBy = rel::NowMs() + 60000;
    for (;;) {
        int n = 0;
        for (int i = 0; i < clients; ++i) n += g_shared->clients[i].connected.load();
        if (n == clients) break;
        if (rel::NowMs() > connectBy) {
            fail(std::to_string(clients - n) + " clients never connected");
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    g_shared->go.store(1);
    const uint64_t start = rel::NowMs();
    std::vector<long> rss;
    while (rel::NowMs() < start + static_cast<uint64_t>(seconds) * 1000) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        rss.push_back(rel::ResidentKiB(server));
    }
    g_shared->stop.store(1);

    // Clients leave first (each after its last answer), then the server.
    const uint64_t stopBy = rel::NowMs() + ANSWER_WAIT_MS + 10000;
    for (pid_t& k : kids) {
        for (;;) {
            int status = 0;
            if (waitpid(k, &status, WNOHANG) == k) {
                if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
                    fail("a client ended with status " + std::to_string(status));
                }
                break;
            }
            if (rel::NowMs() > stopBy) {
                fail("a client hung (an answer never came)");
                kill(k, SIGKILL);
                waitpid(k, nullptr, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    g_shared->stop.store(2);
    int status = 0;
    waitpid(server, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) fail("server ended badly");
    rel::RemoveGuidFiles(guid);

    std::vector<uint64_t> counts;
    uint64_t total = 0, lost = 0, dups = 0, mismatches = 0;
    for (int i = 0; i < clients; ++i) {
        const ClientCounters& c = g_shared->clients[i];
        counts.push_back(c.roundTrips.load());
        total += c.roundTrips.load();
        lost += c.lost.load();
        dups += c.duplicates.load();
        mismatches += c.mismatches.load();
    }
    std::vector<uint64_t> sorted(counts);
    std::sort(sorted.begin(), sorted.end());
    const uint64_t median = sorted[sorted.size() / 2];
    if (lost != 0) fail(std::to_string(lost) + " responses lost");
    if (dups != 0) fail(std::to_string(dups) + " responses came twice");
    if (mismatches != 0) fail(std::to_string(mismatches) + " responses did not match");
    if (sorted.front() * 2 < median || sorted.back() > median * 2) {
        fail("unfair: round trips from " + std::to_string(sorted.front()) + " to " +
             std::to_string(sorted.back()) + ", median " + std::to_string(median));
    }
    // The first quarter of the run is warm-up (buffers grow to their working size).
    const long base = rss.empty() ? 0 : rss[rss.size() / 4];
    const long last = rss.empty() ? 0 : rss.back();
    const long peak = rss.empty() ? 0 : *std::max_element(rss.begin(), rss.end());
    if (last > base + base / 10 + 4096) {
        fail("server memory grew from " + std::to_string(base) + " to " + std::to_string(last) +
             " KiB");
    }
    printf(
        "soak: %d clients, %d s, round trips %llu (per client min %llu, median %llu, max %llu), "
        "lost %llu, duplicates %llu, mismatches %llu, server RSS %ld -> %ld KiB (peak %ld), "
        "failures %d\n",
        clients, seconds, static_cast<unsigned long long>(total),
        static_cast<unsigned long long>(sorted.front()), static_cast<unsigned long long>(median),
        static_cast<unsigned long long>(sorted.back()), static_cast<unsigned long long>(lost),
        static_cast<unsigned long long>(dups), static_cast<unsigned long long>(mismatches), base,
        last, peak, failures);
    return failures == 0 ? 0 : 1;
}
