// The endpoint object before initialize: the constructor's checks, and removal of FIFOs.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

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
        // The facade lowers the guid and keeps its first 63 characters.
        std::string given = m_moreGuids.back() + std::string(100, 'X');
        std::transform(given.begin(), given.begin() + 10, given.begin(), ::toupper);
        long thrown = 0;
        try {
            CQVIPCLibrary lib("t", given, c.isServer, c.maxConnections, c.headerExtSize, 7);
            // Nothing opened and no FIFO made before initialize.
            EXPECT_EQ(m_fdsBefore, CountOpenFds());
            EXPECT_TRUE(GuidFiles(m_moreGuids.back()).empty());
        } catch (const LQException& e) {
            thrown = e.code;
        }
        EXPECT_EQ(static_cast<long>(c.code), thrown);
        EXPECT_EQ(nullptr, g_ptu);  // every reference was dropped again
        // A refusal comes before the id generator makes anything.
        std::transform(given.begin(), given.end(), given.begin(), ::tolower);
        EXPECT_EQ(c.code == 0, Exists("/dev/shm/" + given.substr(0, 63) + "-IDGENSHMEM"));
    }
}

// A client's cleanup removes its four FIFOs, a server's nothing; the registry unlinks every
// path it was given.
TEST_F(ConstructionTest, CleanupRemovesTheClientsFifosAndTheRegistryItsPaths) {
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
    ASSERT_EQ(0, mknod(paths[0].c_str(), S_IFIFO | 0666, 0));
    {
        CPipenameRegistry registry;
        // A duplicate, and a path that is not there, are harmless.
        for (const std::string& path : {paths[0], paths[4], paths[4], paths[1]}) registry.add(path);
    }
    EXPECT_TRUE(GuidFiles(m_guid).empty());
}

}  // namespace
