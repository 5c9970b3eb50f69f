// The pipe writers: one budget across a gather write, refusal of what an int count cannot
// carry, and a reader gone.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <thread>
#include <vector>

#include "QVIPC/Library-Linux/PipeIO.h"

namespace {

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;

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
    const struct {
        unsigned long timeout;
        std::vector<unsigned long> budgets;
    } cases[] = {
        {3, {3, 2, 2}},                                      // one whole second gone
        {1, {1, 1, 1}},                                      // spent: later elements still get 1 s
        {NO_TIMEOUT, {NO_TIMEOUT, NO_TIMEOUT, NO_TIMEOUT}},  // no limit stays no limit
    };
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.timeout);
        BudgetProbe probe;
        EXPECT_EQ(14, probe.writev(-1, iov, 3, tc.timeout));
        EXPECT_EQ(tc.budgets, probe.budgets);
    }
}

// A write with no room fails once its budget is spent, not before; an empty element ends a
// gather write.
TEST(PipeWriterTest, AsynchronousWriterWaitsOutItsBudgetAndStopsAtAnEmptyElement) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    fcntl(fds[1], F_SETFL, O_NONBLOCK);
    const std::vector<char> chunk(4096, 'f');
    for (size_t size : {chunk.size(), size_t{1}}) {  // full to the last byte
        while (::write(fds[1], chunk.data(), size) > 0) {
        }
    }
    CPIPEIOAsynchronous writer(nullptr);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, writer.write(fds[1], "x", 1, 1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(0, writer.write(fds[1], "x", -5, 1));
    const iovec withEmpty[2] = {{nullptr, 0}, {const_cast<char*>(chunk.data()), 4}};
    EXPECT_EQ(0, writer.writev(fds[1], withEmpty, 2, 1));
    close(fds[0]);
    close(fds[1]);
}

// Bodies up to 4 GiB - 1 are valid on the wire, but the writers count in an int: 2 GiB or more
// is refused before any write (EOVERFLOW, not the EPIPE that a write here gets). SIGPIPE is
// ignored while the library is loaded, so a reader gone is EPIPE and the process lives.
TEST(PipeWriterTest, OverlongMessagesAreRefusedAndAGoneReaderIsEpipe) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    close(fds[0]);
    CPIPEIOSynchronous sync(nullptr);
    CPIPEIOAsynchronous async(nullptr);
    char header[72] = {};
    const size_t intMax = INT_MAX;
    const struct {
        size_t body;
        ssize_t total;
    } cases[] = {
        {0, 72},
        {intMax - 72, INT_MAX},
        {intMax - 71, -1},
        {0xFFFFFFFFu, -1},  // the sum wraps to 71 in a 32-bit size_t
    };
    for (CPIPEIOBase* w : {static_cast<CPIPEIOBase*>(&sync), static_cast<CPIPEIOBase*>(&async)}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.body);
            // Only the lengths are looked at; the body is never read.
            const iovec iov[2] = {{header, sizeof header}, {header, c.body}};
            EXPECT_EQ(c.total, gatherLength(iov, 2));
            errno = 0;
            EXPECT_EQ(-1, w->writev(fds[1], iov, c.total < 0 ? 2 : 1, 1));
            EXPECT_EQ(c.total < 0 ? EOVERFLOW : EPIPE, errno);
        }
        errno = 0;
        EXPECT_EQ(-1, w->write(fds[1], header, sizeof header, 1));
        EXPECT_EQ(EPIPE, errno);
    }
    errno = 0;
    EXPECT_EQ(-1, sync.write(fds[1], header, -1, 1));  // would reach write() as a huge size
    EXPECT_EQ(EINVAL, errno);
    close(fds[1]);
}

}  // namespace
