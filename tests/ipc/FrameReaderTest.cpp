// Reading a frame's header and body over a plain pipe: whole, cut short, of size 0 or the
// largest size, and interrupted by a signal while blocked.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <utility>

#include "QVIPC/Library-Linux/FrameIO.h"
#include "QVIPC/Library-Linux/ReadAhead.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

struct Pipe {
    int fds[2] = {-1, -1};
    Pipe() { EXPECT_EQ(0, pipe(fds)); }
    ~Pipe() { close(fds[0]), closeWriter(); }
    void closeWriter() { close(std::exchange(fds[1], -1)); }
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
    const QVRESULT hr = CReadAhead().readBody(fd, size, &buf, &err);
    Body b{hr, buf != nullptr ? std::string(buf, size) : std::string(), buf == nullptr, err};
    delete[] buf;
    return b;
}

// Once the writer is gone, a 72-byte header read returns what was there, at most 72 bytes.
TEST(FrameReaderTest, HeaderIsOneReadOfWhatIsThere) {
    for (const size_t written : {72, 36, 0, 100}) {
        SCOPED_TRACE(written);
        Pipe p;
        const std::string bytes = Pattern(written, 3);
        ASSERT_TRUE(p.put(bytes));
        p.closeWriter();
        qvframe::RequestFrame frame{};
        const size_t got = std::min<size_t>(72, written);
        EXPECT_EQ(static_cast<ssize_t>(got), qvframe::readHeader(p.fds[0], frame, sizeof frame));
        EXPECT_EQ(bytes.substr(0, 72).append(72 - got, '\0'),
                  std::string(reinterpret_cast<char*>(frame), sizeof frame));
    }
}

TEST(FrameReaderTest, BodyArrivesWholeOrIsAFailedReadWithoutABuffer) {
    const struct {
        uint32_t size;
        size_t written;
        bool writerStays;
        QVRESULT hr;
    } cases[] = {
        {70000, 70000, true, S_OK},  // more than the pipe holds at once
        {0, 5, true, S_OK},          // size 0 reads nothing
        {1000, 10, false, QVIPC_E_READ},
        {1, 0, false, QVIPC_E_READ},
        {0xFFFFFFFFu, 10, false, QVIPC_E_READ},  // or no memory for it in a 32-bit process
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        Pipe p;
        const std::string bytes = Pattern(c.written, c.size);
        std::thread writer([&] {
            p.put(bytes);
            if (!c.writerStays) p.closeWriter();
        });
        const Body b = ReadBody(p.fds[0], c.size);
        writer.join();
        const bool oom = b.hr == QVIPC_E_OUTOFMEMORY && c.size == 0xFFFFFFFFu;
        EXPECT_EQ(oom ? QVIPC_E_OUTOFMEMORY : c.hr, b.hr);
        EXPECT_EQ(c.hr != S_OK || c.size == 0, b.null);
        EXPECT_EQ(oom ? ENOMEM : 0, b.err);  // end of file is no errno
        EXPECT_EQ(c.hr == S_OK ? bytes.substr(0, c.size) : "", b.bytes);
    }
    const Body bad = ReadBody(Pipe().fds[1], 4);
    EXPECT_EQ(QVIPC_E_READ, bad.hr);
    EXPECT_EQ(EBADF, bad.err);  // the failed read's own errno
}

std::atomic<int> g_signals{0};
void CountSignal(int) { ++g_signals; }

// Whether thread tid sleeps in read() on fd: it sleeps, and nothing is left to read.
bool BlockedIn(pid_t tid, int fd) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t end = stat.rfind(')');
    int unread = -1;
    return end != std::string::npos && stat.compare(end, 4, ") S ") == 0 &&
           ioctl(fd, FIONREAD, &unread) == 0 && unread == 0;
}

// A handler without SA_RESTART makes a blocked read() fail with EINTR; the header read and
// then the body read go on reading and deliver the whole frame.
TEST(FrameReaderTest, ReadsInterruptedBySignalsGoOn) {
    struct sigaction plain = {}, saved = {};
    plain.sa_handler = CountSignal;
    sigemptyset(&plain.sa_mask);
    ASSERT_EQ(0, sigaction(SIGUSR1, &plain, &saved));
    Pipe p;
    std::atomic<pid_t> tid{0};
    qvframe::RequestFrame frame{};
    ssize_t got = -2;
    Body body{};
    std::thread reader([&] {
        tid.store(static_cast<pid_t>(syscall(SYS_gettid)));
        got = qvframe::readHeader(p.fds[0], frame, sizeof frame);
        body = ReadBody(p.fds[0], 2000);
    });
    const std::string bytes = Pattern(72 + 2000, 9);
    // Blocked in the header's read, then in the body's after its first 1000 bytes.
    for (const std::string& part : {bytes.substr(0, 1072), bytes.substr(1072)}) {
        EXPECT_TRUE(
            WaitFor([&] { return tid.load() != 0 && BlockedIn(tid.load(), p.fds[0]); }, DEADLINE));
        const int before = g_signals.load();
        pthread_kill(reader.native_handle(), SIGUSR1);
        EXPECT_TRUE(WaitFor([&] { return g_signals.load() > before; }, DEADLINE));
        EXPECT_TRUE(p.put(part));
    }
    reader.join();
    sigaction(SIGUSR1, &saved, nullptr);
    EXPECT_EQ(72, got);
    EXPECT_EQ(bytes.substr(0, 72), std::string(reinterpret_cast<char*>(frame), sizeof frame));
    EXPECT_EQ(S_OK, body.hr);
    EXPECT_EQ(bytes.substr(72), body.bytes);
}

}  // namespace
