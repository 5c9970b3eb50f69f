// The endpoint object before initialize: the constructor's checks and what it leaves behind,
// the names of the service's FIFOs and their removal.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "QVIPC/Library-Linux/PipenameRegistry.h"
#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "common/LQException.h"
#include "platform/TraceUtility.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

bool Exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

using ConstructionTest = EndpointTest;

TEST_F(ConstructionTest, ChecksRunInOrderAndTheExtensionCheckPrecedesEverything) {
    struct Case {
        int isServer;
        unsigned long maxConnections;
        unsigned long headerExtSize;
        uint32_t code;
    };
    const Case cases[] = {
        {1, 10, 48, 0},
        {0, 1, 49, QVIPC_E_HEADER_EXT_SIZE},
        {1, 64, 49, QVIPC_E_HEADER_EXT_SIZE},
        {1, 63, 0, 0},
        {1, 64, 0, QVIPC_E_TOO_MANY_CLIENTS},
        {1, 0xFFFFFFFFul, 0, 0},  // the slot count wraps to 0
        {0, 1000, 0, 0},          // a client ignores the count
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.maxConnections);
        m_moreGuids.push_back(TestGuid());
        long thrown = 0;
        try {
            CQVIPCLibrary lib("t", m_moreGuids.back(), c.isServer, c.maxConnections,
                              c.headerExtSize, 7);
        } catch (const LQException& e) {
            thrown = e.code;
        }
        EXPECT_EQ(static_cast<long>(c.code), thrown);
        EXPECT_EQ(nullptr, g_ptu);  // every reference was dropped again
        // A refusal comes before the id generator makes anything.
        EXPECT_EQ(c.code == 0, Exists("/dev/shm/" + m_moreGuids.back() + "-IDGENSHMEM"));
    }
}

TEST_F(ConstructionTest, FreshEndpointHoldsNoDescriptorAndOnlyTheIdGeneratorsFiles) {
    CQVIPCLibraryImpl impl("My Title", m_guid, 0, 0, 12, NO_TIMEOUT);
    EXPECT_EQ(m_fdsBefore, CountOpenFds());
    EXPECT_TRUE(GuidFiles(m_guid).empty());
    EXPECT_TRUE(Exists("/tmp/" + m_guid + "-IDGENMTX.lock"));
}

TEST_F(ConstructionTest, FacadeLowersTheGuidAndKeepsItsFirst63Characters) {
    const std::pair<std::string, std::string> cases[] = {
        {"My-Svc-" + m_guid, ("my-svc-" + m_guid).substr(0, 63)},
        {m_guid + std::string(100, 'X'), (m_guid + std::string(100, 'x')).substr(0, 63)},
    };
    for (const auto& c : cases) {
        m_moreGuids.push_back(c.second);
        CQVIPCLibrary lib("Title", c.first, 0, 0, 0, 7);
        EXPECT_TRUE(Exists("/dev/shm/" + c.second + "-IDGENSHMEM")) << c.second;
    }
}

TEST_F(ConstructionTest, NamesFollowGuidConnectIdAndProcessId) {
    CQVIPCLibraryImpl impl("Title", m_guid, 0, 0, 0, NO_TIMEOUT);
    impl.m_strGuid = "abc";  // the names depend on nothing else of the endpoint
    EXPECT_EQ("/tmp/abc-svr-admin", impl.pipenameServerAdmin());
    EXPECT_EQ("/tmp/abc-svr-req-3-p1234", impl.pipenameServerRequest("3", "1234"));
    EXPECT_EQ("/tmp/abc-svr-rsp-3-p1234", impl.pipenameServerResponse("3", "1234"));
    EXPECT_EQ("/tmp/abc-cli-req-3-p1234", impl.pipenameClientRequest("3", "1234"));
    EXPECT_EQ("/tmp/abc-cli-rsp-3-p1234", impl.pipenameClientResponse("3", "1234"));
    impl.m_strGuid = m_guid;
}

TEST_F(ConstructionTest, ClientCleanupRemovesItsFourFifosAndServerCleanupNothing) {
    CQVIPCLibraryImpl client("t", m_guid, 0, 0, 0, NO_TIMEOUT);
    CQVIPCLibraryImpl server("t", m_guid, 1, 4, 0, NO_TIMEOUT);
    const std::string& c = client.m_strConnectId;
    const std::string& p = client.m_strPid;
    const std::string paths[] = {client.pipenameServerRequest(c, p),
                                 client.pipenameServerResponse(c, p),
                                 client.pipenameClientRequest(c, p),
                                 client.pipenameClientResponse(c, p), client.pipenameServerAdmin()};
    for (const std::string& path : paths) ASSERT_EQ(0, mknod(path.c_str(), S_IFIFO | 0666, 0));
    server.cleanupPipenames();
    EXPECT_EQ(5u, GuidFiles(m_guid).size());
    client.cleanupPipenames();
    client.cleanupPipenames();  // a second time finds nothing and minds nothing
    EXPECT_EQ(std::vector<std::string>{m_guid + "-svr-admin"}, GuidFiles(m_guid));
}

TEST_F(ConstructionTest, RegistryUnlinksEveryPathItWasGivenWhenDestroyed) {
    const std::string a = "/tmp/" + m_guid + "-a";
    const std::string b = "/tmp/" + m_guid + "-b";
    for (const std::string& path : {a, b}) ASSERT_EQ(0, mknod(path.c_str(), S_IFIFO | 0666, 0));
    {
        CPipenameRegistry registry;
        registry.add(a);
        registry.add(b);
        registry.add(a);  // duplicates are harmless
        registry.add("/tmp/" + m_guid + "-never-made");
    }
    EXPECT_TRUE(GuidFiles(m_guid).empty());
}

}  // namespace
