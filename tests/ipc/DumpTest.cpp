#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "json/JSONSerialize.h"
#include "tests/ipc/IpcTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;

class DumpTest : public testing::Test {
protected:
    void SetUp() override { guid_ = qvtest::TestGuid(); }
    void TearDown() override { qvtest::RemoveGuidFiles(guid_); }

    // Puts a peer into slot s as the admin handling would, with the given descriptors.
    static void fillSlot(CQVIPCLibraryImpl& impl, int s, unsigned long connectId, unsigned long pid,
                         int recvReq, int sendRsp, int sendReq, int recvRsp) {
        impl.m_slotConnectId[s] = connectId;
        impl.m_slotPid[s] = pid;
        impl.m_fdsRecvRequest[s] = recvReq;
        impl.m_fdsSendResponse[s] = sendRsp;
        impl.m_fdsSendRequest[s] = sendReq;
        impl.m_fdsRecvResponse[s] = recvRsp;
    }

    static std::string dumpText(CQVIPCLibraryImpl& impl) {
        JSON::Serialize w;
        impl.dumpToJSONBuffer(w);
        EXPECT_FALSE(w.m_error);
        return w.String();
    }

    std::string guid_;
};

TEST_F(DumpTest, ServerListsEachConnectedSlotWithNamesAndOpenHandles) {
    CQVIPCLibraryImpl impl("My \"Title\"", guid_, 1, 4, 8, NO_TIMEOUT);
    impl.m_strGuid = "abc";  // the names follow the guid alone
    EXPECT_EQ(
        "{\"title\":\"My \\\"Title\\\"\",\"guid\":\"abc\",\"is-server\":1,\"max-connections\":5,"
        "\"header-ext-size\":8,\"connect-id\":1,\"next-request-id\":1,\"connection-array\":[]}",
        dumpText(impl));

    fillSlot(impl, 1, 3, 1234, 10, 11, 12, 13);
    fillSlot(impl, 3, 0xFFFFFFFFul, 77, -1, -1, -1, 20);  // only one descriptor still open
    impl.m_connectId = 0x80000000ul;
    impl.m_nextRequestId = 42;
    EXPECT_EQ(
        "{\"title\":\"My \\\"Title\\\"\",\"guid\":\"abc\",\"is-server\":1,\"max-connections\":5,"
        "\"header-ext-size\":8,\"connect-id\":-2147483648,\"next-request-id\":42,"
        "\"connection-array\":["
        "{\"pid\":1234,"
        "\"pipe-name-recv-req\":\"/tmp/abc-svr-req-3-p1234\",\"pipe-handle-recv-req\":10,"
        "\"pipe-name-send-rsp\":\"/tmp/abc-svr-rsp-3-p1234\",\"pipe-handle-send-rsp\":11,"
        "\"pipe-name-send-req\":\"/tmp/abc-cli-req-3-p1234\",\"pipe-handle-send-req\":12,"
        "\"pipe-name-recv-rsp\":\"/tmp/abc-cli-rsp-3-p1234\",\"pipe-handle-recv-rsp\":13},"
        "{\"pid\":77,"
        "\"pipe-name-recv-req\":\"/tmp/abc-svr-req--1-p77\","
        "\"pipe-name-send-rsp\":\"/tmp/abc-svr-rsp--1-p77\","
        "\"pipe-name-send-req\":\"/tmp/abc-cli-req--1-p77\","
        "\"pipe-name-recv-rsp\":\"/tmp/abc-cli-rsp--1-p77\",\"pipe-handle-recv-rsp\":20}]}",
        dumpText(impl));

    fillSlot(impl, 1, 0, 0, -1, -1, -1, -1);
    fillSlot(impl, 3, 0, 0, -1, -1, -1, -1);
    impl.m_strGuid = guid_;
}

TEST_F(DumpTest, ClientShowsItsOwnFifosAndTheServerPidAndDumpsAppendToTheWriter) {
    CQVIPCLibraryImpl server("s", guid_, 1, 0xFFFFFFFFul, 0, NO_TIMEOUT);
    CQVIPCLibraryImpl client("c", guid_, 0, 9, 0, 5);
    const std::string c = client.m_strConnectId;
    const std::string p = client.m_strPid;
    fillSlot(client, 1, client.m_connectId, getpid(), 30, -1, 31, -1);
    client.m_serverPid = 4321;

    JSON::Serialize w;
    w.AO();
    server.dumpToJSONBuffer(w);
    client.dumpToJSONBuffer(w);
    w.AC();
    const std::string prefix = "/tmp/" + guid_;
    EXPECT_EQ("[{\"title\":\"s\",\"guid\":\"" + guid_ +
                  "\",\"is-server\":1,\"max-connections\":0,\"header-ext-size\":0,"
                  "\"connect-id\":1,\"next-request-id\":1,\"connection-array\":[]},"
                  "{\"title\":\"c\",\"guid\":\"" +
                  guid_ +
                  "\",\"is-server\":0,\"max-connections\":2,\"header-ext-size\":0,"
                  "\"connect-id\":3,\"next-request-id\":1,\"connection-array\":["
                  "{\"pid\":4321,"
                  "\"pipe-name-recv-req\":\"" +
                  prefix + "-svr-req-" + c + "-p" + p +
                  "\",\"pipe-handle-recv-req\":30,"
                  "\"pipe-name-send-rsp\":\"" +
                  prefix + "-svr-rsp-" + c + "-p" + p +
                  "\","
                  "\"pipe-name-send-req\":\"" +
                  prefix + "-cli-req-" + c + "-p" + p +
                  "\",\"pipe-handle-send-req\":31,"
                  "\"pipe-name-recv-rsp\":\"" +
                  prefix + "-cli-rsp-" + c + "-p" + p + "\"}]}]",
              w.String());
    EXPECT_FALSE(w.m_error);
    fillSlot(client, 1, 0, 0, -1, -1, -1, -1);
}

TEST_F(DumpTest, ReconnCommandReconnectsEveryLiveSlotAndOtherCommandsOnlyLog) {
    CQVIPCLibraryImpl impl("Title", guid_, 1, 4, 0, NO_TIMEOUT);
    int a[2];
    int b[2];
    ASSERT_EQ(0, pipe(a));
    ASSERT_EQ(0, pipe(b));
    // The endpoint owns these descriptors now; dropping the slots closes them.
    fillSlot(impl, 1, 3, 1000, -1, -1, a[1], a[0]);
    fillSlot(impl, 3, 5, 1001, -1, -1, b[1], b[0]);

    {
        ipctest::LineCapture capture;
        impl.dump("Reconn");
        impl.dump("");
        EXPECT_EQ(std::vector<std::string>({"L/0/2 --dumpIPC \"Reconn\" - \"Title\"",
                                            "L/0/2 --dumpIPC \"\" - \"Title\""}),
                  capture.lines());
    }
    ipctest::LineCapture capture;
    impl.dump("reconn");
    std::vector<std::string> notices;
    for (const std::string& line : capture.lines()) {
        if (line.compare(0, 2, "L/") == 0) notices.push_back(line);
    }
    EXPECT_EQ(std::vector<std::string>({"L/0/2 --dumpIPC \"reconn\" - \"Title\"",
                                        "L/0/2 --dumpIPC, calling enableClientReconnect(1)",
                                        "L/0/2 --dumpIPC, calling enableClientReconnect(3)"}),
              notices);
    EXPECT_EQ(-1, impl.m_fdsRecvResponse[1]);
    EXPECT_EQ(-1, impl.m_fdsRecvResponse[3]);
}

}  // namespace
