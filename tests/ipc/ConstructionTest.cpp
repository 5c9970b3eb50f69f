// The endpoint object before initialize: the constructor's checks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "common/LQException.h"
#include "platform/TraceUtility.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

using ConstructionTest = EndpointTest;

TEST_F(ConstructionTest, ChecksRunInOrderAndTheExtensionCheckPrecedesEverything) {
    // The slot count 0xFFFFFFFF wraps to 0; a client ignores the count.
    const struct {
        int isServer;
        unsigned long maxConnections, headerExtSize;
        uint32_t code;
    } cases[] = {
        {1, 10, 48, 0}, {0, 1, 49, QVIPC_E_HEADER_EXT_SIZE},  {1, 64, 49, QVIPC_E_HEADER_EXT_SIZE},
        {1, 63, 0, 0},  {1, 64, 0, QVIPC_E_TOO_MANY_CLIENTS}, {1, 0xFFFFFFFFul, 0, 0},
        {0, 1000, 0, 0}};
    for (const auto& c : cases) {
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
        EXPECT_EQ(c.code == 0,
                  access(("/dev/shm/" + given.substr(0, 63) + "-IDGENSHMEM").c_str(), F_OK) == 0);
    }
}

}  // namespace
