// Reading a frame's header and body from a descriptor, over a plain pipe: whole, cut short, of
// size 0 or the largest size, and interrupted by a signal while blocked.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <utility>

#include "QVIPC/Library-Linux/FrameIO.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

struct Pipe {
    int fds[2] = {-1, -1};
    Pipe() { EXPECT_EQ(0, pipe(fds)); }
    ~Pipe() { closeWriter(), closeReader(); }
    void closeWriter() { close(std::exchange(fds[1], -1)); }
    void closeReader() { close(std::exchange(fds[0], -1)); }
    bool put(const std::string& bytes) { return WriteFull(fds[1], bytes.data(), bytes.size()); }
};

struct Body {
    QVRESULT hr;
    std::string bytes;
    bool null;
    int err;
};

Body ReadBody(int fd, uint32_t size) {
    char* buf = nullptr;
    int err = -1;
    const QVRESULT hr = qvframe::readBody(fd, size, &buf, &err);
    Body b{hr, buf != nullptr ? std::string(buf, size) : std::string(), buf == nullptr, err};
    delete[] buf;
    return b;
}

TEST(FrameReaderTest, HeaderIsOneReadOfWhatIsThere) {
    struct Case {
        size_t written;
        ssize_t result;  // what a 72-byte header read returns once the writer is gone
    };
    for (const Case c : {Case{72, 72}, Case{36, 36}, Case{0, 0}, Case{100, 72}}) {
        SCOPED_TRACE(c.written);
        Pipe p;
        const std::string bytes = Pattern(c.written, 3);
        ASSERT_TRUE(p.put(bytes));
        p.closeWriter();
        qvframe::RequestFrame frame{};
        EXPECT_EQ(c.result, qvframe::readHeader(p.fds[0], frame, sizeof frame));
        EXPECT_EQ(bytes.substr(0, 72).append(72 - std::min<size_t>(72, c.written), '\0'),
                  std::string(reinterpret_cast<char*>(frame), sizeof frame));
    }
}

TEST(FrameReaderTest, BodyArrivesWholeOrIsAFailedReadWithoutABuffer) {
    struct Case {
        const char* what;
        uint32_t size;
        size_t written;
        bool writerStays;
        QVRESULT hr;
    };
    const Case cases[] = {
        {"whole", 70000, 70000, true, S_OK},
        {"size 0 reads nothing", 0, 5, true, S_OK},
        {"cut short by the writer's end", 1000, 10, false, QVIPC_E_READ},
        {"nothing before the end", 1, 0, false, QVIPC_E_READ},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Pipe p;
        const std::string bytes = Pattern(c.written, c.size);
        std::thread writer([&] {
            p.put(bytes);
            if (!c.writerStays) p.closeWriter();
        });
        const Body b = ReadBody(p.fds[0], c.size);
        writer.join();
        EXPECT_EQ(c.hr, b.hr);
        EXPECT_EQ(c.hr != S_OK || c.size == 0, b.null);
        EXPECT_EQ(0, b.err);  // end of file is no errno
        if (c.hr == S_OK) {
            EXPECT_EQ(bytes.substr(0, c.size), b.bytes);
        }
    }
    // A descriptor that cannot be read: the read's errno.
    Pipe p;
    const Body bad = ReadBody(p.fds[1], 4);
    EXPECT_EQ(QVIPC_E_READ, bad.hr);
    EXPECT_EQ(EBADF, bad.err);
}

TEST(FrameReaderTest, LargestSizeIsAFailedAllocationOrAFailedRead) {
    Pipe p;
    ASSERT_TRUE(p.put("0123456789"));
    p.closeWriter();
    const Body b = ReadBody(p.fds[0], 0xFFFFFFFFu);
    EXPECT_TRUE(b.null);
    if (b.hr == QVIPC_E_OUTOFMEMORY) {
        EXPECT_EQ(ENOMEM, b.err);  // a 32-bit process
    } else {
        EXPECT_EQ(QVIPC_E_READ, b.hr);
        EXPECT_EQ(0, b.err);
    }
}

std::atomic<int> g_signals{0};
void CountSignal(int) { ++g_signals; }

// Whether thread tid sleeps in the kernel: here, blocked in read().
bool Blocked(pid_t tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t end = stat.rfind(')');
    return end != std::string::npos && stat.compare(end, 4, ") S ") == 0;
}

// A handler without SA_RESTART makes a blocked read() fail with EINTR; header and body reads
// go on reading and deliver the whole frame.
TEST(FrameReaderTest, ReadsInterruptedBySignalsGoOn) {
    struct sigaction plain = {}, saved = {};
    plain.sa_handler = CountSignal;
    sigemptyset(&plain.sa_mask);
    ASSERT_EQ(0, sigaction(SIGUSR1, &plain, &saved));
    for (const bool header : {true, false}) {
        SCOPED_TRACE(header ? "header" : "body");
        Pipe p;
        std::atomic<pid_t> tid{0};
        qvframe::RequestFrame frame{};
        ssize_t got = -2;
        Body body{};
        std::thread reader([&] {
            tid.store(static_cast<pid_t>(syscall(SYS_gettid)));
            if (header) {
                got = qvframe::readHeader(p.fds[0], frame, sizeof frame);
            } else {
                body = ReadBody(p.fds[0], 2000);
            }
        });
        const std::string bytes = Pattern(header ? 72 : 2000, 9);
        ASSERT_TRUE(p.put(header ? std::string() : bytes.substr(0, 1000)));
        // Twice: the signal comes while blocked, and the reader blocks in read() again after it.
        for (int i = 0; i < 2; ++i) {
            ASSERT_TRUE(WaitFor([&] { return tid.load() != 0 && Blocked(tid.load()); }, DEADLINE));
            pthread_kill(reader.native_handle(), SIGUSR1);
            ASSERT_TRUE(WaitFor([&] { return g_signals.load() > 0; }, DEADLINE));
            g_signals.store(0);
        }
        ASSERT_TRUE(p.put(header ? bytes : bytes.substr(1000)));
        reader.join();
        if (header) {
            EXPECT_EQ(72, got);
            EXPECT_EQ(bytes, std::string(reinterpret_cast<char*>(frame), sizeof frame));
        } else {
            EXPECT_EQ(S_OK, body.hr);
            EXPECT_EQ(bytes, body.bytes);
        }
    }
    sigaction(SIGUSR1, &saved, nullptr);
}

}  // namespace
