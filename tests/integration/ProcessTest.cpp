// Deaths and restarts need processes: this binary runs again as a peer (--peer=...), is killed
// with SIGKILL, and is started again.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "tests/integration/ReadmeExample.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

using ProcessTest = EndpointTest;

TEST_F(ProcessTest, ClientSurvivesItsServersRestart) {
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    RequestLoop clientLoop(*client);
    startPeer("server");
    ASSERT_TRUE(clientLoop.waitConnections(1));
    ExpectRoundTrip(*client, "before");
    m_peers.back()->kill();
    ASSERT_TRUE(clientLoop.waitResult(QVIPC_E_DISCONNECTED, 1));
    startPeer("server");
    ASSERT_TRUE(clientLoop.waitConnections(2));
    ExpectRoundTrip(*client, "after");
    client->finalize();
}

// A server that took the CONNECT and died before it opened the reply FIFO never answers; the
// client must give that attempt up and connect to the next server.
TEST_F(ProcessTest, ClientConnectsAfterItsServerDiedWithTheConnectUnanswered) {
    Peer& swallower = startPeer("swallow-connect");
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    RequestLoop clientLoop(*client, 48, false);
    EXPECT_EQ(0, swallower.wait());
    const std::string lookingAgain = "can't open fdSendAdmin";
    ASSERT_TRUE(m_capture.wait(lookingAgain, m_capture.count(lookingAgain) + 1));
    auto server = MakeServer(m_guid, 4);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server);
    ASSERT_TRUE(clientLoop.waitConnections(1));
    ExpectRoundTrip(*client, "answered");
    client->finalize();
}

// The API example that README.md shows, built from the document: its client half, here, talks
// to its server half in another process.
TEST_F(ProcessTest, ReadmeExampleRuns) {
    startPeer("readme-server");
    // Shared with the client thread, which is left behind should it never return.
    auto result = std::make_shared<std::atomic<QVRESULT>>(~0u);
    std::thread client([guid = m_guid, result] { result->store(readme::Client(guid)); });
    if (!WaitFor([&] { return result->load() != ~0u; }, DEADLINE)) {
        client.detach();
        FAIL() << "the example's client did not finish";
    }
    client.join();
    EXPECT_EQ(S_OK, result->load());
}

TEST_F(ProcessTest, ServerFreesTheSlotOfAKilledClientAndServesTheOthers) {
    auto server = MakeServer(m_guid, 4);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server);
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    ASSERT_TRUE(serverLoop.waitConnections(1));
    // The peer sends requests without pause; it dies in the middle of that conversation.
    Peer& peer = startPeer("client");
    ASSERT_TRUE(serverLoop.waitConnections(2));
    const long peerSlot = static_cast<long>(serverLoop.connections()[1]);
    ASSERT_TRUE(serverLoop.waitResult(S_OK, 20, peerSlot));
    peer.kill();
    ASSERT_TRUE(WaitFor(
        [&] {
            return serverLoop.count(QVIPC_E_DISCONNECTED, peerSlot) +
                       serverLoop.count(QVIPC_E_READ, peerSlot) >
                   0;
        },
        DEADLINE));
    ExpectRoundTrip(*client, "still served");
    auto next = MakeClient(m_guid);
    ASSERT_EQ(S_OK, next->initialize());
    ASSERT_TRUE(serverLoop.waitConnections(3));
    EXPECT_EQ(static_cast<unsigned long>(peerSlot), serverLoop.connections()[2]);
    ExpectRoundTrip(*next, "next");
    next->finalize();
    client->finalize();
}

TEST_F(ProcessTest, FifosOfAClientAreRemovedAtProcessExit) {
    auto server = MakeServer(m_guid, 2);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server);
    // The peer connects, then leaves main without finalize; its registry unlinks the FIFOs.
    Peer& peer = startPeer("exit-client");
    ASSERT_TRUE(serverLoop.waitConnections(1));
    EXPECT_EQ(0, peer.wait());
    EXPECT_EQ(std::vector<std::string>{m_guid + "-svr-admin"}, GuidFiles(m_guid));
    EXPECT_TRUE(serverLoop.waitResult(QVIPC_E_DISCONNECTED, 1));
}

}  // namespace
