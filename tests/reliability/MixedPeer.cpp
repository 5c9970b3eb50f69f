// One side of a mixed word-size exchange, each process from a build of its own (x86-64, i386):
// round trips both ways with full extensions and bodies of 0 B to 1 MiB, every byte checked.
//   mixed_peer server <guid> <clients> | mixed_peer client <guid> (prints "connect id N")
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

constexpr size_t SIZES[] = {0, 1, 47, 48, 4095, 4096, 65535, 65536, 65537, 300000, 1048576};

const char* g_role = "";

[[noreturn]] void Fail(const char* what, unsigned long detail) {
    fprintf(stderr, "mixed_peer %s: %s (%lu)\n", g_role, what, detail);
    _exit(1);
}

// One request of each size to ipcid, each answer checked: the server flips, a client echoes.
void Exchange(CQVIPCLibrary& lib, unsigned long ipcid, uint32_t seed) {
    const bool flipped = g_role[0] == 'c';
    for (const size_t size : SIZES) {
        const uint32_t n = seed++;
        const std::string body = Pattern(size, n), ext = Pattern(48, n ^ 0xE47u);
        unsigned long id = 0;
        const QVRESULT hr = lib.sendRequest(ipcid, body.data(), body.size(), &id, 1, ext.data());
        Received g;  // skipping news of another client
        while (hr == 0 && (g = ReceiveResponse(lib)).ipcid != ipcid) continue;
        if (hr != 0 || g.hr != 0 || g.id != id) Fail("round trip failed", hr != 0 ? hr : g.hr);
        if (g.body != (flipped ? Flip(body) : body) || g.ext != (flipped ? Flip(ext) : ext)) {
            Fail("answer mismatch", size);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    alarm(180);  // a hang ends in SIGALRM, which the caller sees as a failure
    const bool server = argc == 4 && strcmp(argv[1], "server") == 0;
    if (!server && (argc != 3 || strcmp(argv[1], "client") != 0)) {
        fprintf(stderr, "usage: mixed_peer server <guid> <clients> | client <guid>\n");
        return 2;
    }
    g_role = argv[1];
    const unsigned long clients = server ? strtoul(argv[3], nullptr, 10) : 0;
    CQVIPCLibrary lib("mixed", argv[2], server, clients, 48, NO_TIMEOUT);
    if (lib.initialize() != 0) Fail("initialize failed", 0);
    // A server stays until every client has gone; requests wait while a new client is asked all.
    for (unsigned long gone = 0; server && gone < clients;) {
        const Received g = ReceiveRequest(lib);
        if (g.hr == QVIPC_E_NEW_CONNECTION) {
            Exchange(lib, g.ipcid, 1000u + static_cast<uint32_t>(g.ipcid));
        } else if (g.hr == QVIPC_E_DISCONNECTED || g.hr == QVIPC_E_READ) {
            ++gone;
        } else if (g.hr != 0 || AnswerFlipped(lib, g) != 0) {
            Fail("request failed", g.hr);
        }
    }
    if (server) return 0;   // its destructor finalizes
    RequestLoop loop(lib);  // echoes the server's requests
    loop.waitConnections(1);
    Exchange(lib, 0, static_cast<uint32_t>(getpid()));
    if (!loop.waitResult(0, std::size(SIZES))) Fail("not asked everything", loop.count(0));
    printf("connect id %lld\n", ClientConnectId(argv[2], getpid()));
    return 0;
}
