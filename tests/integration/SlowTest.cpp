// Waits that take seconds by definition: the reconnect throttle and the bound on opening a FIFO.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

using SlowTest = EndpointTest;

// The test plays a full server on an admin FIFO of its own and counts the client's CONNECTs.
TEST_F(SlowTest, ReconnectActsAtMostOncePerTenSeconds) {
    const std::string admin = "/tmp/" + m_guid + "-svr-admin";
    ASSERT_EQ(0, mknod(admin.c_str(), S_IFIFO | 0666, 0));
    const int adminFd = open(admin.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_NE(-1, adminFd);
    auto client = MakeClient(m_guid);
    RequestLoop clientLoop(*client);  // keeps the read ends the reconnect command works through
    ASSERT_EQ(S_OK, client->initialize());
    auto refuseNext = [&](std::chrono::milliseconds deadline) {  // false when none came
        qvframe::RequestFrame rec;
        qvframe::RequestHeader h{};
        if (!WaitFor(
                [&] {
                    return read(adminFd, rec, sizeof rec) == sizeof rec &&
                           (h = qvframe::parseRequest(rec)).type == qvframe::TYPE_CONNECT;
                },
                deadline))
            return false;
        return WriteFifo("/tmp/" + m_guid + "-svr-rsp-" + std::to_string(h.connectId) + "-p" +
                             std::to_string(h.pid),
                         ResponseBytes(qvframe::TYPE_CONNECT, 0, QVIPC_E_TOO_MANY_CLIENTS, 0,
                                       static_cast<uint32_t>(getpid())));
    };
    ASSERT_TRUE(refuseNext(DEADLINE));
    ASSERT_TRUE(m_capture.wait("- stopping"));
    // The first "reconn" acts at once, later ones only after 10 seconds.
    const auto start = std::chrono::steady_clock::now();
    client->dump("reconn");
    ASSERT_TRUE(refuseNext(DEADLINE));
    ASSERT_TRUE(m_capture.wait("- stopping", 2));
    ASSERT_TRUE(WaitFor(
        [&] {
            client->dump("reconn");
            return refuseNext(std::chrono::milliseconds(200));
        },
        std::chrono::seconds(60)));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    client->finalize();
    close(adminFd);
}

TEST_F(SlowTest, ConnectOfAClientThatNeverOpensItsFifoGivesUpAfterTwentySeconds) {
    auto server = MakeServer(m_guid, 4);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server);
    RawClient raw(m_guid, 900007);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(raw.connectWithoutReader());
    ASSERT_TRUE(m_capture.wait("opening m_fdsSendResponse " + raw.path("svr-rsp")));
    // A client asking meanwhile gets slot 1 once the server has given up.
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    ASSERT_TRUE(serverLoop.waitConnections(1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(19));
    EXPECT_EQ(1ul, serverLoop.connections()[0]);
}

}  // namespace
