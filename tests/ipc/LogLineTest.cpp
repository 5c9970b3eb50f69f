// Lines operators search the log for, word for word.
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

TEST_F(LogLineTest, EachEventWritesItsLine) {
    // act, or a server reading the record admin, makes a fresh endpoint write line, where @
    // stands for the endpoint's address, % for its guid and # for the number act returns.
    const std::string error = "L/0/64 (Error) CQVIPCLibraryImpl::";
    const struct {
        int isServer;
        std::string line, admin;
        int (*act)(CQVIPCLibraryImpl&) = nullptr;
    } cases[] = {
        {1, error + "clearO_NONBLOCK (@), fcntl failed: fd #, errno 9 -1", "",
         [](CQVIPCLibraryImpl& impl) {
             const int fd = dup(0);
             close(fd);
             impl.clearO_NONBLOCK(fd);
             return fd;
         }},
        {0, error + "initialize, can't mknod fifo /tmp/%-svr-admin, errno 17", "",
         [](CQVIPCLibraryImpl& impl) {
             close(open(impl.pipenameServerAdmin().c_str(), O_WRONLY | O_CREAT, 0666));
             impl.initialize();
             return 0;
         }},
        {1, error + "receiveRequestOnAdminPipe (@), read failed 0", std::string(10, 'x')},
        {1, error + "receiveRequestOnAdminPipe (@) - invalid request", Record(100, 0, 0)},
    };
    for (const auto& c : cases) {
        m_moreGuids.push_back(TestGuid());
        CQVIPCLibraryImpl impl("Title", m_moreGuids.back(), c.isServer, 4, 0, NO_TIMEOUT);
        char addr[16];
        snprintf(addr, sizeof addr, "0x%08X",
                 static_cast<unsigned>(reinterpret_cast<uintptr_t>(&impl)));
        const std::string number = c.act != nullptr ? std::to_string(c.act(impl)) : "";
        unsigned long slot = 0;
        if (!c.admin.empty()) {
            EXPECT_EQ(S_OK, impl.initialize());
            EXPECT_TRUE(WriteAdmin(impl.m_strGuid, c.admin));
            impl.receiveRequestOnAdminPipe(&slot);
        }
        const std::string marks = "@%#", values[] = {addr, m_moreGuids.back(), number};
        std::string line = c.line;
        for (size_t at; (at = line.find_first_of(marks)) != std::string::npos;) {
            line.replace(at, 1, values[marks.find(line[at])]);
        }
        const std::vector<std::string> lines = m_capture.lines();
        EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), line)) << line;
        impl.finalize();
    }
}

// The wake-up record that freeing a slot sends is never taken for garbage.
TEST_F(LogLineTest, FreeingTheSlotOfAClientThatWentAwayWritesNoInvalidRequest) {
    ConnectedPair pair(m_guid, 4);
    ASSERT_TRUE(pair.ok);
    {
        RawClient raw(m_guid, 900001);
        ASSERT_EQ(0u, raw.connect());
        ASSERT_TRUE(pair.serverLoop->waitConnections(2));
    }
    ASSERT_TRUE(pair.serverLoop->waitResult(QVIPC_E_DISCONNECTED, 1, 2));
    ASSERT_TRUE(WaitFifoDrained("/tmp/" + m_guid + "-svr-admin"));
    ExpectRoundTrip(*pair.client, "still served");
    EXPECT_EQ(0u, m_capture.count("invalid request"));
}

}  // namespace
