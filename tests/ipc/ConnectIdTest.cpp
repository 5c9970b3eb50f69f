#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "platform/PSharedMemory.h"
#include "tests/platform/MutexHolder.h"
#include "tests/support/TestSupport.h"

namespace {

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;

unsigned long drawId(const std::string& guid) {
    CQVIPCLibraryImpl impl("t", guid, 0, 0, 0, NO_TIMEOUT);
    return impl.m_connectId;
}

class ConnectIdTest : public testing::Test {
protected:
    void SetUp() override { guid_ = qvtest::TestGuid(); }
    void TearDown() override {
        for (pid_t pid : children_) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        for (const std::string& g : guids_) qvtest::RemoveGuidFiles(g);
        qvtest::RemoveGuidFiles(guid_);
    }

    // Forks a child that draws one id and writes it to the pipe; returns its pid.
    pid_t drawInChild(int fd) {
        const pid_t pid = fork();
        if (pid == 0) {
            const uint32_t id = static_cast<uint32_t>(drawId(guid_));
            _exit(write(fd, &id, sizeof(id)) == sizeof(id) ? 0 : 1);
        }
        children_.push_back(pid);
        return pid;
    }

    void reapChildren() {
        for (pid_t pid : children_) {
            int status = 0;
            EXPECT_EQ(pid, waitpid(pid, &status, 0));
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        }
        children_.clear();
    }

    std::string guid_;
    std::vector<std::string> guids_;
    std::vector<pid_t> children_;
};

TEST_F(ConnectIdTest, FreshServiceHandsOutOneThreeFiveAndGuidsAreIndependent) {
    const std::string other = qvtest::TestGuid();
    guids_.push_back(other);
    EXPECT_EQ(1ul, drawId(guid_));
    EXPECT_EQ(3ul, drawId(guid_));
    EXPECT_EQ(1ul, drawId(other));
    CQVIPCLibraryImpl impl("t", guid_, 1, 4, 0, NO_TIMEOUT);
    EXPECT_EQ(5ul, impl.m_connectId);
    EXPECT_EQ("5", impl.m_strConnectId);
    EXPECT_EQ(3ul, drawId(other));
}

TEST_F(ConnectIdTest, ConcurrentThreadsDrawDistinctIds) {
    constexpr int THREADS = 6;
    std::vector<unsigned long> ids(THREADS);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] { ids[i] = drawId(guid_); });
    }
    for (std::thread& t : threads) t.join();
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::vector<unsigned long>({1, 3, 5, 7, 9, 11}), ids);
}

TEST_F(ConnectIdTest, ProcessesShareOneSequence) {
    EXPECT_EQ(1ul, drawId(guid_));
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    for (int i = 0; i < 3; ++i) drawInChild(fds[1]);
    close(fds[1]);
    std::set<uint32_t> seen;
    uint32_t id = 0;
    while (read(fds[0], &id, sizeof(id)) == sizeof(id)) seen.insert(id);
    close(fds[0]);
    reapChildren();
    EXPECT_EQ(std::set<uint32_t>({3, 5, 7}), seen);
    EXPECT_EQ(9ul, drawId(guid_));
}

TEST_F(ConnectIdTest, HolderKilledWhileHoldingTheIdMutexDoesNotBlockTheNextConstructor) {
    EXPECT_EQ(1ul, drawId(guid_));
    qvtest::MutexHolder holder(guid_ + "-IDGENMTX");
    ASSERT_TRUE(holder.holding());

    // A constructor started now waits for the holder ...
    std::atomic<unsigned long> id{0};
    std::thread constructing([&] { id.store(drawId(guid_)); });
    EXPECT_FALSE(qvtest::WaitFor([&] { return id.load() != 0; }, std::chrono::milliseconds(200)));
    // ... and goes on once the holder has died holding it.
    holder.kill();
    constructing.join();
    EXPECT_EQ(3ul, id.load());
}

TEST_F(ConnectIdTest, IdsAreCutTo32BitsAndSpelledAsSigned32BitNumbers) {
    {
        CPSharedMemory shm(guid_ + "-IDGENSHMEM", 8);
        ASSERT_NE(nullptr, shm.getAddress());
        const uint64_t start = 0x180000001ull;
        std::memcpy(shm.getAddress(), &start, sizeof(start));
    }
    CQVIPCLibraryImpl first("t", guid_, 0, 0, 0, NO_TIMEOUT);
    EXPECT_EQ(0x80000001ul, first.m_connectId);
    EXPECT_EQ("-2147483647", first.m_strConnectId);
    CQVIPCLibraryImpl second("t", guid_, 0, 0, 0, NO_TIMEOUT);
    EXPECT_EQ(0x80000003ul, second.m_connectId);
    CPSharedMemory shm(guid_ + "-IDGENSHMEM", 8);
    uint64_t counter = 0;
    std::memcpy(&counter, shm.getAddress(), sizeof(counter));
    EXPECT_EQ(0x180000005ull, counter);  // the counter itself keeps its 64 bits
}

}  // namespace
