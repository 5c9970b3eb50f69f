// The pipe writers, clearO_NONBLOCK and the SIGPIPE set-up.
#include "QVIPC/Library-Linux/PipeIO.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>

#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "QVIPC/Library-Linux/QVIPCTrace.h"
#include "platform/Portable.h"

namespace {

// select() takes a signed time_t, 32 bits on i686: a budget beyond it is as good as none.
constexpr unsigned long MAX_SELECT_SECONDS = 0x7FFFFFFFul;

// A gather list whose byte count an int result cannot carry fails before anything is written.
bool refuseOverlong(const iovec* iov, int iovcnt) {
    if (gatherLength(iov, iovcnt) >= 0) return false;
    errno = EOVERFLOW;
    return true;
}

}  // namespace

ssize_t gatherLength(const iovec* iov, int iovcnt) {
    constexpr size_t INT_LIMIT = static_cast<size_t>(INT_MAX);
    size_t total = 0;
    for (int i = 0; i < iovcnt; ++i) {
        // Compared before adding, so that a 32-bit size_t cannot wrap around.
        if (iov[i].iov_len > INT_LIMIT - total) return -1;
        total += iov[i].iov_len;
    }
    return static_cast<ssize_t>(total);
}

int CPIPEIOSynchronous::write(int fd, const void* buf, int len, unsigned long /*timeout*/) {
    if (len < 0) {
        // A negative length would reach the system as a huge size_t.
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(::write(fd, buf, static_cast<size_t>(len)));
}

int CPIPEIOSynchronous::writev(int fd, const iovec* iov, int iovcnt, unsigned long /*timeout*/) {
    if (refuseOverlong(iov, iovcnt)) return -1;
    // At most INT_MAX bytes were asked for, so the count fits.
    return static_cast<int>(::writev(fd, iov, iovcnt));
}

int CPIPEIOAsynchronous::write(int fd, const void* buf, int len, unsigned long timeout) {
    if (len <= 0) return 0;
    const char* p = static_cast<const char*>(buf);
    size_t remaining = static_cast<size_t>(len);
    size_t total = 0;
    // Set up on the first wait and reused by the later ones: select() leaves the unslept time
    // in tv, so all waits of this call share one budget.
    fd_set set;
    timeval tv;
    bool waited = false;
    for (;;) {
        const ssize_t n = ::write(fd, p, remaining);
        if (n > 0) {
            total += static_cast<size_t>(n);
            p += n;
            remaining -= static_cast<size_t>(n);
            // The total never exceeds len, an int.
            if (remaining == 0) return static_cast<int>(total);
            continue;
        }
        if (n == 0) return static_cast<int>(total);
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
    // Past this check every element, and the total, fits an int.
    if (refuseOverlong(iov, iovcnt)) return -1;
    const bool limited = timeout != QVIPC_NO_TIMEOUT;
    const unsigned long long start = limited ? CPortable::GetTickCountULL() : 0;
    unsigned long t = timeout;
    size_t total = 0;
    for (int i = 0; i < iovcnt; ++i) {
        const int r = write(fd, iov[i].iov_base, static_cast<int>(iov[i].iov_len), t);
        if (r < 0) return -1;
        if (r == 0) return static_cast<int>(total);
        total += static_cast<size_t>(r);
        if (limited) {
            const unsigned long long elapsedSec = (CPortable::GetTickCountULL() - start) / 1000;
            // Every element after the first gets at least one second.
            t = elapsedSec >= timeout ? 1ul : static_cast<unsigned long>(timeout - elapsedSec);
        }
    }
    return static_cast<int>(total);
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
            traceAddr(this), fd, err, flags);
    }
}
