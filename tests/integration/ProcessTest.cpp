// Deaths and restarts need processes: this binary runs again as a peer (--peer=...), is killed
// with SIGKILL, and is started again. Children are killed and reaped whatever happens.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "QVIPC/QVIPCLibrary/QVIPCErrors.h"
#include "tests/integration/IntegrationSupport.h"
#include "tests/integration/ReadmeExample.h"
#include "tests/support/TestSupport.h"

using namespace itest;

namespace {

class ProcessTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_guid = qvtest::TestGuid();
        m_fdsBefore = qvtest::CountOpenFds();
    }
    void TearDown() override {
        m_peers.clear();  // kills and reaps
        qvtest::RemoveGuidFiles(m_guid);
    }

    Peer& startPeer(const std::string& role) {
        m_peers.emplace_back(new Peer(role, m_guid));
        return *m_peers.back();
    }

    ipctest::LineCapture m_capture;
    std::string m_guid;
    int m_fdsBefore = 0;
    std::vector<std::unique_ptr<Peer>> m_peers;
};

TEST_F(ProcessTest, ClientSurvivesItsServersRestart) {
    {
        auto client = MakeClient(m_guid);
        ASSERT_EQ(S_OK, client->initialize());
        RequestLoop clientLoop(*client, 48, true);
        startPeer("server");
        ASSERT_TRUE(clientLoop.waitConnections(1));
        ExpectRoundTrip(*client, "before");

        m_peers.back()->kill();
        ASSERT_TRUE(clientLoop.waitResult(QVIPC_E_DISCONNECTED, 1));
        const std::string addr = AddressOf(m_capture, m_guid, 0);
        EXPECT_EQ(1u, CountLines(m_capture,
                                 "L/0/64 (Error) CQVIPCLibraryImpl::receiveRequestOnClientPipe (" +
                                     addr + "), client disconnected"));

        startPeer("server");
        ASSERT_TRUE(clientLoop.waitConnections(2));
        ExpectRoundTrip(*client, "after");
        EXPECT_EQ(2u, CountLines(m_capture, "L/0/2 CQVIPCLibraryImpl::connectThreadFunc (" + addr +
                                                ") - starting"));
        // The response FIFO made anew for the reconnect has had no writer yet; that is no
        // disconnect, whatever the old FIFO delivered before.
        EXPECT_EQ(0u, CountLines(m_capture,
                                 "L/0/64 (Error) CQVIPCLibraryImpl::receiveResponseOnClientPipe (" +
                                     addr + "), client disconnected, id 1"));
        client->finalize();
    }
    EXPECT_EQ(m_fdsBefore, qvtest::CountOpenFds());
}

// A server that took the CONNECT and died before it opened the reply FIFO never answers; the
// client must give that attempt up and connect to the next server.
TEST_F(ProcessTest, ClientConnectsAfterItsServerDiedWithTheConnectUnanswered) {
    Peer& swallower = startPeer("swallow-connect");
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    RequestLoop clientLoop(*client, 48, false);
    EXPECT_EQ(0, swallower.wait());
    // The client looks for a server again (the line serves as a synchronisation point only).
    const std::string lookingAgain =
        "T/16/64 (Error) CQVIPCLibraryImpl::connectThreadFunc, can't open fdSendAdmin /tmp/" +
        m_guid + "-svr-admin, errno 6";
    ASSERT_TRUE(WaitLine(m_capture, lookingAgain, CountLines(m_capture, lookingAgain) + 1));
    auto server = MakeServer(m_guid, 4);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server, 48, true);
    ASSERT_TRUE(clientLoop.waitConnections(1));
    ExpectRoundTrip(*client, "answered");
}

// The API example that README.md shows, built from the document: its client half, here, talks
// to its server half in another process.
TEST_F(ProcessTest, ReadmeExampleRuns) {
    startPeer("readme-server");
    // Shared with the client thread, which is left behind should it never return.
    auto result = std::make_shared<std::atomic<QVRESULT>>(~0u);
    std::thread client([guid = m_guid, result] { result->store(readme::Client(guid)); });
    if (!qvtest::WaitFor([&] { return result->load() != ~0u; }, DEADLINE)) {
        client.detach();
        FAIL() << "the example's client did not finish";
    }
    client.join();
    EXPECT_EQ(S_OK, result->load());
}

TEST_F(ProcessTest, ServerFreesTheSlotOfAKilledClientAndServesTheOthers) {
    {
        auto server = MakeServer(m_guid, 4);
        ASSERT_EQ(S_OK, server->initialize());
        RequestLoop serverLoop(*server, 48, true);
        auto client = MakeClient(m_guid);
        ASSERT_EQ(S_OK, client->initialize());
        ASSERT_TRUE(serverLoop.waitConnections(1));
        ExpectRoundTrip(*client, "first");

        // The peer sends requests without pause; it dies in the middle of that conversation.
        Peer& peer = startPeer("client");
        ASSERT_TRUE(serverLoop.waitConnections(2));
        const unsigned long peerSlot = serverLoop.connections()[1];
        ASSERT_TRUE(qvtest::WaitFor(
            [&] {
                size_t n = 0;
                for (const Received& r : serverLoop.results()) {
                    n += r.hr == S_OK && r.ipcid == peerSlot ? 1 : 0;
                }
                return n >= 20;
            },
            DEADLINE));
        peer.kill();
        ASSERT_TRUE(qvtest::WaitFor(
            [&] {
                for (const Received& r : serverLoop.results()) {
                    if (r.ipcid == peerSlot &&
                        (r.hr == QVIPC_E_DISCONNECTED || r.hr == QVIPC_E_READ)) {
                        return true;
                    }
                }
                return false;
            },
            DEADLINE));
        ExpectRoundTrip(*client, "still served");

        // The slot is free again: the next client takes it.
        auto next = MakeClient(m_guid);
        ASSERT_EQ(S_OK, next->initialize());
        ASSERT_TRUE(serverLoop.waitConnections(3));
        EXPECT_EQ(peerSlot, serverLoop.connections()[2]);
        ExpectRoundTrip(*next, "next");
        next->finalize();
        client->finalize();
        server->finalize();
    }
    EXPECT_EQ(m_fdsBefore, qvtest::CountOpenFds());
}

TEST_F(ProcessTest, FifosOfAClientAreRemovedAtProcessExit) {
    auto server = MakeServer(m_guid, 2);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server, 48, true);
    // The peer connects, then leaves main without finalize; its registry unlinks the FIFOs.
    Peer& peer = startPeer("exit-client");
    ASSERT_TRUE(serverLoop.waitConnections(1));
    EXPECT_EQ(0, peer.wait());
    EXPECT_EQ(std::vector<std::string>{m_guid + "-svr-admin"}, GuidFiles(m_guid));
    EXPECT_TRUE(serverLoop.waitResult(QVIPC_E_DISCONNECTED, 1));
    server->finalize();
}

}  // namespace
