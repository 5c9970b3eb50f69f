// Bad input and faults that a peer can cause: garbage on the admin FIFO, headers of unknown
// type, bodies cut short by a dying writer, a FIFO kept full against a send time-out. Each
// must give its designed result, and the other clients must keep being served.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "QVIPC/QVIPCLibrary/QVIPCErrors.h"
#include "tests/integration/IntegrationSupport.h"
#include "tests/support/TestSupport.h"

using namespace itest;

namespace {

class FaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_guid = qvtest::TestGuid();
        m_fdsBefore = qvtest::CountOpenFds();
    }
    void TearDown() override {
        // The endpoints' own account of a failure is the quickest way to its cause.
        if (HasFailure()) {
            for (const std::string& line : m_capture.lines()) fprintf(stderr, "%s\n", line.c_str());
        }
        if (m_limitRaised) setrlimit(RLIMIT_NOFILE, &m_savedLimit);
        qvtest::RemoveGuidFiles(m_guid);
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

    // Takes every free descriptor number below FD_SETSIZE; the caller closes them.
    static std::vector<int> fillLowDescriptors() {
        std::vector<int> fillers;
        for (int fd = dup(0); fd != -1; fd = dup(0)) {
            if (fd >= FD_SETSIZE) {
                close(fd);
                break;
            }
            fillers.push_back(fd);
        }
        return fillers;
    }

    // Waits until the server's request loop tries to open the reply FIFO of a raw client.
    bool waitReplyOpenTries(uint32_t connectId) {
        return WaitLine(m_capture,
                        "T/16/2 CQVIPCLibraryImpl::receiveRequestOnAdminPipe, opening "
                        "m_fdsSendResponse /tmp/" +
                            m_guid + "-svr-rsp-" + std::to_string(connectId) + "-p" +
                            std::to_string(getpid()));
    }

    ipctest::LineCapture m_capture;
    std::string m_guid;
    int m_fdsBefore = 0;
    rlimit m_savedLimit{};
    bool m_limitRaised = false;
};

TEST_F(FaultTest, AdminFifoGarbageIsReportedAndTheServerGoesOn) {
    {
        ConnectedPair pair(m_guid, 4, 48, true);
        ASSERT_TRUE(pair.ok);
        const std::string addr = AddressOf(m_capture, m_guid, 1);
        const std::string invalid =
            "L/0/64 (Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (" + addr +
            ") - invalid request";
        const std::string internal =
            "T/16/2 CQVIPCLibraryImpl::receiveRequestOnAdminPipe - QVIPC_REQUEST_INTERNAL";
        struct Case {
            const char* name;
            std::string bytes;
            std::string line;
            size_t count;  // how often the line has been seen after this case
        };
        const Case cases[] = {
            {"short record", std::string(10, 'x'),
             "L/0/64 (Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (" + addr +
                 "), read failed 0",
             1},
            {"code 0", RequestRecord(0, 0, 0, 0, 0, 0), invalid, 1},
            {"code 100", RequestRecord(100, 0, 0, 0, 0, 0), invalid, 2},
            {"internal", RequestRecord(99, 0, 0, 0, 0, 0), internal, 1},
            // An invalid record followed by a valid one in the same write: both are read.
            {"invalid then internal",
             RequestRecord(100, 5, 5, 5, 5, 5) + RequestRecord(99, 0, 0, 0, 0, 0), internal, 2},
            // A disconnect for a connect id that nobody holds changes nothing.
            {"unknown disconnect", RequestRecord(2, 0, 777777, 1, 0, 1), internal, 2},
        };
        for (const Case& c : cases) {
            SCOPED_TRACE(c.name);
            ASSERT_TRUE(WriteAdmin(m_guid, c.bytes));
            EXPECT_TRUE(WaitLine(m_capture, c.line, c.count));
            ExpectRoundTrip(*pair.client, c.name);
        }
        EXPECT_EQ(3u, CountLines(m_capture, invalid));
        // Nothing of it reached the application: one connection, then the echoed requests.
        for (const Received& r : pair.serverLoop->results()) {
            EXPECT_TRUE(r.hr == S_OK || r.hr == QVIPC_E_NEW_CONNECTION) << std::hex << r.hr;
        }
        EXPECT_EQ(1u, pair.serverLoop->connections().size());
    }
    EXPECT_EQ(m_fdsBefore, qvtest::CountOpenFds());
}

TEST_F(FaultTest, DisconnectRecordFreesTheSlotOfItsConnectId) {
    ConnectedPair pair(m_guid, 4, 48, true);
    ASSERT_TRUE(pair.ok);
    RawClient raw(m_guid, 900011);
    ASSERT_EQ(0u, raw.connect());
    ASSERT_TRUE(pair.serverLoop->waitConnections(2));
    EXPECT_EQ(2ul, pair.serverLoop->connections()[1]);
    const std::string pid = std::to_string(getpid());
    ASSERT_TRUE(
        WriteAdmin(m_guid, RequestRecord(2, 0, 900011, static_cast<uint32_t>(getpid()), 0, 1)));
    EXPECT_TRUE(WaitLine(m_capture, "T/16/2 CQVIPCLibraryImpl::receiveRequestOnAdminPipe (" +
                                        AddressOf(m_capture, m_guid, 1) +
                                        ") - QVIPC_REQUEST_DISCONNECT, pid " + pid +
                                        ", connect id 900011, fd id 2"));
    // The freed slot goes to the next client; the disconnect itself is not reported.
    RawClient next(m_guid, 900013);
    ASSERT_EQ(0u, next.connect());
    ASSERT_TRUE(pair.serverLoop->waitConnections(3));
    EXPECT_EQ(2ul, pair.serverLoop->connections()[2]);
    ExpectRoundTrip(*pair.client, "others still served");
}

TEST_F(FaultTest, ClientReconnectsAfterAShortResponseHeader) {
    ConnectedPair pair(m_guid, 4, 48, true);
    ASSERT_TRUE(pair.ok);
    ExpectRoundTrip(*pair.client, "before");
    // Ten bytes where the client expects a 68-byte header (connect ids: server 1, client 3).
    const std::string path = "/tmp/" + m_guid + "-svr-rsp-3-p" + std::to_string(getpid());
    const int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_NE(-1, fd);
    ASSERT_EQ(10, write(fd, "0123456789", 10));
    close(fd);
    EXPECT_EQ(QVIPC_E_READ, ReceiveResponse(*pair.client, 48).hr);
    const std::string caddr = AddressOf(m_capture, m_guid, 0);
    EXPECT_EQ(1u, CountLines(m_capture,
                             "L/0/64 (Error) CQVIPCLibraryImpl::receiveResponseOnClientPipe (" +
                                 caddr + "), read header failed, id 1, errno 0"));
    // The framing cannot resync: the client connects again, under the same connect id. Either
    // the server has freed slot 1 by then (it saw the client's old write end close), or it
    // still holds it, closes it as obsolete and gives slot 2.
    ASSERT_TRUE(pair.serverLoop->waitConnections(2));
    const unsigned long again = pair.serverLoop->connections()[1];
    EXPECT_TRUE(again == 1 || again == 2) << again;
    ASSERT_TRUE(pair.clientLoop->waitConnections(2));
    ExpectRoundTrip(*pair.client, "after");
}

TEST_F(FaultTest, HeaderOfUnknownTypeYieldsAnEmptyResultAndItsBodyIsNotRead) {
    ConnectedPair pair(m_guid, 4, 48, true);
    ASSERT_TRUE(pair.ok);
    RawClient raw(m_guid, 900001);
    ASSERT_EQ(0u, raw.connect());
    ASSERT_TRUE(pair.serverLoop->waitConnections(2));
    const unsigned long slot = pair.serverLoop->connections()[1];
    // Type 7 announces 100 bytes that never come; the data request right behind it is read.
    ASSERT_TRUE(raw.sendRaw(
        RequestRecord(7, 1, 0, 0, 100, 3) + RequestRecord(3, 2, 0, 0, 4, 9) + "body", false));
    ASSERT_TRUE(pair.serverLoop->waitResult(S_OK, 2));
    std::vector<Received> got;
    for (const Received& r : pair.serverLoop->results()) {
        if (r.ipcid == slot && r.hr == S_OK) got.push_back(r);
    }
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(0ul, got[0].requestId);
    EXPECT_EQ(0, got[0].requestType);
    EXPECT_TRUE(got[0].bodyNull);
    EXPECT_EQ(2ul, got[1].requestId);
    EXPECT_EQ(9, got[1].requestType);
    EXPECT_EQ("body", got[1].body);
    ExpectRoundTrip(*pair.client, "others still served");
}

TEST_F(FaultTest, BodyCutShortByADyingWriterIsAFailedRead) {
    ConnectedPair pair(m_guid, 4, 48, true);
    ASSERT_TRUE(pair.ok);
    const std::string addr = AddressOf(m_capture, m_guid, 1);
    struct Case {
        uint32_t announced;
        uint32_t connectId;
    };
    // 0xFFFFFFFF bytes cannot be allocated on a 32-bit target (QVIPC_E_OUTOFMEMORY); where they
    // can, the writer's end of file ends the body (QVIPC_E_READ). Neither loops or crashes.
    const Case cases[] = {{1000, 900003}, {0xFFFFFFFFu, 900005}};
    size_t failures = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.announced);
        const size_t connections = pair.serverLoop->connections().size() + 1;
        RawClient raw(m_guid, c.connectId);
        ASSERT_EQ(0u, raw.connect());
        ASSERT_TRUE(pair.serverLoop->waitConnections(connections));
        const unsigned long slot = pair.serverLoop->connections().back();
        EXPECT_EQ(2ul, slot);  // the slot freed by the previous case is taken again
        ASSERT_TRUE(raw.sendRaw(RequestRecord(3, 1, 0, 0, c.announced, 4) + "0123456789", true));
        // Every failed body read so far, this case's last.
        const auto failed = [&] {
            std::vector<Received> found;
            for (const Received& r : pair.serverLoop->results()) {
                if (r.hr == QVIPC_E_READ || r.hr == QVIPC_E_OUTOFMEMORY) found.push_back(r);
            }
            return found;
        };
        ASSERT_TRUE(qvtest::WaitFor([&] { return failed().size() > failures; }, DEADLINE));
        ++failures;
        const Received last = pair.serverLoop->results().back();
        EXPECT_TRUE(last.hr == QVIPC_E_READ || last.hr == QVIPC_E_OUTOFMEMORY)
            << std::hex << last.hr;
        EXPECT_TRUE(last.bodyNull);
        EXPECT_EQ(4, last.requestType);
        raw.closeAll();
        ExpectRoundTrip(*pair.client, "others still served");
    }
    EXPECT_EQ(
        failures,
        CountLines(m_capture, "L/0/64 (Error) CQVIPCLibraryImpl::receiveRequestOnClientPipe (" +
                                  addr + "), read message failed 0") +
            CountLines(m_capture, "L/0/64 (Error) CQVIPCLibraryImpl::receiveRequestOnClientPipe (" +
                                      addr + "), read message failed 12"));
}

TEST_F(FaultTest, FullFifoMakesTheSendFailAfterItsTimeOut) {
    {
        // The server sends with a 1-second time-out to a client that never reads requests.
        auto server = MakeServer(m_guid, 2, 48, 1);
        auto client = MakeClient(m_guid, 48, 1);
        ASSERT_EQ(S_OK, server->initialize());
        ASSERT_EQ(S_OK, client->initialize());
        RequestLoop serverLoop(*server, 48, true);
        ASSERT_TRUE(serverLoop.waitConnections(1));
        const unsigned long slot = serverLoop.connections()[0];
        unsigned long id = 0;
        const std::string chunk(16384, 'f');
        QVRESULT hr = S_OK;
        for (int i = 0; i < 64 && hr == S_OK; ++i) {
            hr = server->sendRequest(slot, chunk.data(), chunk.size(), &id, 1, nullptr);
        }
        EXPECT_EQ(QVIPC_E_WRITE, hr);
        const std::string addr = AddressOf(m_capture, m_guid, 1);
        EXPECT_EQ(1u, CountLines(m_capture, "L/0/64 (Error) CQVIPCLibraryImpl::sendRequest (" +
                                                addr + "), writev failed 11"));
        // The other direction still works.
        ExpectRoundTrip(*client, "after the full fifo");
        client->finalize();
        server->finalize();
    }
    EXPECT_EQ(m_fdsBefore, qvtest::CountOpenFds());
}

// A client that stops reading its responses costs the server's other clients no more than the
// send time-out: the echo to it fails once its FIFO stays full for a second, and the server goes
// on serving. (What the failed send leaves in that FIFO, a torn message, is that client's loss.)
TEST_F(FaultTest, ClientThatStopsReadingCostsTheOthersOnlyTheSendTimeOut) {
    auto server = MakeServer(m_guid, 4, 48, 1);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server, 48, true);
    auto client = MakeClient(m_guid, 48, 1);
    ASSERT_EQ(S_OK, client->initialize());
    RequestLoop clientLoop(*client, 48, false);
    ASSERT_TRUE(clientLoop.waitConnections(1));
    RawClient slow(m_guid, 900015);
    ASSERT_EQ(0u, slow.connect());
    ASSERT_TRUE(serverLoop.waitConnections(2));

    // Three 30000-byte requests: their echoes overfill the slow client's 64 KiB FIFO.
    const std::string body(30000, 's');
    // Each goes once the server has taken the one before: the raw write end does not wait.
    for (uint32_t i = 1; i <= 3; ++i) {
        ASSERT_TRUE(slow.sendRaw(RequestRecord(3, 0x80000000u + i, 0, 0, 30000, 1) + body, false));
        ASSERT_TRUE(serverLoop.waitResult(S_OK, i));
    }
    ASSERT_TRUE(WaitLine(m_capture, "L/0/64 (Error) CQVIPCLibraryImpl::sendResponse (" +
                                        AddressOf(m_capture, m_guid, 1) + "), writev failed 11"));
    unsigned long id = 0;
    ASSERT_EQ(S_OK, client->sendRequest(0, "still served", 12, &id, 1, nullptr));
    const Received r = ReceiveResponse(*client, 48);
    EXPECT_EQ(S_OK, r.hr);
    EXPECT_EQ(id, r.requestId);
    EXPECT_EQ("still served", r.body);
}

TEST_F(FaultTest, FinalizeEndsAConnectThatWaitsForItsClient) {
    auto server = MakeServer(m_guid, 4);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server, 48, true);
    RawClient raw(m_guid, 900009);
    ASSERT_TRUE(raw.connectWithoutReader());
    ASSERT_TRUE(waitReplyOpenTries(900009));
    // The server's loop sits in the 20 seconds of open tries; finalize does not wait them out.
    EXPECT_EQ(S_OK, server->finalize());
    serverLoop.join();
    EXPECT_EQ(QVIPC_E_SHUTDOWN, serverLoop.results().back().hr);
    EXPECT_TRUE(serverLoop.connections().empty());
}

// The reconnect command frees a server's slots on the caller's thread while the request loop is
// admitting another client; both change the slot tables and the connect-id map.
TEST_F(FaultTest, ReconnectCommandFreesSlotsWhileAConnectIsUnderWay) {
    {
        auto server = MakeServer(m_guid, 4);
        ASSERT_EQ(S_OK, server->initialize());
        RequestLoop serverLoop(*server, 48, true);
        RawClient dropped(m_guid, 900019);
        ASSERT_EQ(0u, dropped.connect());
        RawClient late(m_guid, 900021);
        ASSERT_TRUE(late.connectWithoutReader());
        ASSERT_TRUE(waitReplyOpenTries(900021));
        server->dump("reconn");
        EXPECT_EQ(0u, late.answerConnect());
        // The late client keeps the slot chosen before slot 1 was freed; the next one gets 1.
        auto client = MakeClient(m_guid);
        ASSERT_EQ(S_OK, client->initialize());
        ASSERT_TRUE(serverLoop.waitConnections(3));
        EXPECT_EQ(std::vector<unsigned long>({1, 2, 1}), serverLoop.connections());
        ExpectRoundTrip(*client, "after");
        client->finalize();
        server->finalize();
    }
    EXPECT_EQ(m_fdsBefore, qvtest::CountOpenFds());
}

// A CONNECT whose sender died before the server could open its reply FIFO is given up as soon
// as the process is known to be gone, not after the 20 seconds of open tries, so that the
// clients queued behind it are served.
TEST_F(FaultTest, ConnectFromAProcessThatIsGoneIsGivenUpAtOnce) {
    const pid_t gone = fork();
    ASSERT_NE(-1, gone);
    if (gone == 0) _exit(0);
    ASSERT_EQ(gone, waitpid(gone, nullptr, 0));

    auto server = MakeServer(m_guid, 4);
    ASSERT_EQ(S_OK, server->initialize());
    RequestLoop serverLoop(*server, 48, true);
    ASSERT_TRUE(WriteAdmin(m_guid, RequestRecord(1, 0, 900011, static_cast<uint32_t>(gone), 0, 0)));
    ASSERT_TRUE(WaitLine(m_capture, "T/16/2 CQVIPCLibraryImpl::receiveRequestOnAdminPipe, pid " +
                                        std::to_string(gone) + " is gone"));
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());
    RequestLoop clientLoop(*client, 48, false);
    ASSERT_TRUE(serverLoop.waitConnections(1));
    EXPECT_EQ(1u, serverLoop.connections()[0]);
    ASSERT_TRUE(clientLoop.waitConnections(1));
}

// A server killed after it took a CONNECT and opened the client's reply FIFO never answers. The
// client must send its CONNECT again (to the server's successor) instead of waiting for that
// reply until it finalizes. The test plays the dying server on an admin FIFO of its own.
TEST_F(FaultTest, ClientConnectsAgainWhenItsServerDiesBeforeTheReply) {
    const std::string admin = "/tmp/" + m_guid + "-svr-admin";
    ASSERT_EQ(0, mknod(admin.c_str(), S_IFIFO | 0666, 0));
    const int adminFd = open(admin.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_NE(-1, adminFd);
    auto client = MakeClient(m_guid);
    ASSERT_EQ(S_OK, client->initialize());

    auto nextRecord = [&](uint32_t* type, uint32_t* connectId, uint32_t* pid) {
        char rec[72];
        const bool got =
            qvtest::WaitFor([&] { return read(adminFd, rec, sizeof rec) == 72; }, DEADLINE);
        if (got) {
            std::memcpy(type, rec, 4);
            std::memcpy(connectId, rec + 8, 4);
            std::memcpy(pid, rec + 12, 4);
        }
        return got;
    };
    uint32_t type = 0, connectId = 0, pid = 0;
    ASSERT_TRUE(nextRecord(&type, &connectId, &pid));
    ASSERT_EQ(1u, type);
    const std::string replyPath =
        "/tmp/" + m_guid + "-svr-rsp-" + std::to_string(connectId) + "-p" + std::to_string(pid);
    const int replyFd = open(replyPath.c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_NE(-1, replyFd);
    close(replyFd);  // the server dies here

    uint32_t again = 0, againId = 0, againPid = 0;
    ASSERT_TRUE(nextRecord(&again, &againId, &againPid));
    EXPECT_EQ(2u, again);  // the failed attempt's DISCONNECT
    ASSERT_TRUE(nextRecord(&again, &againId, &againPid));
    EXPECT_EQ(1u, again);
    EXPECT_EQ(connectId, againId);
    EXPECT_EQ(S_OK, client->finalize());
    close(adminFd);
}

// The server's internal pipe and admin read end must fit a select() set, or its receivers
// could never be woken and finalize would wait for ever.
TEST_F(FaultTest, ServerStartUpRefusesDescriptorsBeyondFdSetSize) {
    if (!raiseDescriptorLimit()) GTEST_SKIP() << "descriptor limit too low";
    {
        auto server = MakeServer(m_guid, 4);
        std::vector<int> fillers = fillLowDescriptors();
        ASSERT_GE(fillers.size(), 2u);
        EXPECT_EQ(QVIPC_E_CREATE_PIPE, server->initialize());
        EXPECT_EQ(1u, CountLines(m_capture,
                                 "L/0/64 (Error) CQVIPCLibraryImpl::initialize, create server "
                                 "response admin pipe, errno 24"));
        // Room for the pipe only: the admin FIFO's read end would be the high one.
        close(fillers.back());
        fillers.pop_back();
        close(fillers.back());
        fillers.pop_back();
        EXPECT_EQ(QVIPC_E_CREATE_PIPE, server->initialize());
        EXPECT_EQ(1u, CountLines(m_capture,
                                 "L/0/64 (Error) CQVIPCLibraryImpl::initialize, can't "
                                 "create recv pipe /tmp/" +
                                     m_guid + "-svr-admin, errno 24"));
        for (const int fd : fillers) close(fd);
        EXPECT_EQ(S_OK, server->initialize());
        RequestLoop serverLoop(*server, 48, true);
        EXPECT_EQ(S_OK, server->finalize());
        serverLoop.join();
        EXPECT_EQ(QVIPC_E_SHUTDOWN, serverLoop.results().back().hr);
    }
    EXPECT_EQ(m_fdsBefore, qvtest::CountOpenFds());
}

TEST_F(FaultTest, DescriptorsBeyondFdSetSizeRefuseTheConnectUntilLowOnesAreFree) {
    if (!raiseDescriptorLimit()) GTEST_SKIP() << "descriptor limit too low";
    {
        auto server = MakeServer(m_guid, 4);
        ASSERT_EQ(S_OK, server->initialize());
        RequestLoop serverLoop(*server, 48, true);
        const std::string addr = AddressOf(m_capture, m_guid, 1);
        // Every number below FD_SETSIZE taken: the server's next read ends would not fit a set.
        const std::vector<int> fillers = fillLowDescriptors();
        auto client = MakeClient(m_guid);
        ASSERT_EQ(S_OK, client->initialize());
        // Connect ids: the server drew 1, the client 3.
        EXPECT_TRUE(
            WaitLine(m_capture, "L/0/64 (Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (" +
                                    addr + "), creating /tmp/" + m_guid + "-svr-req-3-p" +
                                    std::to_string(getpid()) + ", 24"));
        EXPECT_TRUE(serverLoop.connections().empty());
        for (const int fd : fillers) close(fd);
        // The client asks again after a pause and is admitted.
        ASSERT_TRUE(serverLoop.waitConnections(1));
        ExpectRoundTrip(*client, "low again");
        client->finalize();
        server->finalize();
    }
    EXPECT_EQ(m_fdsBefore, qvtest::CountOpenFds());
}

}  // namespace
