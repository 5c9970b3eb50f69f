// Faults a peer can cause, deaths of peer processes (this binary run again) included.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <new>

#include "tests/integration/ReadmeExample.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

// In this whole test program a body of 1 GiB or more cannot be allocated, as on a 32-bit target,
// so that a receive runs out of memory on every target. Smaller requests go to the ordinary
// operator, so a sanitizer still pairs each allocation with its release.
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    if (size >= (std::size_t{1} << 30)) return nullptr;
    try {
        return ::operator new[](size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

namespace {

const uint32_t PID = static_cast<uint32_t>(getpid());

using FaultTest = EndpointTest;

// Admin garbage changes nothing; a CONNECT from a dead process is dropped at once.
TEST_F(FaultTest, AdminRecordsTakeOrFreeSlotsOnlyWhenTheyAreWellFormed) {
    const pid_t gone = fork();
    ASSERT_NE(-1, gone);
    if (gone == 0) _exit(0);
    ASSERT_EQ(gone, waitpid(gone, nullptr, 0));
    ConnectedPair pair(m_guid, 4);
    ASSERT_TRUE(pair.ok);
    const std::string garbage[] = {
        std::string(10, 'x'),  // a short record
        Record(0, 0, 0),
        Record(100, 0, 0),
        Record(QVIPC_REQUEST_INTERNAL, 0, 0),
        Record(100, 5, 5, 5) + Record(QVIPC_REQUEST_INTERNAL, 0, 0),
        Record(QVIPC_REQUEST_DISCONNECT, 777777, 1, 1),  // a connect id nobody holds
        Record(qvframe::TYPE_CONNECT, 900017, static_cast<uint32_t>(gone)),
    };
    for (const std::string& bytes : garbage) {
        ASSERT_TRUE(WriteAdmin(m_guid, bytes));
        ASSERT_TRUE(WaitFifoDrained("/tmp/" + m_guid + "-svr-admin"));
        ExpectRoundTrip(*pair.client, "still served");
    }
    ASSERT_TRUE(m_capture.wait("pid " + std::to_string(gone) + " is gone"));
    RawClient raw(m_guid, 900011), next(m_guid, 900013);
    ASSERT_EQ(0u, raw.connect());
    ASSERT_TRUE(WriteAdmin(m_guid, Record(QVIPC_REQUEST_DISCONNECT, 900011, PID, 1)));
    ASSERT_EQ(0u, next.connect());
    ASSERT_TRUE(pair.serverLoop->waitConnections(3));
    EXPECT_EQ((std::vector<unsigned long>{1, 2, 2}), pair.serverLoop->connections());
}

// Raw frames on slot 2, then the writer closes; a short response header makes the client reconnect.
TEST_F(FaultTest, BadFramesGiveTheirResultAndFreeTheSlot) {
    ConnectedPair pair(m_guid, 4);
    ASSERT_TRUE(pair.ok);
    using Got = std::tuple<QVRESULT, unsigned long, int, std::string, bool>;
    const std::pair<std::string, std::vector<Got>> cases[] = {
        {Frame(7, 1, 100, 3) + Frame(qvframe::TYPE_DATA, 2, 4, 9) + "body",
         {{S_OK, 0, 0, "", true},
          {S_OK, 2, 9, "body", false},
          {QVIPC_E_DISCONNECTED, 0, 0, "", true}}},
        {Frame(qvframe::TYPE_DATA, 0, 1000, 4) + "0123456789", {{QVIPC_E_READ, 0, 4, "", true}}},
        {Frame(qvframe::TYPE_DATA, 0, 0xFFFFFFFFu, 4) + "0123456789",
         {{QVIPC_E_OUTOFMEMORY, 0, 4, "", true}}},
    };
    size_t connections = 1;
    for (const auto& [bytes, wants] : cases) {
        SCOPED_TRACE(connections);
        RawClient raw(m_guid, 900001 + 2 * static_cast<uint32_t>(connections));
        ASSERT_EQ(0u, raw.connect());
        ASSERT_TRUE(pair.serverLoop->waitConnections(++connections));
        EXPECT_EQ(2ul, pair.serverLoop->connections().back());  // the freed slot taken again
        const size_t before = pair.serverLoop->results().size();
        ASSERT_TRUE(raw.send(bytes, true));
        std::vector<Got> got;
        ASSERT_TRUE(WaitFor(
            [&] {
                got.clear();
                const std::vector<Received> all = pair.serverLoop->results();
                for (size_t i = before; i < all.size(); ++i) {
                    const Received& r = all[i];
                    if (r.ipcid != 2) continue;
                    got.emplace_back(r.hr, r.id, r.type, r.body, r.bodyNull);
                }
                return !got.empty() && std::get<0>(got.back()) != S_OK;
            },
            DEADLINE));
        EXPECT_EQ(wants, got);
        raw.closeAll();
        ExpectRoundTrip(*pair.client, "others still served");
    }
    // Where the client (connect id 3) expects a 68-byte response header: ten bytes, then a
    // header whose body cannot be allocated. Neither can be resynced: it connects again, to slot 1
    // or 2 by which close the server saw first.
    const std::pair<std::string, QVRESULT> hostile[] = {
        {"0123456789", QVIPC_E_READ},
        {ResponseBytes(qvframe::TYPE_DATA, 0, 0, 0xF0000000u), QVIPC_E_OUTOFMEMORY}};
    const std::string path = "/tmp/" + m_guid + "-svr-rsp-3-p" + std::to_string(PID);
    size_t reconnects = 1;
    for (const auto& [bytes, hr] : hostile) {
        ASSERT_TRUE(WriteFifo(path, bytes));
        EXPECT_EQ(hr, ReceiveResponse(*pair.client).hr);
        ASSERT_TRUE(pair.serverLoop->waitConnections(++connections));
        const unsigned long again = pair.serverLoop->connections().back();
        EXPECT_TRUE(again == 1 || again == 2) << again;
        ASSERT_TRUE(pair.clientLoop->waitConnections(++reconnects));
    }
    ExpectRoundTrip(*pair.client, "after");
}

// A 1-second send time-out bounds what clients that never read cost the others.
TEST_F(FaultTest, SlowConsumersCostOthersOnlyTheSendTimeOut) {
    auto server = MakeServer(m_guid, 4, 48, 1);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server);
    auto client = MakeClient(m_guid, 48, 1);
    ASSERT_EQ(S_OK, client->initialize());
    RequestLoop clientLoop(*client, 48, false);
    ASSERT_TRUE(clientLoop.waitConnections(1));
    RawClient slow(m_guid, 900015);
    ASSERT_EQ(0u, slow.connect());
    ASSERT_TRUE(serverLoop.waitConnections(2));
    QVRESULT hr = S_OK;
    for (int i = 0; i < 64 && hr == S_OK; ++i)
        hr = SendWhenConnected(*server, Pattern(16384, 1), 1, 2);
    EXPECT_EQ(QVIPC_E_WRITE, hr);
    // Echoes of 30000-byte requests overfill its 64 KiB FIFO.
    for (uint32_t i = 1; i <= 3; ++i) {
        ASSERT_TRUE(slow.send(Frame(qvframe::TYPE_DATA, i, 30000, 1) + std::string(30000, 's')));
        ASSERT_TRUE(serverLoop.waitResult(S_OK, i));
    }
    ExpectRoundTrip(*client, "still served");
}

// "reconn" frees slots while a connect is under way; finalize ends a connect still opening.
TEST_F(FaultTest, ReconnectAndFinalizeWhileAConnectIsUnderWay) {
    auto server = MakeServer(m_guid, 4);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server);
    RawClient dropped(m_guid, 900019), late(m_guid, 900021);
    ASSERT_EQ(0u, dropped.connect());
    ASSERT_TRUE(late.connectWithoutReader());
    ASSERT_TRUE(m_capture.wait("opening m_fdsSendResponse " + late.path("svr-rsp")));
    server->dump("reconn");
    EXPECT_EQ(0u, late.answerConnect());
    // The late client keeps slot 2, chosen before slot 1 was freed.
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    ASSERT_TRUE(serverLoop.waitConnections(3));
    EXPECT_EQ(std::vector<unsigned long>({1, 2, 1}), serverLoop.connections());
    ExpectRoundTrip(*client, "after");
    RawClient stuck(m_guid, 900023);
    ASSERT_TRUE(stuck.connectWithoutReader());
    ASSERT_TRUE(m_capture.wait("opening m_fdsSendResponse " + stuck.path("svr-rsp")));
    EXPECT_EQ(S_OK, server->finalize());
    serverLoop.join();
    EXPECT_EQ(QVIPC_E_SHUTDOWN, serverLoop.results().back().hr);
    EXPECT_EQ(3u, serverLoop.connections().size());
}

// The test plays a server that opens the reply FIFO and dies: the client CONNECTs again.
TEST_F(FaultTest, ClientConnectsAgainWhenItsServerDiesBeforeTheReply) {
    const std::string admin = "/tmp/" + m_guid + "-svr-admin";
    ASSERT_EQ(0, mknod(admin.c_str(), S_IFIFO | 0666, 0));
    const int adminFd = open(admin.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_NE(-1, adminFd);
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    auto nextRecord = [&] {
        qvframe::RequestFrame rec{};
        WaitFor([&] { return read(adminFd, rec, sizeof rec) == sizeof rec; }, DEADLINE);
        return qvframe::parseRequest(rec);
    };
    const qvframe::RequestHeader connect = nextRecord();
    ASSERT_EQ(qvframe::TYPE_CONNECT, connect.type);
    close(open(("/tmp/" + m_guid + "-svr-rsp-" + std::to_string(connect.connectId) + "-p" +
                std::to_string(connect.pid))
                   .c_str(),
               O_WRONLY | O_NONBLOCK));
    EXPECT_EQ(QVIPC_REQUEST_DISCONNECT, nextRecord().type);
    const qvframe::RequestHeader again = nextRecord();
    EXPECT_EQ(qvframe::TYPE_CONNECT, again.type);
    EXPECT_EQ(connect.connectId, again.connectId);
    EXPECT_EQ(S_OK, client->finalize());
    close(adminFd);
}

// Descriptors that would not fit a select() set are refused until low numbers are free.
TEST_F(FaultTest, DescriptorsBeyondFdSetSizeAreRefused) {
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    if (limit.rlim_max < FD_SETSIZE + 64) GTEST_SKIP() << "descriptor limit too low";
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, FD_SETSIZE + 64);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    std::vector<int> low;
    auto takeLow = [&] {  // every free number below FD_SETSIZE
        int fd;
        while ((fd = dup(0)) >= 0 && fd < FD_SETSIZE) low.push_back(fd);
        if (fd >= 0) close(fd);
    };
    auto freeLow = [&](size_t n) {
        for (; n > 0 && !low.empty(); --n, low.pop_back()) close(low.back());
    };
    auto server = MakeServer(m_guid, 4);
    takeLow();
    ASSERT_GE(low.size(), 2u);
    EXPECT_EQ(QVIPC_E_CREATE_PIPE, server->initialize());
    freeLow(2);  // room for the pipe only: the admin FIFO's read end would be the high one
    EXPECT_EQ(QVIPC_E_CREATE_PIPE, server->initialize());
    freeLow(low.size());
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server);
    takeLow();
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    ASSERT_TRUE(m_capture.wait("creating /tmp/" + m_guid + "-svr-req-3-p"));  // connect id 3
    EXPECT_TRUE(serverLoop.connections().empty());
    freeLow(low.size());
    ASSERT_TRUE(serverLoop.waitConnections(1));  // it asks again after a pause
    ExpectRoundTrip(*client, "low again");
}

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
