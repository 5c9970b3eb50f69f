#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/NamedObject.h"
#include "platform/PMutex.h"
#include "platform/PSharedMemory.h"
#include "tests/platform/MutexHolder.h"
#include "tests/support/TestSupport.h"

namespace {

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

class NamedObjectTest : public testing::Test {
protected:
    void SetUp() override { guid_ = qvtest::TestGuid(); }
    void TearDown() override { qvtest::RemoveGuidFiles(guid_); }

    std::string guid_;
};

TEST_F(NamedObjectTest, FileNamesStayInTheirDirectoryAndNeverCollide) {
    struct Case {
        std::string name;
        std::string file;
    };
    const std::string g = "abc";
    const Case cases[] = {
        {"abc-IDGENMTX", "abc-IDGENMTX"},
        {"a.b_c-9", "a.b_c-9"},
        {"../x", "%2E%2E%2Fx"},
        {"..", "%2E%2E"},
        {".hidden.x", "%2Ehidden.x"},
        {"a/b", "a%2Fb"},
        {"a%2Fb", "a%252Fb"},
        {"sp ace\n", "sp%20ace%0A"},
        {"", "%"},
        {std::string("nul\0x", 5), "nul%00x"},
        {"\xff", "%FF"},
    };
    std::set<std::string> seen;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.file, namedObjectFileName(c.name));
        EXPECT_TRUE(seen.insert(namedObjectFileName(c.name)).second);
    }
    const std::string longA(1000, 'a');
    const std::string longB = longA + "b";
    const std::string fa = namedObjectFileName(longA);
    const std::string fb = namedObjectFileName(longB);
    EXPECT_LE(fa.size(), 200u);
    EXPECT_NE(fa, fb);
    EXPECT_EQ(std::string::npos, fa.find('/'));
    EXPECT_EQ("/dev/shm/abc-IDGENSHMEM", sharedMemoryPath(g + "-IDGENSHMEM"));
    EXPECT_EQ("/tmp/abc-IDGENMTX.lock", mutexLockPath(g + "-IDGENMTX"));
}

TEST_F(NamedObjectTest, HostileNamesMakeDistinctObjectsInsideTheirDirectories) {
    const std::string names[] = {guid_ + "/../../x", "../" + guid_, guid_ + "/x", guid_ + "%2Fx",
                                 "." + guid_};
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        CPMutex m(1, 0, name, 0, 1);
        ASSERT_TRUE(m.isValid());
        EXPECT_EQ(0, m.wait(NO_TIMEOUT, nullptr));
        CPSharedMemory shm(name, 8);
        ASSERT_NE(nullptr, shm.getAddress());
        EXPECT_NE(0, shm.isCreator());  // no two of these names share a block
        m.release();
        EXPECT_TRUE(exists(mutexLockPath(name)));
        EXPECT_TRUE(exists(sharedMemoryPath(name)));
    }
    EXPECT_FALSE(exists("/tmp/x.lock"));
    EXPECT_FALSE(exists("/dev/x"));
}

TEST_F(NamedObjectTest, SharedMemoryIsCreatedZeroedOnceAndSharedByName) {
    CPSharedMemory first(guid_ + "-SHM", 8);
    ASSERT_NE(nullptr, first.getAddress());
    EXPECT_NE(0, first.isCreator());
    uint64_t value;
    std::memcpy(&value, first.getAddress(), sizeof(value));
    EXPECT_EQ(0u, value);
    value = 0x0102030405060708ull;
    std::memcpy(first.getAddress(), &value, sizeof(value));

    CPSharedMemory second(guid_ + "-SHM", 8);
    ASSERT_NE(nullptr, second.getAddress());
    EXPECT_EQ(0, second.isCreator());
    uint64_t seen = 0;
    std::memcpy(&seen, second.getAddress(), sizeof(seen));
    EXPECT_EQ(value, seen);

    const pid_t pid = fork();
    if (pid == 0) {
        CPSharedMemory child(guid_ + "-SHM", 8);
        uint64_t v = 0;
        if (child.getAddress() == nullptr || child.isCreator() != 0) _exit(2);
        std::memcpy(&v, child.getAddress(), sizeof(v));
        v += 1;
        std::memcpy(child.getAddress(), &v, sizeof(v));
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::memcpy(&seen, first.getAddress(), sizeof(seen));
    EXPECT_EQ(value + 1, seen);
    EXPECT_EQ(nullptr, CPSharedMemory(guid_ + "-EMPTY", 0).getAddress());
}

TEST_F(NamedObjectTest, MutexExcludesOtherObjectsOfTheSameNameUntilReleased) {
    CPMutex a(1, 0, guid_ + "-MTX", 0, 1);
    CPMutex b(1, 0, guid_ + "-MTX", 0, 1);
    CPMutex other(1, 0, guid_ + "-OTHER", 0, 1);
    ASSERT_EQ(0, a.wait(NO_TIMEOUT, nullptr));
    EXPECT_NE(0, b.wait(0, nullptr));
    EXPECT_NE(0, b.wait(50, nullptr));
    EXPECT_EQ(0, other.wait(0, nullptr));
    other.release();
    a.release();
    EXPECT_EQ(0, b.wait(0, nullptr));
    b.release();
}

TEST_F(NamedObjectTest, TerminateWaitEndsAWaitWithoutTimeLimit) {
    CPMutex a(1, 0, guid_ + "-MTX", 0, 1);
    CPMutex b(1, 0, guid_ + "-MTX", 0, 1);
    ASSERT_EQ(0, a.wait(NO_TIMEOUT, nullptr));
    CTerminateWait stop;
    std::atomic<int> result{1234};
    std::thread waiter([&] { result.store(b.wait(NO_TIMEOUT, &stop)); });
    stop.terminate();
    waiter.join();
    EXPECT_NE(0, result.load());
    a.release();
}

TEST_F(NamedObjectTest, ThreadsSharingOneMutexObjectAreSerialised) {
    CPMutex m(1, 0, guid_ + "-MTX", 0, 1);
    long counter = 0;  // plain on purpose: the mutex alone must order the increments
    auto work = [&] {
        for (int i = 0; i < 200; ++i) {
            ASSERT_EQ(0, m.wait(NO_TIMEOUT, nullptr));
            const long seen = counter;
            std::this_thread::yield();
            counter = seen + 1;
            m.release();
        }
    };
    std::thread t1(work);
    std::thread t2(work);
    t1.join();
    t2.join();
    EXPECT_EQ(400, counter);
}

TEST_F(NamedObjectTest, MutexIsHeldAcrossProcessesUntilTheHolderReleases) {
    qvtest::MutexHolder holder(guid_ + "-MTX");
    ASSERT_TRUE(holder.holding());
    CPMutex m(1, 0, guid_ + "-MTX", 0, 1);
    EXPECT_NE(0, m.wait(100, nullptr));
    EXPECT_TRUE(holder.release());
    EXPECT_EQ(0, m.wait(NO_TIMEOUT, nullptr));
    m.release();
}

TEST_F(NamedObjectTest, HolderKilledWhileHoldingDoesNotBlockTheNextHolder) {
    qvtest::MutexHolder holder(guid_ + "-MTX");
    ASSERT_TRUE(holder.holding());
    CPMutex m(1, 0, guid_ + "-MTX", 0, 1);
    EXPECT_NE(0, m.wait(0, nullptr));
    holder.kill();
    EXPECT_EQ(0, m.wait(NO_TIMEOUT, nullptr));
    m.release();
}

}  // namespace
