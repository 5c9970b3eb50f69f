// The integration programs' main; with --peer=<role>,<guid> this binary is a test's peer process.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/integration/ReadmeExample.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

int EchoServer(const std::string& guid) {
    auto server = MakeServer(guid, 8);
    if (server->initialize() != 0) return 3;
    RequestLoop loop(*server);
    for (;;) pause();
}

int BusyClient(const std::string& guid) {
    auto client = MakeClient(guid);
    for (int hr = client->initialize(); hr == 0;) {
        if (SendWhenConnected(*client, Pattern(100, 7)) == 0) ReceiveResponse(*client);
    }
    return 3;
}

// A server killed right after it read a CONNECT: 0 when the first admin record was one.
int SwallowConnect(const std::string& guid) {
    const std::string admin = "/tmp/" + guid + "-svr-admin";
    mknod(admin.c_str(), S_IFIFO | 0666, 0);
    const int fd = open(admin.c_str(), O_RDWR);
    qvframe::RequestFrame record;
    if (fd == -1 || !ReadFull(fd, record, sizeof record)) return 3;
    return qvframe::parseRequest(record).type == qvframe::TYPE_CONNECT ? 0 : 4;
}

// Connects and leaves main without finalize; a static, so a leak checker sees it reachable.
int ExitClient(const std::string& guid) {
    static CQVIPCLibrary* client = MakeClient(guid).release();
    if (client->initialize() != 0) return 3;
    return ReceiveRequest(*client).hr == QVIPC_E_NEW_CONNECTION ? 0 : 4;
}

}  // namespace

int main(int argc, char** argv) {
    return PeerMain(
        argc, argv,
        {{"server", EchoServer},
         {"client", BusyClient},
         {"swallow-connect", SwallowConnect},
         {"readme-server", [](const std::string& guid) { return readme::Server(guid), 0; }},
         {"exit-client", ExitClient}});
}
