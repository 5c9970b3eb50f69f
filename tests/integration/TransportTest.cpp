// Server and clients as endpoints of this one process, threads looping on the receive calls.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>

#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

using TransportTest = EndpointTest;

// Extension sizes 48, 5 and 0: what travels is exactly the endpoints' extension size.
class RoundTripTest : public EndpointTest, public ::testing::WithParamInterface<unsigned long> {};

TEST_P(RoundTripTest, RequestsAndResponsesTravelBothWaysByteForByte) {
    const unsigned long extSize = GetParam();
    ConnectedPair pair(m_guid, 4, extSize);
    ASSERT_TRUE(pair.ok);
    const unsigned long slot = 1;
    EXPECT_EQ(slot, pair.serverLoop->connections()[0]);
    EXPECT_EQ(0ul, pair.clientLoop->connections()[0]);
    const std::string fifo = "/tmp/" + m_guid + "-svr-req-3-p" + std::to_string(getpid());
    auto pipeSizeOf = [&] {  // a property of the FIFO, whoever opened it
        const int fd = open(fifo.c_str(), O_RDONLY | O_NONBLOCK), n = fcntl(fd, F_GETPIPE_SZ);
        return close(fd), n;
    };
    const int initial = pipeSizeOf();
    // Beyond 64 KiB a FIFO grows to the next power of two, at most 1 MiB.
    const std::pair<size_t, int> sizes[] = {
        {0, initial}, {1, initial}, {71, initial}, {65537, 131072}, {5 << 20, 1048576}};
    unsigned long expectedId = 1;
    for (const auto& [size, pipeSize] : sizes) {
        SCOPED_TRACE(size);
        const std::string body = Pattern(size, 1);
        const std::string ext = Pattern(48, static_cast<uint32_t>(size));
        // Client to server, then server to the client serving as a secondary server.
        for (const bool fromClient : {true, false}) {
            CQVIPCLibrary& from = fromClient ? *pair.client : *pair.server;
            const unsigned long to = fromClient ? 0 : slot;
            unsigned long id = 0;
            ASSERT_EQ(S_OK, from.sendRequest(to, body.data(), body.size(), &id, fromClient ? 7 : -9,
                                             ext.data()));
            EXPECT_EQ(fromClient ? expectedId++ : id, id);
            const Received r = ReceiveResponse(from, extSize);
            RequestLoop& peer = fromClient ? *pair.serverLoop : *pair.clientLoop;
            ASSERT_TRUE(peer.waitResult(S_OK, expectedId - 1));  // the request's type arrived
            EXPECT_EQ(fromClient ? 7 : -9, peer.results().back().type);
            EXPECT_EQ(std::make_tuple(S_OK, to, id, true, body.empty(), ext.substr(0, extSize)),
                      std::make_tuple(r.hr, r.ipcid, r.id, r.body == body, r.bodyNull, r.ext));
        }
        EXPECT_EQ(pipeSize, pipeSizeOf());
    }
}

INSTANTIATE_TEST_SUITE_P(ExtensionSizes, RoundTripTest, ::testing::Values(48ul, 5ul, 0ul));

// 63 clients, a refused 64th, freed slots reused lowest first, a second initialize a no-op.
TEST_F(TransportTest, SixtyThreeClientsAndTheirSlots) {
    auto server = MakeServer(m_guid, 63, 0);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server, 0);
    std::vector<std::unique_ptr<CQVIPCLibrary>> clients;
    for (int i = 0; i < 63; ++i) {
        clients.push_back(MakeClient(m_guid, 0));
        ASSERT_EQ(S_OK, clients.back()->initialize());
    }
    ASSERT_TRUE(serverLoop.waitConnections(63));
    std::vector<unsigned long> slots = serverLoop.connections();
    std::sort(slots.begin(), slots.end());
    for (unsigned long i = 0; i < 63; ++i) EXPECT_EQ(i + 1, slots[i]);
    for (auto& c : clients) ExpectRoundTrip(*c, "ping");

    auto refused = MakeClient(m_guid, 0);
    int fds = CountOpenFds();
    ASSERT_EQ(S_OK, refused->initialize());
    ASSERT_TRUE(m_capture.wait("server has too many clients"));
    EXPECT_TRUE(WaitFor([&] { return CountOpenFds() == fds; }, DEADLINE));
    unsigned long id = 0;
    EXPECT_EQ(QVIPC_E_NO_PIPE, refused->sendRequest(0, "x", 1, &id, 1, nullptr));
    EXPECT_EQ(S_OK, server->initialize());
    EXPECT_EQ(S_OK, clients[0]->initialize());
    EXPECT_EQ(fds, CountOpenFds());

    clients[7]->finalize();
    ASSERT_TRUE(serverLoop.waitResult(QVIPC_E_DISCONNECTED, 1));
    clients[3]->finalize();
    ASSERT_TRUE(serverLoop.waitResult(QVIPC_E_DISCONNECTED, 2));
    std::set<unsigned long> freed;
    for (const Received& r : serverLoop.results()) {
        if (r.hr == QVIPC_E_DISCONNECTED) freed.insert(r.ipcid);
    }
    clients.push_back(MakeClient(m_guid, 0));
    ASSERT_EQ(S_OK, clients.back()->initialize());
    ASSERT_TRUE(serverLoop.waitConnections(64));
    EXPECT_EQ(*freed.begin(), serverLoop.connections()[63]);
    ExpectRoundTrip(*clients.back(), "again");
    // A freed slot has no pipe; one beyond the slots, or 0 on a server, is invalid.
    const std::tuple<unsigned long, bool, QVRESULT> cases[] = {
        {*freed.rbegin(), false, QVIPC_E_NO_PIPE},
        {64, false, QVIPC_E_INVALID_ID},
        {0, false, QVIPC_E_INVALID_ID},
        {0, true, QVIPC_E_NO_PIPE},
        {64, true, QVIPC_E_INVALID_ID}};
    for (const auto& [ipcid, response, hr] : cases) {
        EXPECT_EQ(hr, response ? server->sendResponse(ipcid, 1, "x", 1, nullptr)
                               : server->sendRequest(ipcid, "x", 1, &id, 1, nullptr))
            << ipcid << response;
    }
}

TEST_F(TransportTest, BusyClientsTakeTurnsOneMessagePerCycle) {
    std::unique_ptr<CQVIPCLibrary> server = MakeServer(m_guid, 4, 0), clients[2];
    ASSERT_EQ(S_OK, server->initialize());
    for (auto& c : clients) ASSERT_EQ(S_OK, (c = MakeClient(m_guid, 0))->initialize());
    for (int i = 0; i < 2; ++i) ASSERT_EQ(QVIPC_E_NEW_CONNECTION, ReceiveRequest(*server, 0).hr);
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(S_OK, SendWhenConnected(*clients[i % 2], i % 2 ? "b" : "a"));
    // Slots alternate, the lower first in each cycle, whichever client sent first.
    std::map<unsigned long, std::string> bodyOfSlot;
    for (int i = 0; i < 20; ++i) {
        const Received r = ReceiveRequest(*server, 0);
        ASSERT_EQ(S_OK, r.hr);
        EXPECT_EQ(static_cast<unsigned long>(i % 2 + 1), r.ipcid) << i;
        EXPECT_EQ(bodyOfSlot.emplace(r.ipcid, r.body).first->second, r.body);
    }
    EXPECT_NE(bodyOfSlot[1], bodyOfSlot[2]);
}

// Receivers blocked in select() take in a late peer; finalize wakes them and removes the FIFOs.
TEST_F(TransportTest, BlockedReceiversTakeInLatePeersAndWakeAtFinalize) {
    auto server = MakeServer(m_guid, 2);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server);
    Received got;
    std::thread receiver([&] { got = ReceiveResponse(*server); });
    ASSERT_TRUE(m_capture.wait("receiveResponseServer ("));
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    RequestLoop clientLoop(*client);
    ASSERT_TRUE(serverLoop.waitConnections(1));
    unsigned long id = 0;
    ASSERT_EQ(S_OK, SendWhenConnected(*server, "late", 3, 1, &id));
    receiver.join();
    EXPECT_EQ(std::make_tuple(S_OK, 1ul, id, std::string("late")),
              std::tie(got.hr, got.ipcid, got.id, got.body));
    EXPECT_EQ(5u, GuidFiles(m_guid).size());
    const std::tuple<CQVIPCLibrary*, RequestLoop*, const char*> ends[] = {
        {client.get(), &clientLoop, "receiveResponseOnClientPipe ("},
        {server.get(), &serverLoop, "receiveResponseServer ("}};
    for (const auto& [lib, loop, blockedIn] : ends) {
        const size_t entered = m_capture.count(blockedIn);
        receiver = std::thread([&, lib = lib] { got = ReceiveResponse(*lib); });
        ASSERT_TRUE(m_capture.wait(blockedIn, entered + 1));
        EXPECT_EQ(S_OK, lib->finalize());
        receiver.join();
        loop->join();
        EXPECT_EQ(QVIPC_E_SHUTDOWN, got.hr);
        EXPECT_EQ(QVIPC_E_SHUTDOWN, loop->results().back().hr);
        EXPECT_EQ(std::vector<std::string>{m_guid + "-svr-admin"}, GuidFiles(m_guid));
        EXPECT_TRUE(lib != client.get() || serverLoop.waitResult(QVIPC_E_DISCONNECTED, 1, 1));
    }
    EXPECT_EQ(QVIPC_E_SHUTDOWN, server->sendRequest(1, "x", 1, &id, 1, nullptr));
    EXPECT_EQ(QVIPC_E_SHUTDOWN, server->initialize());
}

}  // namespace
