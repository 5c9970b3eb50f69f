// The lines an endpoint writes, word for word, one case each: operators search the log for
// them. Everywhere else a line is at most a point to wait for.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

using LogLineTest = EndpointTest;

void AdminRecord(CQVIPCLibraryImpl& impl, const std::string& bytes) {
    unsigned long slot = 0;
    EXPECT_EQ(S_OK, impl.initialize());
    EXPECT_TRUE(WriteAdmin(impl.m_strGuid, bytes));
    impl.receiveRequestOnAdminPipe(&slot);
}

TEST_F(LogLineTest, EachEventWritesItsLine) {
    // act makes a fresh endpoint write the line it returns, with @ for the endpoint's address
    // and % for its guid.
    const struct {
        int isServer;
        std::string (*act)(CQVIPCLibraryImpl&);
    } cases[] = {
        {1,
         [](CQVIPCLibraryImpl&) -> std::string {
             return "T/16/2 CQVIPCLibraryImpl::CQVIPCLibraryImpl (@), guid %, isServer 1, sto -1";
         }},
        {0,
         [](CQVIPCLibraryImpl& impl) -> std::string {
             impl.dump("x");
             return "L/0/2 --dumpIPC \"x\" - \"Title\"";
         }},
        {1,
         [](CQVIPCLibraryImpl& impl) -> std::string {
             int fds[2];
             EXPECT_EQ(0, pipe(fds));
             impl.m_slotPid[1] = 1000;
             impl.m_fdsSendRequest[1] = fds[1];
             impl.m_fdsRecvResponse[1] = fds[0];
             impl.dump("reconn");
             return "L/0/2 --dumpIPC, calling enableClientReconnect(1)";
         }},
        {1,
         [](CQVIPCLibraryImpl& impl) -> std::string {
             const int fd = dup(0);
             close(fd);
             impl.clearO_NONBLOCK(fd);
             return "L/0/64 (Error) CQVIPCLibraryImpl::clearO_NONBLOCK (@), fcntl failed: fd " +
                    std::to_string(fd) + ", errno 9 -1";
         }},
        {0,
         [](CQVIPCLibraryImpl& impl) -> std::string {
             close(open(impl.pipenameServerAdmin().c_str(), O_WRONLY | O_CREAT, 0666));
             impl.initialize();
             return "L/0/64 (Error) CQVIPCLibraryImpl::initialize, can't mknod fifo "
                    "/tmp/%-svr-admin, errno 17";
         }},
        {1,
         [](CQVIPCLibraryImpl& impl) -> std::string {
             AdminRecord(impl, std::string(10, 'x'));
             return "L/0/64 (Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (@), read failed "
                    "0";
         }},
        {1,
         [](CQVIPCLibraryImpl& impl) -> std::string {
             AdminRecord(impl, Record(100, 0, 0));
             return "L/0/64 (Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (@) - invalid "
                    "request";
         }},
    };
    for (const auto& c : cases) {
        m_moreGuids.push_back(TestGuid());
        CQVIPCLibraryImpl impl("Title", m_moreGuids.back(), c.isServer, 4, 0, NO_TIMEOUT);
        char addr[16];
        snprintf(addr, sizeof addr, "0x%08X",
                 static_cast<unsigned>(reinterpret_cast<uintptr_t>(&impl)));
        std::string line = c.act(impl);
        for (size_t at; (at = line.find_first_of("@%")) != std::string::npos;) {
            line.replace(at, 1, line[at] == '@' ? addr : m_moreGuids.back());
        }
        const std::vector<std::string> lines = m_capture.lines();
        EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), line)) << line;
        impl.finalize();
    }
}

}  // namespace
