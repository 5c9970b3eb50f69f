// One side of a mixed word-size exchange, run once as a server and once per client, each from
// a build of its own (x86-64 or i386): round trips in both directions with full header
// extensions and bodies from 0 B to 1 MiB, every byte checked. Prints "connect id N" (client)
// so that the caller can check that all processes drew from one counter.
//   mixed_peer server <guid> <clients>
//   mixed_peer client <guid>
// Exits 0 when every exchange matched, 1 on a mismatch or failure; an alarm bounds the run.
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "tests/support/IpcSupport.h"

namespace {

constexpr size_t SIZES[] = {0, 1, 47, 48, 4095, 4096, 65535, 65536, 65537, 300000, 1048576};
constexpr size_t SIZE_COUNT = sizeof SIZES / sizeof SIZES[0];
constexpr int TYPE_DATA = 5;
constexpr int TYPE_BYE = 9;

std::string Ext(uint32_t seed) { return qvtest::Pattern(48, seed ^ 0xE47u); }

using Got = qvtest::Received;

[[noreturn]] void Fail(const char* role, const char* what, unsigned long detail) {
    fprintf(stderr, "mixed_peer %s: %s (%lu)\n", role, what, detail);
    fflush(stderr);
    _exit(1);
}

// Sends one request of each size to ipcid and checks each answer; the caller is the only
// thread that receives responses on lib.
void Exchange(CQVIPCLibrary& lib, unsigned long ipcid, const char* role, uint32_t seed) {
    for (size_t i = 0; i < SIZE_COUNT; ++i) {
        const std::string body = qvtest::Pattern(SIZES[i], seed + static_cast<uint32_t>(i));
        const std::string ext = Ext(seed + static_cast<uint32_t>(i));
        unsigned long id = 0;
        const QVRESULT hr =
            lib.sendRequest(ipcid, body.data(), body.size(), &id, TYPE_DATA, ext.data());
        if (hr != 0) Fail(role, "sendRequest failed", hr);
        Got g = qvtest::ReceiveResponse(lib);
        // A server's response receiver also reports other slots (a client that has finished
        // and gone); only this slot's answers count here.
        while (g.ipcid != ipcid) g = qvtest::ReceiveResponse(lib);
        if (g.hr != 0) Fail(role, "receiveResponse failed", g.hr);
        if (g.id != id) Fail(role, "response id mismatch", g.id);
        if (g.body != qvtest::Flip(body)) Fail(role, "response body mismatch", SIZES[i]);
        if (g.ext != qvtest::Flip(ext)) Fail(role, "response extension mismatch", SIZES[i]);
    }
}

int RunServer(const std::string& guid, unsigned long clients) {
    CQVIPCLibrary lib("mixed", guid, 1, clients, 48, qvtest::NO_TIMEOUT);
    if (lib.initialize() != 0) Fail("server", "initialize failed", 0);
    std::mutex mutex;
    std::condition_variable cv;
    std::deque<unsigned long> fresh;
    unsigned long byes = 0;
    // New clients are questioned one after another from their own thread, as the request
    // thread must go on answering meanwhile.
    std::thread asker([&] {
        for (unsigned long served = 0; served < clients; ++served) {
            unsigned long slot;
            {
                std::unique_lock<std::mutex> lock(mutex);
                cv.wait(lock, [&] { return !fresh.empty(); });
                slot = fresh.front();
                fresh.pop_front();
            }
            Exchange(lib, slot, "server", 1000u + static_cast<uint32_t>(slot));
        }
    });
    // The server stays until every client has gone: a client whose request reader saw the
    // server leave could drop the answer to its goodbye while it reconnects.
    unsigned long gone = 0;
    while (byes < clients || gone < clients) {
        const Got g = qvtest::ReceiveRequest(lib);
        if (g.hr == QVIPC_E_NEW_CONNECTION) {
            std::lock_guard<std::mutex> lock(mutex);
            fresh.push_back(g.ipcid);
            cv.notify_one();
            continue;
        }
        // A client that has said goodbye and finalized shows as a disconnected slot.
        if (g.hr == QVIPC_E_DISCONNECTED || g.hr == QVIPC_E_READ) {
            ++gone;
            continue;
        }
        if (g.hr != 0) Fail("server", "receiveRequest failed", g.hr);
        if (g.type == TYPE_BYE) ++byes;
        if (qvtest::AnswerFlipped(lib, g) != 0) Fail("server", "sendResponse failed", g.ipcid);
    }
    asker.join();
    lib.finalize();
    printf("server ok\n");
    return 0;
}

int RunClient(const std::string& guid) {
    CQVIPCLibrary lib("mixed", guid, 0, 0, 48, qvtest::NO_TIMEOUT);
    if (lib.initialize() != 0) Fail("client", "initialize failed", 0);
    std::atomic<size_t> answered{0};
    std::atomic<bool> connected{false};
    std::atomic<bool> leaving{false};
    std::thread answerer([&] {
        for (;;) {
            const Got g = qvtest::ReceiveRequest(lib);
            if (g.hr == QVIPC_E_SHUTDOWN) break;
            if (g.hr == QVIPC_E_NEW_CONNECTION) {
                connected.store(true);
                continue;
            }
            if (g.hr != 0 && leaving.load()) continue;  // the server may be gone already
            if (g.hr != 0) Fail("client", "receiveRequest failed", g.hr);
            if (qvtest::AnswerFlipped(lib, g) != 0) Fail("client", "sendResponse failed", g.id);
            ++answered;
        }
    });
    // A send before the connect notification finds no pipe yet.
    while (!connected.load()) usleep(10000);
    Exchange(lib, 0, "client", static_cast<uint32_t>(getpid()));
    while (answered.load() < SIZE_COUNT) usleep(10000);
    leaving.store(true);
    unsigned long id = 0;
    if (lib.sendRequest(0, nullptr, 0, &id, TYPE_BYE, Ext(1).data()) != 0) {
        Fail("client", "bye failed", 0);
    }
    const Got g = qvtest::ReceiveResponse(lib);
    if (g.hr != 0 || g.id != id) Fail("client", "bye unanswered", g.hr);
    const long long connectId = qvtest::ClientConnectId(guid, getpid());
    lib.finalize();
    answerer.join();
    printf("connect id %lld\n", connectId);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    alarm(180);  // a hang ends the process with SIGALRM, which the caller sees as a failure
    if (argc == 4 && strcmp(argv[1], "server") == 0) {
        return RunServer(argv[2], strtoul(argv[3], nullptr, 10));
    }
    if (argc == 3 && strcmp(argv[1], "client") == 0) return RunClient(argv[2]);
    fprintf(stderr, "usage: mixed_peer server <guid> <clients> | client <guid>\n");
    return 2;
}
