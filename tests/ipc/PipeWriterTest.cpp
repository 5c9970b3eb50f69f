#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "QVIPC/Library-Linux/PipeIO.h"
#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "tests/support/TestSupport.h"

namespace {

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;

using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// A pipe whose write end is non-blocking and already full.
struct FullPipe {
    int fds[2] = {-1, -1};
    FullPipe() {
        if (pipe(fds) != 0) return;
        fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
        const std::vector<char> chunk(4096, 'f');
        while (::write(fds[1], chunk.data(), chunk.size()) > 0) {
        }
        // Fill the last bytes one at a time, so no room of any size is left.
        while (::write(fds[1], chunk.data(), 1) > 0) {
        }
    }
    ~FullPipe() {
        if (fds[0] != -1) close(fds[0]);
        if (fds[1] != -1) close(fds[1]);
    }
};

TEST(PipeWriterTest, SynchronousWritevPassesHeaderAndBodyInOneCall) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    CPIPEIOSynchronous writer(nullptr);
    char header[72] = {3};
    char body[10] = "body";
    const iovec iov[2] = {{header, sizeof(header)}, {body, sizeof(body)}};
    EXPECT_EQ(82, writer.writev(fds[1], iov, 2, NO_TIMEOUT));
    EXPECT_EQ(5, writer.write(fds[1], "hello", 5, 1));
    char got[100];
    EXPECT_EQ(87, read(fds[0], got, sizeof(got)));
    close(fds[0]);
    close(fds[1]);
}

TEST(PipeWriterTest, AsynchronousWriteIntoAFullPipeFailsAfterItsBudgetAndNotBefore) {
    FullPipe full;
    ASSERT_NE(-1, full.fds[1]);
    CPIPEIOAsynchronous writer(nullptr);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(-1, writer.write(full.fds[1], "x", 1, 1));
    EXPECT_GE(msSince(start), 1000);
    EXPECT_EQ(0, writer.write(full.fds[1], "x", 0, 1));
    EXPECT_EQ(0, writer.write(full.fds[1], "x", -5, 1));
}

// Records the budget each element of a gather write gets; the first element takes 1.1 s.
class BudgetProbe : public CPIPEIOAsynchronous {
public:
    BudgetProbe() : CPIPEIOAsynchronous(nullptr) {}
    int write(int, const void*, int len, unsigned long timeout) override {
        budgets.push_back(timeout);
        if (budgets.size() == 1) std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        return len;
    }
    std::vector<unsigned long> budgets;
};

TEST(PipeWriterTest, AsynchronousWritevSharesOneBudgetAcrossElements) {
    char a[4] = {}, b[8] = {}, c[2] = {};
    const iovec iov[3] = {{a, sizeof(a)}, {b, sizeof(b)}, {c, sizeof(c)}};
    struct Case {
        unsigned long timeout;
        std::vector<unsigned long> budgets;
    };
    const Case cases[] = {
        {3, {3, 2, 2}},                                      // one whole second gone
        {1, {1, 1, 1}},                                      // spent: later elements still get 1 s
        {NO_TIMEOUT, {NO_TIMEOUT, NO_TIMEOUT, NO_TIMEOUT}},  // no limit stays no limit
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.timeout);
        BudgetProbe probe;
        EXPECT_EQ(14, probe.writev(-1, iov, 3, tc.timeout));
        EXPECT_EQ(tc.budgets, probe.budgets);
    }
}

TEST(PipeWriterTest, AsynchronousWritevStopsAtAnEmptyElementOrAFailure) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    CPIPEIOAsynchronous writer(nullptr);
    char a[5] = "abcd";
    char b[3] = "xy";
    const iovec withEmpty[3] = {{a, 4}, {b, 0}, {b, 2}};
    EXPECT_EQ(4, writer.writev(fds[1], withEmpty, 3, 2));
    EXPECT_EQ(0, writer.writev(fds[1], withEmpty, 0, 2));
    close(fds[0]);
    errno = 0;
    EXPECT_EQ(-1, writer.writev(fds[1], withEmpty, 1, 2));
    EXPECT_EQ(EPIPE, errno);
    close(fds[1]);
}

// Bodies up to 4 GiB - 1 are valid on the wire, but the writers report their count as an int:
// a message of 2 GiB or more is refused whole, before a byte is written, on both word sizes.
TEST(PipeWriterTest, MessagesBeyondAnIntAreRefusedBeforeAnythingIsWritten) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    CPIPEIOSynchronous sync(nullptr);
    CPIPEIOAsynchronous async(nullptr);
    CPIPEIOBase* const writers[] = {&sync, &async};
    char header[72] = {};
    struct Case {
        size_t body;
        ssize_t total;
    };
    const size_t intMax = INT_MAX;
    const Case cases[] = {
        {0, 72},
        {intMax - 72, INT_MAX},
        {intMax - 71, -1},
        {0xFFFFFFFFu, -1},  // the sum wraps to 71 in a 32-bit size_t
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.body);
        // Only the lengths are looked at before the refusal; the body is never read.
        const iovec iov[2] = {{header, sizeof header}, {header, c.body}};
        EXPECT_EQ(c.total, gatherLength(iov, 2));
        if (c.total >= 0) continue;
        for (CPIPEIOBase* w : writers) {
            errno = 0;
            EXPECT_EQ(-1, w->writev(fds[1], iov, 2, 1));
            EXPECT_EQ(EOVERFLOW, errno);
        }
    }
    char got;
    EXPECT_EQ(-1, read(fds[0], &got, 1));
    EXPECT_EQ(EAGAIN, errno);
    close(fds[0]);
    close(fds[1]);
}

TEST(PipeWriterTest, WritingToAFifoWithoutReaderFailsWithEpipeAndTheProcessLives) {
    struct sigaction current;
    ASSERT_EQ(0, sigaction(SIGPIPE, nullptr, &current));
    EXPECT_EQ(SIG_IGN, current.sa_handler);  // set while the library loaded

    const std::string guid = qvtest::TestGuid();
    const std::string path = "/tmp/" + guid + "-fifo";
    ASSERT_EQ(0, mknod(path.c_str(), S_IFIFO | 0666, 0));
    const int rd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_NE(-1, rd);
    const int wr = open(path.c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_NE(-1, wr);
    close(rd);

    CPIPEIOSynchronous sync(nullptr);
    CPIPEIOAsynchronous async(nullptr);
    char header[72] = {};
    const iovec iov[1] = {{header, sizeof(header)}};
    CPIPEIOBase* writers[] = {&sync, &async};
    for (CPIPEIOBase* w : writers) {
        errno = 0;
        EXPECT_EQ(-1, w->write(wr, header, sizeof(header), 1));
        EXPECT_EQ(EPIPE, errno);
        errno = 0;
        EXPECT_EQ(-1, w->writev(wr, iov, 1, 1));
        EXPECT_EQ(EPIPE, errno);
    }
    close(wr);
    qvtest::RemoveGuidFiles(guid);
}

TEST(PipeWriterTest, ClearNonBlockMakesReadsBlock) {
    const std::string guid = qvtest::TestGuid();
    CQVIPCLibraryImpl impl("t", guid, 1, 1, 0, NO_TIMEOUT);
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    const int before = fcntl(fds[0], F_GETFL);
    impl.clearO_NONBLOCK(fds[0]);
    EXPECT_EQ(before & ~O_NONBLOCK, fcntl(fds[0], F_GETFL));
    impl.clearO_NONBLOCK(-1);  // no descriptor, nothing done
    close(fds[0]);
    close(fds[1]);
    qvtest::RemoveGuidFiles(guid);
}

}  // namespace
