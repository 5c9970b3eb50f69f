// Smoke check of the shared library: makes a server and a client endpoint of a fresh service,
// starts and stops both, and prints their connect ids and diagnostics. Exits 0 on success.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "json/JSONSerialize.h"

namespace {

std::string dumpOf(CQVIPCLibrary& endpoint) {
    JSON::Serialize w;
    endpoint.dumpToJSONBuffer(w);
    return w.String();
}

// The "connect-id" member of a dump, as text.
std::string connectIdOf(const std::string& dumpText) {
    const std::string key = "\"connect-id\":";
    const size_t at = dumpText.find(key);
    if (at == std::string::npos) return "?";
    const size_t start = at + key.size();
    const size_t end = dumpText.find(',', start);
    return dumpText.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

bool report(const char* what, QVRESULT hr) {
    std::printf("%-18s 0x%08X\n", what, static_cast<unsigned>(hr));
    return hr == S_OK;
}

}  // namespace

int main() {
    // A service of its own, so that its connect ids start at 1.
    const std::string guid = "qvipc-smoke-" + std::to_string(getpid()) + "-" +
                             std::to_string(static_cast<long long>(std::time(nullptr)));
    bool ok = true;
    try {
        CQVIPCLibrary server("smoke server", guid, 1, 4, 0, 5);
        CQVIPCLibrary client("smoke client", guid, 0, 0, 0, 5);
        std::printf("service            %s\n", guid.c_str());
        std::printf("server connect id  %s\n", connectIdOf(dumpOf(server)).c_str());
        std::printf("client connect id  %s\n", connectIdOf(dumpOf(client)).c_str());

        ok = report("server initialize", server.initialize()) && ok;
        ok = report("client initialize", client.initialize()) && ok;
        std::printf("server dump        %s\n", dumpOf(server).c_str());
        ok = report("client finalize", client.finalize()) && ok;
        ok = report("server finalize", server.finalize()) && ok;
    } catch (const LQException& e) {
        std::printf("constructor threw 0x%08lX at %s\n", static_cast<unsigned long>(e.code),
                    e.text);
        ok = false;
    }

    // The library keeps the admin FIFO and the id counter of a service on purpose; this one
    // was only for the check.
    unlink(("/tmp/" + guid + "-svr-admin").c_str());
    unlink(("/tmp/" + guid + "-IDGENMTX.lock").c_str());
    unlink(("/dev/shm/" + guid + "-IDGENSHMEM").c_str());
    std::printf("%s\n", ok ? "smoke passed" : "smoke FAILED");
    return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
