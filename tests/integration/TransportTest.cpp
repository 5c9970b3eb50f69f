// Server and clients as endpoints of this one process, with threads looping on the receive
// calls: round trips both ways, many clients, fairness, shutdown while receivers block.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <thread>
#include <utility>
#include <vector>

#include "QVIPC/QVIPCLibrary/QVIPCErrors.h"
#include "tests/integration/IntegrationSupport.h"
#include "tests/support/TestSupport.h"

using namespace itest;

namespace {

class TransportTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_guid = qvtest::TestGuid();
        m_fdsBefore = qvtest::CountOpenFds();
    }
    void TearDown() override { qvtest::RemoveGuidFiles(m_guid); }

    // Waits until a client's connect thread has published its connection.
    static bool waitClientConnected(RequestLoop& loop) { return loop.waitConnections(1); }

    ipctest::LineCapture m_capture;
    std::string m_guid;
    int m_fdsBefore = 0;
};

TEST_F(TransportTest, RequestsAndResponsesTravelBothWaysByteForByte) {
    ConnectedPair pair(m_guid, 4, 48, true);
    ASSERT_TRUE(pair.ok);
    CQVIPCLibrary* server = pair.server.get();
    CQVIPCLibrary* client = pair.client.get();
    RequestLoop& serverLoop = *pair.serverLoop;
    RequestLoop& clientLoop = *pair.clientLoop;
    const unsigned long slot = serverLoop.connections()[0];
    EXPECT_EQ(1ul, slot);
    EXPECT_EQ(0ul, clientLoop.connections()[0]);

    const size_t sizes[] = {0, 1, 5, 71, 4096, 65537, 1 << 20};
    unsigned long expectedId = 1;
    for (size_t i = 0; i < sizeof sizes / sizeof sizes[0]; ++i) {
        SCOPED_TRACE(sizes[i]);
        const std::string body = Pattern(sizes[i], static_cast<unsigned>(i));
        const std::string ext = Pattern(48, static_cast<unsigned>(100 + i));

        // Client to server, answered by the server's echo.
        unsigned long id = 0;
        ASSERT_EQ(S_OK, client->sendRequest(0, body.data(), body.size(), &id, 7, ext.data()));
        EXPECT_EQ(expectedId++, id);
        Received rsp = ReceiveResponse(*client, 48);
        EXPECT_EQ(S_OK, rsp.hr);
        EXPECT_EQ(0ul, rsp.ipcid);
        EXPECT_EQ(id, rsp.requestId);
        EXPECT_TRUE(rsp.body == body);
        EXPECT_EQ(body.empty(), rsp.bodyNull);
        EXPECT_TRUE(rsp.ext == ext);

        // Server to client, the client serving as a secondary server.
        unsigned long sid = 0;
        ASSERT_EQ(S_OK, server->sendRequest(slot, body.data(), body.size(), &sid, -9, ext.data()));
        Received back = ReceiveResponse(*server, 48);
        EXPECT_EQ(S_OK, back.hr);
        EXPECT_EQ(slot, back.ipcid);
        EXPECT_EQ(sid, back.requestId);
        EXPECT_TRUE(back.body == body);
        EXPECT_TRUE(back.ext == ext);
    }
    // What the receivers saw, request type included.
    const std::vector<Received> atServer = serverLoop.results();
    ASSERT_EQ(8u, atServer.size());
    EXPECT_EQ(7, atServer[7].requestType);
    EXPECT_EQ(slot, atServer[7].ipcid);
    EXPECT_EQ(-9, clientLoop.results().back().requestType);

    EXPECT_EQ(S_OK, client->finalize());
    EXPECT_EQ(S_OK, server->finalize());
    serverLoop.join();
    clientLoop.join();
    EXPECT_EQ(QVIPC_E_SHUTDOWN, serverLoop.results().back().hr);
    EXPECT_EQ(QVIPC_E_SHUTDOWN, clientLoop.results().back().hr);
}

TEST_F(TransportTest, BlockedResponseReceiverTakesInAClientThatConnectsLater) {
    auto server = MakeServer(m_guid, 2);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server, 48, true);
    Received response;
    std::thread responses([&] { response = ReceiveResponse(*server, 48); });
    const std::string addr = AddressOf(m_capture, m_guid, 1);
    ASSERT_TRUE(
        WaitLine(m_capture, "T/16/2 CQVIPCLibraryImpl::receiveResponseServer (" + addr + ")"));
    // The receiver sits in select() without the new client's FIFO; the internal pipe wakes it.
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    RequestLoop clientLoop(*client, 48, true);
    ASSERT_TRUE(serverLoop.waitConnections(1));
    ASSERT_TRUE(clientLoop.waitConnections(1));
    unsigned long id = 0;
    ASSERT_EQ(S_OK, server->sendRequest(1, "late", 4, &id, 3, nullptr));
    responses.join();
    EXPECT_EQ(S_OK, response.hr);
    EXPECT_EQ(1ul, response.ipcid);
    EXPECT_EQ(id, response.requestId);
    EXPECT_EQ("late", response.body);
    const std::string adminPipe =
        "T/16/2 CQVIPCLibraryImpl::receiveResponseServer " + addr + " ADMINPIPE, fdmax ";
    size_t wakeUps = 0;
    for (const std::string& line : m_capture.lines()) {
        wakeUps += line.compare(0, adminPipe.size(), adminPipe) == 0 ? 1 : 0;
    }
    EXPECT_EQ(1u, wakeUps);
    client->finalize();
    server->finalize();
}

TEST_F(TransportTest, ExtensionSizeLimitsWhatTravels) {
    // Both ends made with 5 bytes: exactly 5 arrive, the receiver's buffer keeps the rest.
    ConnectedPair pair(m_guid, 1, 5, false);
    ASSERT_TRUE(pair.ok);
    unsigned long id = 0;
    ASSERT_EQ(S_OK, pair.client->sendRequest(0, "abc", 3, &id, 1, "12345678"));
    ASSERT_EQ(S_OK, pair.client->sendRequest(0, nullptr, 0, &id, 2, nullptr));
    ASSERT_TRUE(pair.serverLoop->waitResult(S_OK, 2));
    const std::vector<Received> got = pair.serverLoop->results();
    EXPECT_EQ("12345", got[1].ext);
    EXPECT_EQ("abc", got[1].body);
    EXPECT_TRUE(got[2].bodyNull);
    EXPECT_EQ(2, got[2].requestType);
}

TEST_F(TransportTest, LargeBodyArrivesWhole) {
    ConnectedPair pair(m_guid, 1, 0, false);
    ASSERT_TRUE(pair.ok);
    const std::string body = Pattern(256u << 20, 3);
    unsigned long id = 0;
    ASSERT_EQ(S_OK, pair.client->sendRequest(0, body.data(), body.size(), &id, 1, nullptr));
    ASSERT_TRUE(pair.serverLoop->waitResult(S_OK, 1));
    EXPECT_TRUE(pair.serverLoop->results().back().body == body);
}

// The FIFO buffer of this process's descriptor on the path that starts with prefix; 0 if none.
int PipeSizeOf(const std::string& prefix) {
    for (int fd = 0; fd < 1024; ++fd) {
        char link[512];
        const std::string self = "/proc/self/fd/" + std::to_string(fd);
        const ssize_t n = readlink(self.c_str(), link, sizeof link - 1);
        if (n <= 0) continue;
        link[n] = '\0';
        if (std::string(link).rfind(prefix, 0) == 0) return fcntl(fd, F_GETPIPE_SZ);
    }
    return 0;
}

// Messages larger than a FIFO's default buffer grow it (to the next power of two, at most
// 1 MiB); smaller ones leave it as it is. Bodies still arrive whole.
TEST_F(TransportTest, LargeMessagesGrowTheirFifoUpToOneMebibyte) {
    ConnectedPair pair(m_guid, 1, 0, false);
    ASSERT_TRUE(pair.ok);
    const std::string fifo = "/tmp/" + m_guid + "-svr-req-";
    const int initial = PipeSizeOf(fifo);
    ASSERT_GT(initial, 0);
    size_t received = 0;
    for (const auto& step : std::vector<std::pair<size_t, int>>{
             {60000, initial}, {200000, 262144}, {5u << 20, 1048576}, {100, 1048576}}) {
        const std::string body = Pattern(step.first, 5);
        unsigned long id = 0;
        ASSERT_EQ(S_OK, pair.client->sendRequest(0, body.data(), body.size(), &id, 1, nullptr));
        ASSERT_TRUE(pair.serverLoop->waitResult(S_OK, ++received));
        EXPECT_TRUE(pair.serverLoop->results().back().body == body);
        EXPECT_EQ(step.second, PipeSizeOf(fifo)) << step.first;
    }
}

TEST_F(TransportTest, SixtyThreeClientsConnectAndTheSixtyFourthIsRefused) {
    auto server = MakeServer(m_guid, 63, 0);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server, 0, true);
    std::vector<std::unique_ptr<CQVIPCLibrary>> clients;
    for (int i = 0; i < 63; ++i) {
        clients.push_back(MakeClient(m_guid, 0));
        ASSERT_EQ(S_OK, clients.back()->initialize());
    }
    ASSERT_TRUE(serverLoop.waitConnections(63));
    std::vector<unsigned long> slots = serverLoop.connections();
    std::sort(slots.begin(), slots.end());
    for (unsigned long i = 0; i < 63; ++i) EXPECT_EQ(i + 1, slots[i]);

    // Every connected client is served, once its connect thread has published.
    for (auto& c : clients) {
        QVRESULT hr = 0;
        unsigned long id = 0;
        ASSERT_TRUE(qvtest::WaitFor(
            [&] {
                hr = c->sendRequest(0, "ping", 4, &id, 1, nullptr);
                return hr != QVIPC_E_NO_PIPE;
            },
            DEADLINE));
        ASSERT_EQ(S_OK, hr);
        Received r = ReceiveResponse(*c, 0);
        EXPECT_EQ(S_OK, r.hr);
        EXPECT_EQ("ping", r.body);
    }
    auto refused = MakeClient(m_guid, 0);
    const int fdsOfRefused = qvtest::CountOpenFds();
    ASSERT_EQ(S_OK, refused->initialize());
    const std::string addr = AddressOf(m_capture, m_guid, 0, true);
    EXPECT_TRUE(WaitLine(m_capture, "L/0/64 (Error) CQVIPCLibraryImpl::connectThreadFunc (" + addr +
                                        "), server has too many clients"));
    EXPECT_TRUE(WaitLine(m_capture,
                         "L/0/2 CQVIPCLibraryImpl::connectThreadFunc (" + addr + ") - stopping"));
    // Its thread ended and gave every descriptor of slot 1 up (the server closes its reply
    // descriptor right after the reply).
    EXPECT_TRUE(qvtest::WaitFor([&] { return qvtest::CountOpenFds() == fdsOfRefused; }, DEADLINE));
    unsigned long id = 0;
    EXPECT_EQ(QVIPC_E_NO_PIPE, refused->sendRequest(0, "x", 1, &id, 1, nullptr));
    EXPECT_EQ(63u, serverLoop.connections().size());

    refused->finalize();
    for (auto& c : clients) c->finalize();
    server->finalize();
}

// Sends once the client's connect thread has opened its write ends.
QVRESULT SendWhenConnected(CQVIPCLibrary& client, const std::string& body, int type) {
    QVRESULT hr = 0;
    unsigned long id = 0;
    qvtest::WaitFor(
        [&] {
            hr = client.sendRequest(0, body.data(), body.size(), &id, type, nullptr);
            return hr != QVIPC_E_NO_PIPE;
        },
        DEADLINE);
    return hr;
}

TEST_F(TransportTest, BusyClientsTakeTurnsOneMessagePerCycle) {
    auto server = MakeServer(m_guid, 4, 0);
    auto first = MakeClient(m_guid, 0);
    auto second = MakeClient(m_guid, 0);
    ASSERT_EQ(S_OK, server->initialize());
    ASSERT_EQ(S_OK, first->initialize());
    ASSERT_EQ(S_OK, second->initialize());
    for (unsigned long slot = 1; slot <= 2; ++slot) {
        // A new connection clears the outputs that carry a message; nothing stale survives.
        unsigned long ipcid = 99;
        unsigned long id = 99;
        unsigned long len = 99;
        int type = 99;
        char stale = 's';
        char* buf = &stale;
        ASSERT_EQ(QVIPC_E_NEW_CONNECTION,
                  server->receiveRequest(&ipcid, &id, &buf, &len, &type, nullptr));
        EXPECT_EQ(slot, ipcid);
        EXPECT_EQ(0ul, id);
        EXPECT_EQ(nullptr, buf);
        EXPECT_EQ(0ul, len);
        EXPECT_EQ(0, type);
    }
    // Both FIFOs hold ten messages before the server looks again.
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(S_OK, SendWhenConnected(*first, "first", 1));
        ASSERT_EQ(S_OK, SendWhenConnected(*second, "second", 2));
    }
    // Slots 1 and 2 alternate, the lower first in each cycle, whichever client sent first.
    std::map<unsigned long, std::string> bodyOfSlot;
    for (int i = 0; i < 20; ++i) {
        const Received r = ReceiveRequest(*server, 0);
        ASSERT_EQ(S_OK, r.hr);
        EXPECT_EQ(static_cast<unsigned long>(i % 2 + 1), r.ipcid) << i;
        if (bodyOfSlot.count(r.ipcid) == 0) bodyOfSlot[r.ipcid] = r.body;
        EXPECT_EQ(bodyOfSlot[r.ipcid], r.body);
    }
    EXPECT_NE(bodyOfSlot[1], bodyOfSlot[2]);
    first->finalize();
    second->finalize();
    server->finalize();
}

TEST_F(TransportTest, FinalizeWakesBlockedServerReceiversAndWaitsForThem) {
    {
        auto server = MakeServer(m_guid, 2);
        ASSERT_EQ(S_OK, server->initialize());
        RequestLoop requests(*server, 48, true);
        Received response;
        std::atomic<bool> responseDone{false};
        std::thread responses([&] {
            response = ReceiveResponse(*server, 48);
            responseDone.store(true);
        });
        // Both threads are inside their calls: the entry traces have been written.
        const std::string addr = AddressOf(m_capture, m_guid, 1);
        ASSERT_TRUE(WaitLine(
            m_capture, "T/16/2 CQVIPCLibraryImpl::receiveRequestPrimaryServer (" + addr + ")"));
        ASSERT_TRUE(
            WaitLine(m_capture, "T/16/2 CQVIPCLibraryImpl::receiveResponseServer (" + addr + ")"));
        EXPECT_EQ(S_OK, server->finalize());
        // finalize returned only after both had left their receive calls.
        EXPECT_TRUE(qvtest::WaitFor([&] { return responseDone.load(); }, DEADLINE));
        responses.join();
        requests.join();
        EXPECT_EQ(QVIPC_E_SHUTDOWN, response.hr);
        EXPECT_EQ(QVIPC_E_SHUTDOWN, requests.results().back().hr);
        EXPECT_EQ(1u,
                  CountLines(m_capture, "T/16/2 <<<CQVIPCLibraryImpl::finalize (" + addr + ")"));
        // Shut down for good: every call answers QVIPC_E_SHUTDOWN, initialize too.
        unsigned long id = 0;
        EXPECT_EQ(QVIPC_E_SHUTDOWN, server->sendRequest(1, "x", 1, &id, 1, nullptr));
        EXPECT_EQ(QVIPC_E_SHUTDOWN, server->initialize());
        EXPECT_EQ(S_OK, server->finalize());
    }
    EXPECT_EQ(m_fdsBefore, qvtest::CountOpenFds());
}

TEST_F(TransportTest, FinalizeOfAConnectedClientWakesItsReceiversAndRemovesItsFifos) {
    auto server = MakeServer(m_guid, 2);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server, 48, true);
    const int fdsWithServer = qvtest::CountOpenFds();
    {
        auto client = MakeClient(m_guid);
        ASSERT_EQ(S_OK, client->initialize());
        RequestLoop clientLoop(*client, 48, true);
        ASSERT_TRUE(waitClientConnected(clientLoop));
        Received response;
        std::thread responses([&] { response = ReceiveResponse(*client, 48); });
        const std::string addr = AddressOf(m_capture, m_guid, 0);
        ASSERT_TRUE(WaitLine(m_capture, "T/16/2 CQVIPCLibraryImpl::receiveResponseOnClientPipe (" +
                                            addr + "), id 1"));
        EXPECT_EQ(5u, GuidFiles(m_guid).size());
        EXPECT_EQ(S_OK, client->finalize());
        responses.join();
        clientLoop.join();
        EXPECT_EQ(QVIPC_E_SHUTDOWN, response.hr);
        EXPECT_EQ(QVIPC_E_SHUTDOWN, clientLoop.results().back().hr);
        // Only the admin FIFO stays.
        EXPECT_EQ(std::vector<std::string>{m_guid + "-svr-admin"}, GuidFiles(m_guid));
        // The server saw the client go and freed its slot.
        EXPECT_TRUE(serverLoop.waitResult(QVIPC_E_DISCONNECTED, 1));
    }
    EXPECT_TRUE(qvtest::WaitFor([&] { return qvtest::CountOpenFds() == fdsWithServer; }, DEADLINE));
    server->finalize();
}

TEST_F(TransportTest, FinalizeStopsAClientStillLookingForItsServer) {
    {
        auto client = MakeClient(m_guid);
        ASSERT_EQ(S_OK, client->initialize());
        RequestLoop clientLoop(*client, 48, true);
        Received response;
        std::thread responses([&] { response = ReceiveResponse(*client, 48); });
        const std::string admin = "/tmp/" + m_guid + "-svr-admin";
        ASSERT_TRUE(WaitLine(m_capture,
                             "T/16/64 (Error) CQVIPCLibraryImpl::connectThreadFunc, can't open "
                             "fdSendAdmin " +
                                 admin + ", errno 6"));
        EXPECT_EQ(S_OK, client->finalize());
        responses.join();
        clientLoop.join();
        EXPECT_EQ(QVIPC_E_SHUTDOWN, response.hr);
        EXPECT_EQ(QVIPC_E_SHUTDOWN, clientLoop.results().back().hr);
        EXPECT_EQ(std::vector<std::string>{m_guid + "-svr-admin"}, GuidFiles(m_guid));
        const std::string addr = AddressOf(m_capture, m_guid, 0);
        EXPECT_EQ(1u, CountLines(m_capture, "L/0/2 CQVIPCLibraryImpl::connectThreadFunc (" + addr +
                                                ") - stopping"));
    }
    EXPECT_EQ(m_fdsBefore, qvtest::CountOpenFds());
}

TEST_F(TransportTest, ClientStartedFirstConnectsOnceTheServerAppears) {
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    RequestLoop clientLoop(*client, 48, true);
    ASSERT_TRUE(WaitLine(m_capture,
                         "T/16/64 (Error) CQVIPCLibraryImpl::connectThreadFunc, can't open "
                         "fdSendAdmin /tmp/" +
                             m_guid + "-svr-admin, errno 6"));
    auto server = MakeServer(m_guid, 2);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server, 48, true);
    ASSERT_TRUE(serverLoop.waitConnections(1));
    ASSERT_TRUE(waitClientConnected(clientLoop));
    EXPECT_EQ(S_OK, SendWhenConnected(*client, "hello", 1));
    EXPECT_EQ("hello", ReceiveResponse(*client, 48).body);

    // The handshake as both sides log it.
    const std::string saddr = AddressOf(m_capture, m_guid, 1);
    const std::string caddr = AddressOf(m_capture, m_guid, 0);
    const std::string pid = std::to_string(getpid());
    // Connect ids are drawn in construction order: the client got 1, the server 3.
    EXPECT_EQ(1u, CountLines(m_capture, "T/16/2 CQVIPCLibraryImpl::receiveRequestOnAdminPipe (" +
                                            saddr + ") - QVIPC_REQUEST_CONNECT, pid " + pid +
                                            ", connect id 1, fd id 1"));
    EXPECT_EQ(1u, CountLines(m_capture,
                             "T/16/2 CQVIPCLibraryImpl::connectThreadFunc, sending "
                             "connect request"));
    EXPECT_EQ(1u, CountLines(m_capture, "L/0/2 CQVIPCLibraryImpl::connectThreadFunc (" + caddr +
                                            ") - starting"));
    client->finalize();
    server->finalize();
}

TEST_F(TransportTest, FreedSlotsAreReusedLowestFirst) {
    auto server = MakeServer(m_guid, 4, 0);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server, 0, true);
    std::vector<std::unique_ptr<CQVIPCLibrary>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(MakeClient(m_guid, 0));
        ASSERT_EQ(S_OK, clients.back()->initialize());
        ASSERT_TRUE(serverLoop.waitConnections(clients.size()));
        ASSERT_EQ(S_OK, SendWhenConnected(*clients.back(), "x", 1));
    }
    EXPECT_EQ((std::vector<unsigned long>{1, 2, 3}), serverLoop.connections());

    clients[1]->finalize();
    ASSERT_TRUE(serverLoop.waitResult(QVIPC_E_DISCONNECTED, 1));
    for (const Received& r : serverLoop.results()) {
        if (r.hr == QVIPC_E_DISCONNECTED) {
            EXPECT_EQ(2ul, r.ipcid);
        }
    }
    const std::string addr = AddressOf(m_capture, m_guid, 1);
    EXPECT_EQ(
        1u, CountLines(m_capture, "L/0/64 (Error) CQVIPCLibraryImpl::receiveRequestOnClientPipe (" +
                                      addr + "), client disconnected"));

    clients.push_back(MakeClient(m_guid, 0));
    ASSERT_EQ(S_OK, clients.back()->initialize());
    ASSERT_TRUE(serverLoop.waitConnections(4));
    EXPECT_EQ(2ul, serverLoop.connections()[3]);
    EXPECT_EQ(S_OK, SendWhenConnected(*clients.back(), "again", 1));
    EXPECT_EQ("again", ReceiveResponse(*clients.back(), 0).body);
    // A send to the freed-and-reused slot reaches the new client; one to a slot never used
    // has no pipe, one beyond the slots is invalid.
    unsigned long id = 0;
    EXPECT_EQ(QVIPC_E_NO_PIPE, server->sendRequest(4, "x", 1, &id, 1, nullptr));
    EXPECT_EQ(QVIPC_E_INVALID_ID, server->sendRequest(5, "x", 1, &id, 1, nullptr));
    EXPECT_EQ(QVIPC_E_INVALID_ID, server->sendRequest(0, "x", 1, &id, 1, nullptr));
    EXPECT_EQ(QVIPC_E_NO_PIPE, server->sendResponse(0, 1, "x", 1, nullptr));
    EXPECT_EQ(QVIPC_E_INVALID_ID, server->sendResponse(5, 1, "x", 1, nullptr));
    for (auto& c : clients) c->finalize();
    server->finalize();
}

TEST_F(TransportTest, SecondInitializeChangesNothing) {
    ConnectedPair pair(m_guid, 2, 48, true);
    ASSERT_TRUE(pair.ok);
    const int fds = qvtest::CountOpenFds();
    EXPECT_EQ(S_OK, pair.server->initialize());
    EXPECT_EQ(S_OK, pair.client->initialize());
    EXPECT_EQ(fds, qvtest::CountOpenFds());
    EXPECT_EQ(S_OK, SendWhenConnected(*pair.client, "still", 1));
    EXPECT_EQ("still", ReceiveResponse(*pair.client, 48).body);
    EXPECT_EQ(1u, pair.serverLoop->connections().size());
    pair.client->finalize();
    EXPECT_EQ(QVIPC_E_SHUTDOWN, pair.client->initialize());
}

}  // namespace
