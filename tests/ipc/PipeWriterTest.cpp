// The pipe writers: one budget across a gather write, and lengths an int cannot carry.
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
    // One whole second gone; when spent, later elements still get 1 s; no limit stays so.
    const std::vector<unsigned long> cases[] = {
        {3, 3, 2, 2}, {1, 1, 1, 1}, {NO_TIMEOUT, NO_TIMEOUT, NO_TIMEOUT, NO_TIMEOUT}};
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc[0]);
        BudgetProbe probe;
        EXPECT_EQ(14, probe.writev(-1, iov, 3, tc[0]));
        EXPECT_EQ(std::vector<unsigned long>(tc.begin() + 1, tc.end()), probe.budgets);
    }
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
    // The last sum wraps to 71 in a 32-bit size_t.
    const struct {
        size_t body;
        ssize_t total;
    } cases[] = {{0, 72}, {intMax - 72, INT_MAX}, {intMax - 71, -1}, {0xFFFFFFFFu, -1}};
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
