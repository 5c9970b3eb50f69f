// The diagnostics dump, one JSON object per endpoint, and the "reconn" command.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "json/JSONSerialize.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

// Puts a peer into slot s as the admin handling would, with the given descriptors.
void fillSlot(CQVIPCLibraryImpl& impl, int s, unsigned long connectId, unsigned long pid,
              const std::vector<int>& fds) {
    impl.m_slotConnectId[s] = connectId;
    impl.m_slotPid[s] = pid;
    impl.m_fdsRecvRequest[s] = fds[0];
    impl.m_fdsSendResponse[s] = fds[1];
    impl.m_fdsSendRequest[s] = fds[2];
    impl.m_fdsRecvResponse[s] = fds[3];
}
void emptySlot(CQVIPCLibraryImpl& impl, int s) { fillSlot(impl, s, 0, 0, {-1, -1, -1, -1}); }

using DumpTest = EndpointTest;

TEST_F(DumpTest, ServerListsEachConnectedSlotWithNamesAndOpenHandles) {
    CQVIPCLibraryImpl impl("My \"Title\"", m_guid, 1, 4, 8, NO_TIMEOUT);
    impl.m_strGuid = "abc";  // the names follow the guid alone
    fillSlot(impl, 1, 3, 1234, {10, 11, 12, 13});
    fillSlot(impl, 3, 0xFFFFFFFFul, 77, {-1, -1, -1, 20});  // one descriptor still open
    impl.m_connectId = 0x80000000ul;
    impl.m_nextRequestId = 42;
    JSON::Serialize after;
    impl.dumpToJSONBuffer(after);
    std::string first = "{\"pid\":1234", second = "{\"pid\":77";
    const std::string ends[] = {"recv-req", "send-rsp", "send-req", "recv-rsp"};
    const std::string files[] = {"svr-req", "svr-rsp", "cli-req", "cli-rsp"};
    for (int i = 0; i < 4; ++i) {
        const std::string name = ",\"pipe-name-" + ends[i] + "\":\"/tmp/abc-" + files[i];
        first += name + "-3-p1234\",\"pipe-handle-" + ends[i] + "\":" + std::to_string(10 + i);
        second += name + "--1-p77\"";
    }
    EXPECT_EQ(
        "{\"title\":\"My \\\"Title\\\"\",\"guid\":\"abc\",\"is-server\":1,\"max-connections\":5,"
        "\"header-ext-size\":8,\"connect-id\":-2147483648,\"next-request-id\":42,"
        "\"connection-array\":[" +
            first + "}," + second + ",\"pipe-handle-recv-rsp\":20}]}",
        after.String());
    EXPECT_FALSE(after.m_error);
    for (int s : {1, 3}) emptySlot(impl, s);
    impl.m_strGuid = m_guid;
}

// A client lists its one connection under the server's pid, whatever the slot holds.
TEST_F(DumpTest, ClientShowsTheServerPid) {
    CQVIPCLibraryImpl client("c", m_guid, 0, 9, 0, 5);
    fillSlot(client, 1, client.m_connectId, getpid(), {30, -1, 31, -1});
    client.m_serverPid = 4321;
    JSON::Serialize w;
    client.dumpToJSONBuffer(w);
    EXPECT_NE(std::string::npos, w.String().find("\"is-server\":0,\"max-connections\":2,"));
    EXPECT_NE(std::string::npos, w.String().find("[{\"pid\":4321,"));
    emptySlot(client, 1);
}

TEST_F(DumpTest, ReconnCommandDropsEveryLiveSlotAndOtherCommandsChangeNothing) {
    CQVIPCLibraryImpl impl("Title", m_guid, 1, 4, 0, NO_TIMEOUT);
    int a[2], b[2];
    ASSERT_EQ(0, pipe(a) + pipe(b));
    // The endpoint owns these descriptors now; dropping the slots closes them.
    fillSlot(impl, 1, 3, 1000, {-1, -1, a[1], a[0]});
    fillSlot(impl, 3, 5, 1001, {-1, -1, b[1], b[0]});
    const int fds = CountOpenFds();
    for (const char* other : {"Reconn", "", "dump"}) impl.dump(other);
    EXPECT_EQ(fds, CountOpenFds());
    impl.dump("reconn");
    EXPECT_EQ(fds - 4, CountOpenFds());
    // Operators search the log for these lines.
    const std::vector<std::string> lines = m_capture.lines();
    for (const std::string line : {"L/0/2 --dumpIPC \"dump\" - \"Title\"",
                                   "L/0/2 --dumpIPC, calling enableClientReconnect(1)",
                                   "L/0/2 --dumpIPC, calling enableClientReconnect(3)"}) {
        EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), line)) << line;
    }
}

}  // namespace
