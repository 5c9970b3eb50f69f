// The lines an endpoint writes, word for word, one case each: operators search the log for
// them. Everywhere else a line is at most a point to wait for.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>

#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

using LogLineTest = EndpointTest;

TEST_F(LogLineTest, EachEventWritesItsLine) {
    struct Case {
        int isServer;
        // Acts on a fresh endpoint of guid whose address text is addr; returns the line.
        std::function<std::string(CQVIPCLibraryImpl&, const std::string&, const std::string&)> act;
    };
    unsigned long slot = 0;
    const auto adminRecord = [&](CQVIPCLibraryImpl& impl, const std::string& bytes) {
        EXPECT_EQ(S_OK, impl.initialize());
        EXPECT_TRUE(WriteAdmin(impl.m_strGuid, bytes));
        impl.receiveRequestOnAdminPipe(&slot);
    };
    const Case cases[] = {
        {1,
         [](CQVIPCLibraryImpl&, const std::string& addr, const std::string& guid) {
             return "T/16/2 CQVIPCLibraryImpl::CQVIPCLibraryImpl (" + addr + "), guid " + guid +
                    ", isServer 1, sto -1";
         }},
        {0,
         [](CQVIPCLibraryImpl& impl, const std::string&, const std::string&) {
             impl.dump("x");
             return std::string("L/0/2 --dumpIPC \"x\" - \"Title\"");
         }},
        {1,
         [](CQVIPCLibraryImpl& impl, const std::string&, const std::string&) {
             int fds[2];
             EXPECT_EQ(0, pipe(fds));
             impl.m_slotPid[1] = 1000;
             impl.m_fdsSendRequest[1] = fds[1];
             impl.m_fdsRecvResponse[1] = fds[0];
             impl.dump("reconn");
             return std::string("L/0/2 --dumpIPC, calling enableClientReconnect(1)");
         }},
        {1,
         [](CQVIPCLibraryImpl& impl, const std::string& addr, const std::string&) {
             int fds[2];
             EXPECT_EQ(0, pipe(fds));
             close(fds[0]);
             close(fds[1]);
             impl.clearO_NONBLOCK(fds[0]);
             return "L/0/64 (Error) CQVIPCLibraryImpl::clearO_NONBLOCK (" + addr +
                    "), fcntl failed: fd " + std::to_string(fds[0]) + ", errno 9 -1";
         }},
        {0,
         [](CQVIPCLibraryImpl& impl, const std::string&, const std::string& guid) {
             close(open(("/tmp/" + guid + "-svr-admin").c_str(), O_WRONLY | O_CREAT, 0666));
             impl.initialize();
             return "L/0/64 (Error) CQVIPCLibraryImpl::initialize, can't mknod fifo /tmp/" + guid +
                    "-svr-admin, errno 17";
         }},
        {1,
         [&](CQVIPCLibraryImpl& impl, const std::string& addr, const std::string&) {
             adminRecord(impl, std::string(10, 'x'));
             return "L/0/64 (Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (" + addr +
                    "), read failed 0";
         }},
        {1,
         [&](CQVIPCLibraryImpl& impl, const std::string& addr, const std::string&) {
             adminRecord(impl, Record(100, 0, 0));
             return "L/0/64 (Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (" + addr +
                    ") - invalid request";
         }},
    };
    for (const Case& c : cases) {
        m_moreGuids.push_back(TestGuid());
        const std::string& guid = m_moreGuids.back();
        CQVIPCLibraryImpl impl("Title", guid, c.isServer, 4, 0, NO_TIMEOUT);
        char addr[16];
        snprintf(addr, sizeof addr, "0x%08X",
                 static_cast<unsigned>(reinterpret_cast<uintptr_t>(&impl)));
        const std::string line = c.act(impl, addr, guid);
        const std::vector<std::string> lines = m_capture.lines();
        EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), line)) << line;
        impl.finalize();
    }
}

}  // namespace
