// Deaths and restarts need processes: this binary runs again as a peer, killed with SIGKILL.
#include <gtest/gtest.h>

#include "tests/integration/ReadmeExample.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

using ProcessTest = EndpointTest;

// A server dies with the CONNECT unanswered, then one is killed and restarted.
TEST_F(ProcessTest, ClientSurvivesServersThatDie) {
    Peer& swallower = startPeer("swallow-connect");
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    RequestLoop clientLoop(*client);
    EXPECT_EQ(0, swallower.wait());
    const std::string lookingAgain = "can't open fdSendAdmin";
    ASSERT_TRUE(m_capture.wait(lookingAgain, m_capture.count(lookingAgain) + 1));
    for (const size_t connections : {1, 2}) {
        startPeer("server");
        ASSERT_TRUE(clientLoop.waitConnections(connections));
        ExpectRoundTrip(*client, "served");
        m_peers.back()->kill();
        ASSERT_TRUE(clientLoop.waitResult(QVIPC_E_DISCONNECTED, connections));
    }
}

// README.md's example: its client half here, its server half in a peer.
TEST_F(ProcessTest, ReadmeExampleRuns) {
    startPeer("readme-server");
    EXPECT_EQ(S_OK, readme::Client(m_guid));
}

// A client killed mid-send and one exiting without finalize both free their slots.
TEST_F(ProcessTest, ServerFreesTheSlotsOfClientsThatDieOrExit) {
    ConnectedPair pair(m_guid, 4);
    ASSERT_TRUE(pair.ok);
    RequestLoop& serverLoop = *pair.serverLoop;
    CQVIPCLibrary& client = *pair.client;
    Peer& busy = startPeer("client");
    ASSERT_TRUE(serverLoop.waitConnections(2));
    ASSERT_TRUE(serverLoop.waitResult(S_OK, 20, 2));
    busy.kill();
    ASSERT_TRUE(WaitFor(
        [&] {
            return serverLoop.count(QVIPC_E_DISCONNECTED, 2) + serverLoop.count(QVIPC_E_READ, 2);
        },
        DEADLINE));
    ExpectRoundTrip(client, "still served");
    const size_t files = GuidFiles(m_guid).size(), gone = serverLoop.count(QVIPC_E_DISCONNECTED, 2);
    EXPECT_EQ(0, startPeer("exit-client").wait());
    ASSERT_TRUE(serverLoop.waitConnections(3));
    EXPECT_EQ(2ul, serverLoop.connections()[2]);
    EXPECT_TRUE(serverLoop.waitResult(QVIPC_E_DISCONNECTED, gone + 1, 2));
    EXPECT_EQ(files, GuidFiles(m_guid).size());
    ExpectRoundTrip(client, "and again");
}

}  // namespace
