// The endpoint object before initialize: the constructor's checks, and removal of FIFOs.
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
            // Nothing opened and no FIFO made before initialize.
            EXPECT_EQ(m_fdsBefore, CountOpenFds());
            EXPECT_TRUE(GuidFiles(m_moreGuids.back()).empty());
        } catch (const LQException& e) {
            thrown = e.code;
        }
        EXPECT_EQ(static_cast<long>(c.code), thrown);
        EXPECT_EQ(nullptr, g_ptu);  // every reference was dropped again
        // A refusal comes before the id generator makes anything.
        EXPECT_EQ(c.code == 0, Exists("/dev/shm/" + m_moreGuids.back() + "-IDGENSHMEM"));
    }
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

TEST_F(ConstructionTest, ClientCleanupRemovesItsFourFifosAndServerCleanupNothing) {
    CQVIPCLibraryImpl client("t", m_guid, 0, 0, 0, NO_TIMEOUT);
    CQVIPCLibraryImpl server("t", m_guid, 1, 4, 0, NO_TIMEOUT);
    const std::string &c = client.m_strConnectId, &p = client.m_strPid;
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
        registry.add(a);  // a duplicate, and a path never made, are harmless
        registry.add("/tmp/" + m_guid + "-never-made");
    }
    EXPECT_TRUE(GuidFiles(m_guid).empty());
}

}  // namespace
