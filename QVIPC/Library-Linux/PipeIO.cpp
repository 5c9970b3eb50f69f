// The pipe writers, clearO_NONBLOCK and the SIGPIPE set-up.
#include "QVIPC/Library-Linux/PipeIO.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "QVIPC/Library-Linux/QVIPCTrace.h"
#include "platform/Portable.h"

namespace {

// select() takes a signed time_t, 32 bits on i686: a budget beyond it is as good as none.
constexpr unsigned long MAX_SELECT_SECONDS = 0x7FFFFFFFul;

}  // namespace

int CPIPEIOSynchronous::write(int fd, const void* buf, int len, unsigned long /*timeout*/) {
    if (len < 0) {
        // A negative length would reach the system as a huge size_t.
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(::write(fd, buf, static_cast<size_t>(len)));
}

int CPIPEIOSynchronous::writev(int fd, const iovec* iov, int iovcnt, unsigned long /*timeout*/) {
    return static_cast<int>(::writev(fd, iov, iovcnt));
}

int CPIPEIOAsynchronous::write(int fd, const void* buf, int len, unsigned long timeout) {
    if (len <= 0) return 0;
    const char* p = static_cast<const char*>(buf);
    int remaining = len;
    int total = 0;
    // Set up on the first wait and reused by the later ones: select() leaves the unslept time
    // in tv, so all waits of this call share one budget.
    fd_set set;
    timeval tv;
    bool waited = false;
    for (;;) {
        const ssize_t n = ::write(fd, p, static_cast<size_t>(remaining));
        if (n > 0) {
            total += static_cast<int>(n);
            p += n;
            remaining -= static_cast<int>(n);
            if (remaining == 0) return total;
            continue;
        }
        if (n == 0) return total;
        if (errno != EAGAIN) return -1;

        if (fd < 0 || fd >= FD_SETSIZE) {
            // An fd_set cannot hold it; FD_SET would write past the set.
            errno = EBADF;
            return -1;
        }
        if (!waited) {
            FD_ZERO(&set);
            tv.tv_sec =
                static_cast<time_t>(timeout < MAX_SELECT_SECONDS ? timeout : MAX_SELECT_SECONDS);
            tv.tv_usec = 0;
            waited = true;
        }
        FD_SET(fd, &set);
        const int r =
            select(fd + 1, nullptr, &set, nullptr, timeout == QVIPC_NO_TIMEOUT ? nullptr : &tv);
        if (r != 1) return -1;
    }
}

int CPIPEIOAsynchronous::writev(int fd, const iovec* iov, int iovcnt, unsigned long timeout) {
    const bool limited = timeout != QVIPC_NO_TIMEOUT;
    const unsigned long long start = limited ? CPortable::GetTickCountULL() : 0;
    unsigned long t = timeout;
    int total = 0;
    for (int i = 0; i < iovcnt; ++i) {
        const int r = write(fd, iov[i].iov_base, static_cast<int>(iov[i].iov_len), t);
        if (r < 0) return -1;
        if (r == 0) return total;
        total += r;
        if (limited) {
            const unsigned long long elapsedSec = (CPortable::GetTickCountULL() - start) / 1000;
            // Every element after the first gets at least one second.
            t = elapsedSec >= timeout ? 1ul : static_cast<unsigned long>(timeout - elapsedSec);
        }
    }
    return total;
}

CPipeSigDisable::CPipeSigDisable() { signal(SIGPIPE, SIG_IGN); }

void CQVIPCLibraryImpl::clearO_NONBLOCK(int fd) {
    if (fd == -1) return;
    const int flags = fcntl(fd, F_GETFL);
    // A descriptor whose flags cannot be read is not touched: -1 as flags would set every bit.
    if (flags == -1 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == -1) {
        const int err = errno;
        // The second number is the status flags that were read (-1 when none could be).
        qvLogError(
            "(Error) CQVIPCLibraryImpl::clearO_NONBLOCK (0x%08X), fcntl failed: fd %d, errno %d %d",
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(this)), fd, err, flags);
    }
}
