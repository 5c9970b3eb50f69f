// Named mutexes and shared memory as other holders and processes see them, and their files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/NamedObject.h"
#include "platform/PMutex.h"
#include "platform/PSharedMemory.h"
#include "tests/support/TestSupport.h"

namespace {

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;

// A child process that holds a named mutex until it is killed; the lock goes with the process.
struct MutexHolder : qvtest::CHeldChild {
    explicit MutexHolder(const std::string& name)
        : CHeldChild([name] { return (new CPMutex(1, 0, name, 0, 1))->wait(~0ul, nullptr) == 0; }) {
    }
};

class NamedObjectTest : public testing::Test {
protected:
    void TearDown() override { qvtest::RemoveGuidFiles(m_guid); }
    const std::string m_guid = qvtest::TestGuid();
};

TEST_F(NamedObjectTest, FileNamesStayInTheirDirectoryAndNeverCollide) {
    const std::pair<std::string, const char*> cases[] = {
        {"a.b_c-9Z", "a.b_c-9Z"},
        {"../x", "%2E%2E%2Fx"},
        {"a%2Fb", "a%252Fb"},
        {"", "%"},
        {std::string(" \n\0\xff", 4), "%20%0A%00%FF"}};
    for (const auto& c : cases) EXPECT_EQ(c.second, namedObjectFileName(c.first)) << c.first;
    // A name too long for a file is cut, and told apart from its neighbours by a hash.
    const std::string cut = namedObjectFileName(std::string(1000, '/'));
    EXPECT_LE(cut.size(), 200u);
    EXPECT_NE(cut, namedObjectFileName(std::string(1000, '/') + "b"));
}

// The one gate for files in shared directories: the kind asked for, never through a link.
TEST_F(NamedObjectTest, SharedDirOpensOnlyTheKindAskedAndNoLink) {
    const std::string base = "/tmp/" + m_guid;
    ASSERT_EQ(0, mkfifo((base + "-fifo").c_str(), 0600));
    std::ofstream(base + "-file") << "x";
    ASSERT_EQ(0, mkdir((base + "-dir").c_str(), 0700));
    ASSERT_EQ(0, symlink((base + "-file").c_str(), (base + "-link").c_str()));
    ASSERT_EQ(0, symlink((base + "-new").c_str(), (base + "-dangling").c_str()));
    const std::tuple<const char*, mode_t, int, int> cases[] = {
        {"-file", S_IFREG, O_RDWR, 0},
        {"-fifo", S_IFIFO, O_RDWR | O_NONBLOCK, 0},
        {"-fifo", S_IFREG, O_RDWR | O_NONBLOCK, EEXIST},
        {"-dir", S_IFREG, O_RDWR, EEXIST},
        {"-link", S_IFREG, O_RDWR, ELOOP},
        {"-dangling", S_IFREG, O_RDWR | O_CREAT, ELOOP},
    };
    const int fds = qvtest::CountOpenFds();
    for (const auto& [name, type, flags, err] : cases) {
        errno = 0;
        const int fd = openInSharedDir(base + name, flags, type);
        EXPECT_EQ(err, fd < 0 ? errno : 0) << name << " " << type;
        EXPECT_TRUE(fd < 0 || (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);
        if (fd >= 0) close(fd);
    }
    EXPECT_EQ(fds, qvtest::CountOpenFds());
    EXPECT_NE(0, access((base + "-new").c_str(), F_OK));
}

TEST_F(NamedObjectTest, SharedMemoryIsMadeZeroedOnceAndSharedAcrossProcesses) {
    const std::string name = "../" + m_guid;
    const mode_t umaskBefore = umask(077);
    CPSharedMemory first(name, 16);
    umask(umaskBefore);
    ASSERT_NE(nullptr, first.getAddress());
    EXPECT_NE(0, first.isCreator());
    uint64_t* words = static_cast<uint64_t*>(first.getAddress());
    EXPECT_EQ(0u, words[0] | words[1]);
    words[0] = 41;
    words[1] = 7;
    qvtest::CHeldChild child([&] {
        CPSharedMemory shm(name, 8);
        if (shm.getAddress() == nullptr || shm.isCreator() != 0) return false;
        return ++*static_cast<uint64_t*>(shm.getAddress()) == 42;
    });
    EXPECT_TRUE(child.ok());
    EXPECT_EQ(42u, words[0]);
    EXPECT_EQ(7u, words[1]);
    struct stat st;
    ASSERT_EQ(0, stat(sharedMemoryPath(name).c_str(), &st));
    EXPECT_EQ(16, st.st_size);
    EXPECT_EQ(0666u, st.st_mode & 0777u);  // other users' processes open it too
    EXPECT_EQ(nullptr, CPSharedMemory(m_guid + "-EMPTY", 0).getAddress());
    // Without stdin, the first open of a process gets descriptor 0.
    const int savedStdin = dup(0);
    close(0);
    CPSharedMemory zero(m_guid + "-fd0", 8);
    if (savedStdin >= 0) {
        dup2(savedStdin, 0);
        close(savedStdin);
    }
    EXPECT_NE(nullptr, zero.getAddress());
}

// Of holders that make the same block at once, one creates it and the others open it.
TEST_F(NamedObjectTest, SharedMemoryMadeByManyAtOnceIsMadeOnce) {
    for (int round = 0; round < 100; ++round) {
        const std::string name = m_guid + "-" + std::to_string(round);
        std::atomic<int> ready{0}, made{0}, creators{0};
        std::vector<std::thread> holders;
        for (int i = 0; i < 4; ++i) {
            holders.emplace_back([&] {
                for (++ready; ready.load() < 4;) std::this_thread::yield();
                CPSharedMemory shm(name, 8);
                made += shm.getAddress() != nullptr;
                creators += shm.isCreator();
            });
        }
        for (std::thread& holder : holders) holder.join();
        ASSERT_EQ(4, made.load()) << round;
        ASSERT_EQ(1, creators.load()) << round;
    }
}

// Waits, with or without limit or terminate object, last until release or terminate, or death.
TEST_F(NamedObjectTest, MutexWaitsHoldOnUntilReleaseTerminateOrTheHoldersDeath) {
    const std::string name = m_guid + "/../x";
    CPMutex a(1, 0, name, 0, 1), b(1, 0, name, 0, 1), other(1, 0, m_guid, 0, 1);
    ASSERT_EQ(0, a.wait(NO_TIMEOUT, nullptr));
    EXPECT_NE(0, b.wait(50, nullptr));
    EXPECT_EQ(0, other.wait(0, nullptr));
    other.release();
    CTerminateWait stop;
    const std::tuple<unsigned long, CTerminateWait*, bool> waits[] = {{NO_TIMEOUT, nullptr, false},
                                                                      {600000, nullptr, false},
                                                                      {NO_TIMEOUT, &stop, false},
                                                                      {NO_TIMEOUT, &stop, true}};
    for (const auto& [timeout, terminate, byTerminate] : waits) {
        std::atomic<int> result{1234};
        std::thread waiter([&, timeout = timeout, terminate = terminate] {
            result.store(b.wait(timeout, terminate));
            if (result.load() == 0) b.release();
        });
        EXPECT_FALSE(
            qvtest::WaitFor([&] { return result.load() != 1234; }, std::chrono::milliseconds(100)));
        byTerminate ? stop.terminate() : a.release();
        waiter.join();
        EXPECT_EQ(byTerminate, result.load() != 0) << timeout;
        ASSERT_TRUE(byTerminate || a.wait(NO_TIMEOUT, nullptr) == 0);
    }
    a.release();
    MutexHolder holder(m_guid);
    ASSERT_TRUE(holder.ok());
    EXPECT_NE(0, other.wait(100, nullptr));
    holder.kill();
    EXPECT_EQ(0, other.wait(NO_TIMEOUT, nullptr));
    other.release();
}

}  // namespace
