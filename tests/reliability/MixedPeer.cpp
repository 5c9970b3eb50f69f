// One side of a mixed word-size exchange, each process from a build of its own (x86-64, i386):
// round trips both ways with full extensions and bodies of 0 B to 1 MiB, every byte checked.
//   mixed_peer server <guid> <clients> | mixed_peer client <guid> (prints "connect id N")
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

constexpr size_t SIZES[] = {0, 1, 47, 48, 4095, 4096, 65535, 65536, 65537, 300000, 1048576};
constexpr size_t SIZE_COUNT = sizeof SIZES / sizeof SIZES[0];
constexpr int TYPE_DATA = 5;
constexpr int TYPE_BYE = 9;

[[noreturn]] void Fail(const char* role, const char* what, unsigned long detail) {
    fprintf(stderr, "mixed_peer %s: %s (%lu)\n", role, what, detail);
    fflush(stderr);
    _exit(1);
}

// One request of each size to ipcid, each answer checked; the caller alone takes responses.
void Exchange(CQVIPCLibrary& lib, unsigned long ipcid, const char* role, uint32_t seed) {
    for (size_t i = 0; i < SIZE_COUNT; ++i) {
        const uint32_t n = seed + static_cast<uint32_t>(i);
        const std::string body = Pattern(SIZES[i], n), ext = Pattern(48, n ^ 0xE47u);
        unsigned long id = 0;
        const QVRESULT hr =
            lib.sendRequest(ipcid, body.data(), body.size(), &id, TYPE_DATA, ext.data());
        if (hr != 0) Fail(role, "sendRequest failed", hr);
        // A server also hears of other slots (a client that finished and went).
        Received g = ReceiveResponse(lib);
        while (g.ipcid != ipcid) g = ReceiveResponse(lib);
        if (g.hr != 0 || g.id != id) Fail(role, "receiveResponse failed", g.hr);
        if (g.body != Flip(body) || g.ext != Flip(ext)) Fail(role, "answer mismatch", SIZES[i]);
    }
}

int RunServer(const std::string& guid, unsigned long clients) {
    CQVIPCLibrary lib("mixed", guid, 1, clients, 48, NO_TIMEOUT);
    if (lib.initialize() != 0) Fail("server", "initialize failed", 0);
    // Stay until every client has gone: one that saw the server leave could drop the answer to
    // its goodbye while it reconnects. Requests wait while a new client is asked everything.
    for (unsigned long byes = 0, gone = 0; byes < clients || gone < clients;) {
        const Received g = ReceiveRequest(lib);
        if (g.hr == QVIPC_E_NEW_CONNECTION) {
            Exchange(lib, g.ipcid, "server", 1000u + static_cast<uint32_t>(g.ipcid));
        } else if (g.hr == QVIPC_E_DISCONNECTED || g.hr == QVIPC_E_READ) {
            ++gone;
        } else if (g.hr != 0 || AnswerFlipped(lib, g) != 0) {
            Fail("server", "request failed", g.hr);
        } else {
            byes += g.type == TYPE_BYE ? 1 : 0;
        }
    }
    lib.finalize();
    printf("server ok\n");
    return 0;
}

int RunClient(const std::string& guid) {
    CQVIPCLibrary lib("mixed", guid, 0, 0, 48, NO_TIMEOUT);
    if (lib.initialize() != 0) Fail("client", "initialize failed", 0);
    std::atomic<size_t> answered{0};
    std::atomic<bool> connected{false}, leaving{false};
    std::thread answerer([&] {
        for (Received g; (g = ReceiveRequest(lib)).hr != QVIPC_E_SHUTDOWN;) {
            if (g.hr == QVIPC_E_NEW_CONNECTION) {
                connected.store(true);
            } else if (g.hr == 0 && AnswerFlipped(lib, g) == 0) {
                ++answered;
            } else if (!leaving.load()) {  // once leaving, the server may be gone already
                Fail("client", "request failed", g.hr);
            }
        }
    });
    WaitFor([&] { return connected.load(); }, DEADLINE);  // before it, there is no pipe yet
    Exchange(lib, 0, "client", static_cast<uint32_t>(getpid()));
    if (!WaitFor([&] { return answered.load() >= SIZE_COUNT; }, DEADLINE)) {
        Fail("client", "not asked everything", answered.load());
    }
    leaving.store(true);
    unsigned long id = 0;
    const std::string ext(48, 'b');
    if (lib.sendRequest(0, nullptr, 0, &id, TYPE_BYE, ext.data()) != 0) Fail("client", "bye", 0);
    const Received g = ReceiveResponse(lib);
    if (g.hr != 0 || g.id != id) Fail("client", "bye unanswered", g.hr);
    const long long connectId = ClientConnectId(guid, getpid());
    lib.finalize();
    answerer.join();
    printf("connect id %lld\n", connectId);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    alarm(180);  // a hang ends in SIGALRM, which the caller sees as a failure
    if (argc == 4 && strcmp(argv[1], "server") == 0) {
        return RunServer(argv[2], strtoul(argv[3], nullptr, 10));
    }
    if (argc == 3 && strcmp(argv[1], "client") == 0) return RunClient(argv[2]);
    fprintf(stderr, "usage: mixed_peer server <guid> <clients> | client <guid>\n");
    return 2;
}
