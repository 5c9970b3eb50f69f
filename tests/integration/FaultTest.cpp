// Bad input and faults that a peer can cause: garbage on the admin FIFO, headers of unknown
// type, bodies cut short by a dying writer, FIFOs kept full against a send time-out, peers that
// die half-way through a connect, descriptors beyond FD_SETSIZE. Each must give its designed
// result, and the other clients must keep being served.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

const uint32_t PID = static_cast<uint32_t>(getpid());

class FaultTest : public EndpointTest {
protected:
    void TearDown() override {
        freeFillers(m_fillers.size());
        if (m_limitRaised) setrlimit(RLIMIT_NOFILE, &m_savedLimit);
        EndpointTest::TearDown();
    }

    // Lets descriptors go beyond FD_SETSIZE until TearDown; false when the hard limit is lower.
    bool raiseDescriptorLimit() {
        if (getrlimit(RLIMIT_NOFILE, &m_savedLimit) != 0) return false;
        if (m_savedLimit.rlim_max < FD_SETSIZE + 64) return false;
        rlimit raised = m_savedLimit;
        if (raised.rlim_cur < FD_SETSIZE + 64) raised.rlim_cur = FD_SETSIZE + 64;
        m_limitRaised = setrlimit(RLIMIT_NOFILE, &raised) == 0;
        return m_limitRaised;
    }

    // Takes every free descriptor number below FD_SETSIZE.
    void fillLowDescriptors() {
        for (int fd = dup(0); fd != -1; fd = dup(0)) {
            if (fd >= FD_SETSIZE) {
                close(fd);
                break;
            }
            m_fillers.push_back(fd);
        }
    }
    void freeFillers(size_t n) {
        for (; n > 0 && !m_fillers.empty(); --n) {
            close(m_fillers.back());
            m_fillers.pop_back();
        }
    }

    std::vector<int> m_fillers;
    rlimit m_savedLimit{};
    bool m_limitRaised = false;
};

TEST_F(FaultTest, AdminFifoGarbageChangesNothing) {
    ConnectedPair pair(m_guid, 4);
    ASSERT_TRUE(pair.ok);
    const std::string cases[] = {
        std::string(10, 'x'),  // a short record
        Record(0, 0, 0),
        Record(100, 0, 0),
        Record(QVIPC_REQUEST_INTERNAL, 0, 0),
        Record(100, 5, 5, 5) + Record(QVIPC_REQUEST_INTERNAL, 0, 0),
        Record(QVIPC_REQUEST_DISCONNECT, 777777, 1, 1),  // a connect id nobody holds
    };
    for (const std::string& bytes : cases) {
        ASSERT_TRUE(WriteAdmin(m_guid, bytes));
        ASSERT_TRUE(WaitFifoDrained("/tmp/" + m_guid + "-svr-admin"));
        ExpectRoundTrip(*pair.client, "still served");
    }
    // Slot 1 is still taken: the next client gets slot 2.
    RawClient next(m_guid, 900001);
    ASSERT_EQ(0u, next.connect());
    ASSERT_TRUE(pair.serverLoop->waitConnections(2));
    EXPECT_EQ(2ul, pair.serverLoop->connections()[1]);
    // Nothing of it reached the application.
    for (const Received& r : pair.serverLoop->results()) {
        EXPECT_TRUE(r.hr == S_OK || r.hr == QVIPC_E_NEW_CONNECTION) << std::hex << r.hr;
    }
}

TEST_F(FaultTest, DisconnectRecordFreesTheSlotOfItsConnectId) {
    ConnectedPair pair(m_guid, 4);
    ASSERT_TRUE(pair.ok);
    RawClient raw(m_guid, 900011);
    ASSERT_EQ(0u, raw.connect());
    ASSERT_TRUE(pair.serverLoop->waitConnections(2));
    EXPECT_EQ(2ul, pair.serverLoop->connections()[1]);
    ASSERT_TRUE(WriteAdmin(m_guid, Record(QVIPC_REQUEST_DISCONNECT, 900011, PID, 1)));
    // The freed slot goes to the next client; the disconnect itself is not reported.
    RawClient next(m_guid, 900013);
    ASSERT_EQ(0u, next.connect());
    ASSERT_TRUE(pair.serverLoop->waitConnections(3));
    EXPECT_EQ(2ul, pair.serverLoop->connections()[2]);
    EXPECT_EQ(0u, pair.serverLoop->count(QVIPC_E_DISCONNECTED));
    ExpectRoundTrip(*pair.client, "others still served");
}

TEST_F(FaultTest, ClientReconnectsAfterAShortResponseHeader) {
    ConnectedPair pair(m_guid, 4);
    ASSERT_TRUE(pair.ok);
    ExpectRoundTrip(*pair.client, "before");
    // Ten bytes where the client expects a 68-byte header (connect ids: server 1, client 3).
    const int fd = open(("/tmp/" + m_guid + "-svr-rsp-3-p" + std::to_string(PID)).c_str(),
                        O_WRONLY | O_NONBLOCK);
    ASSERT_NE(-1, fd);
    ASSERT_EQ(10, write(fd, "0123456789", 10));
    close(fd);
    EXPECT_EQ(QVIPC_E_READ, ReceiveResponse(*pair.client).hr);
    // The framing cannot resync: the client connects again, under the same connect id, to
    // slot 1 if the server saw the old write end close first, else to slot 2.
    ASSERT_TRUE(pair.serverLoop->waitConnections(2));
    const unsigned long again = pair.serverLoop->connections()[1];
    EXPECT_TRUE(again == 1 || again == 2) << again;
    ASSERT_TRUE(pair.clientLoop->waitConnections(2));
    ExpectRoundTrip(*pair.client, "after");
}

TEST_F(FaultTest, HeaderOfUnknownTypeYieldsAnEmptyResultAndItsBodyIsNotRead) {
    ConnectedPair pair(m_guid, 4);
    ASSERT_TRUE(pair.ok);
    RawClient raw(m_guid, 900001);
    ASSERT_EQ(0u, raw.connect());
    ASSERT_TRUE(pair.serverLoop->waitConnections(2));
    // Type 7 announces 100 bytes that never come; the data request right behind it is read.
    ASSERT_TRUE(raw.send(Frame(7, 1, 100, 3) + Frame(qvframe::TYPE_DATA, 2, 4, 9) + "body"));
    ASSERT_TRUE(pair.serverLoop->waitResult(S_OK, 2, 2));
    std::vector<Received> got;
    for (const Received& r : pair.serverLoop->results()) {
        if (r.ipcid == 2 && r.hr == S_OK) got.push_back(r);
    }
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(0ul, got[0].id + static_cast<unsigned long>(got[0].type));
    EXPECT_TRUE(got[0].bodyNull);
    EXPECT_EQ(2ul, got[1].id);
    EXPECT_EQ(9, got[1].type);
    EXPECT_EQ("body", got[1].body);
    ExpectRoundTrip(*pair.client, "others still served");
}

TEST_F(FaultTest, BodyCutShortByADyingWriterIsAFailedRead) {
    ConnectedPair pair(m_guid, 4);
    ASSERT_TRUE(pair.ok);
    // 0xFFFFFFFF bytes cannot be allocated on a 32-bit target (QVIPC_E_OUTOFMEMORY); where they
    // can, the writer's end of file ends the body (QVIPC_E_READ). Neither loops or crashes.
    const uint32_t announced[] = {1000, 0xFFFFFFFFu};
    for (size_t i = 0; i < 2; ++i) {
        SCOPED_TRACE(announced[i]);
        RawClient raw(m_guid, 900003 + 2 * static_cast<uint32_t>(i));
        ASSERT_EQ(0u, raw.connect());
        ASSERT_TRUE(pair.serverLoop->waitConnections(i + 2));
        EXPECT_EQ(2ul, pair.serverLoop->connections().back());  // the freed slot taken again
        ASSERT_TRUE(raw.send(Frame(qvframe::TYPE_DATA, 0, announced[i], 4) + "0123456789", true));
        ASSERT_TRUE(WaitFor(
            [&] {
                return pair.serverLoop->count(QVIPC_E_READ, 2) +
                           pair.serverLoop->count(QVIPC_E_OUTOFMEMORY, 2) >
                       i;
            },
            DEADLINE));
        const Received last = pair.serverLoop->results().back();
        EXPECT_TRUE(last.bodyNull);
        EXPECT_EQ(4, last.type);
        raw.closeAll();
        ExpectRoundTrip(*pair.client, "others still served");
    }
}

TEST_F(FaultTest, FullFifoMakesTheSendFailAfterItsTimeOut) {
    // The server sends with a 1-second time-out to a client that never reads requests.
    auto server = MakeServer(m_guid, 2, 48, 1);
    auto client = MakeClient(m_guid, 48, 1);
    ASSERT_EQ(S_OK, server->initialize());
    ASSERT_EQ(S_OK, client->initialize());
    RequestLoop serverLoop(*server);
    ASSERT_TRUE(serverLoop.waitConnections(1));
    const std::string chunk(16384, 'f');
    QVRESULT hr = S_OK;
    for (int i = 0; i < 64 && hr == S_OK; ++i) hr = SendWhenConnected(*server, chunk, 1, 1);
    EXPECT_EQ(QVIPC_E_WRITE, hr);
    ExpectRoundTrip(*client, "the other direction still works");
    client->finalize();
    server->finalize();
}

// A client that stops reading its responses costs the others no more than the send time-out.
TEST_F(FaultTest, ClientThatStopsReadingCostsTheOthersOnlyTheSendTimeOut) {
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
    // Three 30000-byte requests, each once the one before was taken: their echoes overfill the
    // slow client's 64 KiB FIFO.
    for (uint32_t i = 1; i <= 3; ++i) {
        ASSERT_TRUE(slow.send(Frame(qvframe::TYPE_DATA, i, 30000, 1) + std::string(30000, 's')));
        ASSERT_TRUE(serverLoop.waitResult(S_OK, i));
    }
    ExpectRoundTrip(*client, "still served");
}

TEST_F(FaultTest, FinalizeEndsAConnectThatWaitsForItsClient) {
    auto server = MakeServer(m_guid, 4);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server);
    RawClient raw(m_guid, 900009);
    ASSERT_TRUE(raw.connectWithoutReader());
    ASSERT_TRUE(m_capture.wait("opening m_fdsSendResponse " + raw.path("svr-rsp")));
    // The request loop sits in the 20 seconds of open tries; finalize does not wait them out.
    EXPECT_EQ(S_OK, server->finalize());
    serverLoop.join();
    EXPECT_EQ(QVIPC_E_SHUTDOWN, serverLoop.results().back().hr);
    EXPECT_TRUE(serverLoop.connections().empty());
}

// The reconnect command frees a server's slots on the caller's thread while the request loop is
// admitting another client; both change the slot tables and the connect-id map.
TEST_F(FaultTest, ReconnectCommandFreesSlotsWhileAConnectIsUnderWay) {
    auto server = MakeServer(m_guid, 4);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server);
    RawClient dropped(m_guid, 900019);
    ASSERT_EQ(0u, dropped.connect());
    RawClient late(m_guid, 900021);
    ASSERT_TRUE(late.connectWithoutReader());
    ASSERT_TRUE(m_capture.wait("opening m_fdsSendResponse " + late.path("svr-rsp")));
    server->dump("reconn");
    EXPECT_EQ(0u, late.answerConnect());
    // The late client keeps the slot chosen before slot 1 was freed; the next one gets 1.
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    ASSERT_TRUE(serverLoop.waitConnections(3));
    EXPECT_EQ(std::vector<unsigned long>({1, 2, 1}), serverLoop.connections());
    ExpectRoundTrip(*client, "after");
    client->finalize();
}

// A CONNECT whose sender died before the server could open its reply FIFO is given up as soon
// as the process is known to be gone, so that the clients queued behind it are served.
TEST_F(FaultTest, ConnectFromAProcessThatIsGoneIsGivenUpAtOnce) {
    const pid_t gone = fork();
    ASSERT_NE(-1, gone);
    if (gone == 0) _exit(0);
    ASSERT_EQ(gone, waitpid(gone, nullptr, 0));
    auto server = MakeServer(m_guid, 4);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server);
    ASSERT_TRUE(
        WriteAdmin(m_guid, Record(qvframe::TYPE_CONNECT, 900011, static_cast<uint32_t>(gone))));
    ASSERT_TRUE(m_capture.wait("pid " + std::to_string(gone) + " is gone"));
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    ASSERT_TRUE(serverLoop.waitConnections(1));
    EXPECT_EQ(1u, serverLoop.connections()[0]);
    ExpectRoundTrip(*client, "served");
    client->finalize();
}

// A server killed after it took a CONNECT and opened the client's reply FIFO never answers: the
// client sends its CONNECT again. The test plays the dying server on an admin FIFO of its own.
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
    const int replyFd = open(("/tmp/" + m_guid + "-svr-rsp-" + std::to_string(connect.connectId) +
                              "-p" + std::to_string(connect.pid))
                                 .c_str(),
                             O_WRONLY | O_NONBLOCK);
    ASSERT_NE(-1, replyFd);
    close(replyFd);                                          // the server dies here
    EXPECT_EQ(QVIPC_REQUEST_DISCONNECT, nextRecord().type);  // the failed attempt's
    const qvframe::RequestHeader again = nextRecord();
    EXPECT_EQ(qvframe::TYPE_CONNECT, again.type);
    EXPECT_EQ(connect.connectId, again.connectId);
    EXPECT_EQ(S_OK, client->finalize());
    close(adminFd);
}

// The server's internal pipe and admin read end must fit a select() set, or its receivers could
// never be woken; a client's FIFOs that would not fit are refused until low numbers are free.
TEST_F(FaultTest, DescriptorsBeyondFdSetSizeAreRefused) {
    if (!raiseDescriptorLimit()) GTEST_SKIP() << "descriptor limit too low";
    auto server = MakeServer(m_guid, 4);
    fillLowDescriptors();
    ASSERT_GE(m_fillers.size(), 2u);
    EXPECT_EQ(QVIPC_E_CREATE_PIPE, server->initialize());
    freeFillers(2);  // room for the pipe only: the admin FIFO's read end would be the high one
    EXPECT_EQ(QVIPC_E_CREATE_PIPE, server->initialize());
    freeFillers(m_fillers.size());
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server);

    fillLowDescriptors();
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    // Connect ids: the server drew 1, the client 3.
    ASSERT_TRUE(m_capture.wait("creating /tmp/" + m_guid + "-svr-req-3-p"));
    EXPECT_TRUE(serverLoop.connections().empty());
    freeFillers(m_fillers.size());
    // The client asks again after a pause and is admitted.
    ASSERT_TRUE(serverLoop.waitConnections(1));
    ExpectRoundTrip(*client, "low again");
    client->finalize();
}

}  // namespace
