// The two waits of the design that take seconds by definition: the 10-second reconnect
// throttle and the 20-second bound on opening a client's FIFO. Labelled slow.
#include <gtest/gtest.h>

#include <chrono>

#include "QVIPC/QVIPCLibrary/QVIPCErrors.h"
#include "tests/integration/IntegrationSupport.h"
#include "tests/support/TestSupport.h"

using namespace itest;

namespace {

class SlowTest : public ::testing::Test {
protected:
    void SetUp() override { m_guid = qvtest::TestGuid(); }
    void TearDown() override { qvtest::RemoveGuidFiles(m_guid); }

    ipctest::LineCapture m_capture;
    std::string m_guid;
};

TEST_F(SlowTest, ReconnectActsAtMostOncePerTenSeconds) {
    // A server for one client; the second client is refused and its connect thread ends.
    ConnectedPair pair(m_guid, 1, 48, true);
    ASSERT_TRUE(pair.ok);
    auto refused = MakeClient(m_guid);
    // Its request reader keeps the read ends, through which the reconnect command reaches it:
    // the reader is inside its call before the connect thread exists, whatever the scheduling.
    RequestLoop refusedLoop(*refused, 48, true);
    ASSERT_EQ(S_OK, refused->initialize());
    const std::string addr = AddressOf(m_capture, m_guid, 0, true);
    const std::string tooMany = "L/0/64 (Error) CQVIPCLibraryImpl::connectThreadFunc (" + addr +
                                "), server has too many clients";
    const std::string stopping =
        "L/0/2 CQVIPCLibraryImpl::connectThreadFunc (" + addr + ") - stopping";
    ASSERT_TRUE(WaitLine(m_capture, stopping, 1));
    EXPECT_EQ(1u, CountLines(m_capture, tooMany));

    // The reconnect command acts at once: the slot was never throttled.
    const auto start = std::chrono::steady_clock::now();
    refused->dump("reconn");
    ASSERT_TRUE(WaitLine(m_capture, stopping, 2));
    EXPECT_EQ(2u, CountLines(m_capture, tooMany));

    // Sooner than 10 seconds later it only traces.
    const std::string tooSoon =
        "T/16/2 CQVIPCLibraryImpl::enableClientReconnect - too soon since previous connect "
        "attempt.  id 1";
    refused->dump("reconn");
    EXPECT_EQ(1u, CountLines(m_capture, tooSoon));

    // Asked again and again, it acts once more only when the 10 seconds are over.
    ASSERT_TRUE(qvtest::WaitFor(
        [&] {
            if (CountLines(m_capture, stopping) >= 3) return true;
            refused->dump("reconn");
            return CountLines(m_capture, stopping) >= 3;
        },
        std::chrono::seconds(60)));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(3u, CountLines(m_capture, tooMany));
    refused->finalize();
}

TEST_F(SlowTest, ConnectOfAClientThatNeverOpensItsFifoGivesUpAfterTwentySeconds) {
    auto server = MakeServer(m_guid, 4);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server, 48, true);
    RawClient raw(m_guid, 900007);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(raw.connectWithoutReader());
    ASSERT_TRUE(WaitLine(m_capture,
                         "T/16/2 CQVIPCLibraryImpl::receiveRequestOnAdminPipe, opening "
                         "m_fdsSendResponse /tmp/" +
                             m_guid + "-svr-rsp-900007-p" + std::to_string(getpid())));
    // A real client asks meanwhile; it is admitted once the server has given up.
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    ASSERT_TRUE(serverLoop.waitConnections(1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(19));
    EXPECT_EQ(1ul, serverLoop.connections()[0]);  // the abandoned connect left slot 1 free
    client->finalize();
    server->finalize();
}

}  // namespace
