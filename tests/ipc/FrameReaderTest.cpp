// Reading a frame's header and body over a plain pipe, also when a signal interrupts.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

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

TEST(FrameReaderTest, BodyArrivesWholeOrIsAFailedReadWithoutABuffer) {
    // More than the pipe holds at once; size 0 reads nothing; cut short; and a size there may
    // be no memory for in a 32-bit process.
    const struct {
        uint32_t size;
        size_t written;
        bool ok;  // or QVIPC_E_READ, once the writer is gone
    } cases[] = {{70000, 70000, true},
                 {0, 5, true},
                 {1000, 10, false},
                 {1, 0, false},
                 {0xFFFFFFFFu, 10, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        Pipe p;
        const std::string bytes = Pattern(c.written, c.size);
        std::thread writer([&] {
            p.put(bytes);
            if (!c.ok) p.closeWriter();
        });
        const Body b = ReadBody(p.fds[0], c.size);
        writer.join();
        const bool oom = b.hr == QVIPC_E_OUTOFMEMORY && c.size == 0xFFFFFFFFu;
        EXPECT_EQ(oom ? QVIPC_E_OUTOFMEMORY : c.ok ? S_OK : QVIPC_E_READ, b.hr);
        EXPECT_EQ(!c.ok || c.size == 0, b.null);
        EXPECT_EQ(oom ? ENOMEM : 0, b.err);  // end of file is no errno
        EXPECT_EQ(c.ok ? bytes.substr(0, c.size) : "", b.bytes);
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
