// Connect ids: one counter per service across processes, 1, 3, 5, ..., 32 bits on the wire.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <set>

#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "platform/PSharedMemory.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

unsigned long DrawId(const std::string& guid) {
    return CQVIPCLibraryImpl("t", guid, 0, 0, 0, NO_TIMEOUT).m_connectId;
}

using ConnectIdTest = EndpointTest;

TEST_F(ConnectIdTest, ProcessesDrawDistinctIdsFromOneSequencePerGuid) {
    m_moreGuids.push_back(TestGuid());
    EXPECT_EQ(1ul, DrawId(m_guid));
    EXPECT_EQ(1ul, DrawId(m_moreGuids.back()));
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    std::vector<pid_t> children;
    for (int i = 0; i < 3; ++i) {
        children.push_back(fork());
        if (children.back() == 0) {
            const uint32_t id = static_cast<uint32_t>(DrawId(m_guid));
            _exit(write(fds[1], &id, sizeof id) == sizeof id ? 0 : 1);
        }
    }
    close(fds[1]);
    std::set<uint32_t> seen;
    for (uint32_t id = 0; ReadFull(fds[0], &id, sizeof id);) seen.insert(id);
    close(fds[0]);
    for (const pid_t pid : children) {
        int status = 1;
        EXPECT_TRUE(waitpid(pid, &status, 0) == pid && status == 0);
    }
    EXPECT_EQ(std::set<uint32_t>({3, 5, 7}), seen);
    CQVIPCLibraryImpl server("t", m_guid, 1, 4, 0, NO_TIMEOUT);
    EXPECT_EQ(9ul, server.m_connectId);
}

TEST_F(ConnectIdTest, IdsAreCutTo32BitsAndSpelledAsSigned32BitNumbers) {
    CPSharedMemory shm(m_guid + "-IDGENSHMEM", 8);
    ASSERT_NE(nullptr, shm.getAddress());
    uint64_t counter = 0x180000001ull;
    std::memcpy(shm.getAddress(), &counter, sizeof counter);
    CQVIPCLibraryImpl first("t", m_guid, 0, 0, 0, NO_TIMEOUT);
    EXPECT_EQ(0x80000001ul, first.m_connectId);
    EXPECT_EQ("-2147483647", first.m_strConnectId);
    EXPECT_EQ(0x80000003ul, DrawId(m_guid));
    std::memcpy(&counter, shm.getAddress(), sizeof counter);
    EXPECT_EQ(0x180000005ull, counter);  // the counter itself keeps its 64 bits
}

}  // namespace
