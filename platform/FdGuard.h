// File descriptors: CFdGuard owns one until it is released (to a slot entry, say), closeFd
// closes one exactly once, retryOnEintr is the one place where an interrupted call is repeated,
// and the poll probes look at a descriptor without waiting. Stateless; any thread.
#ifndef PLATFORM_FDGUARD_H_
#define PLATFORM_FDGUARD_H_

#include <cerrno>

// Closes fd unless it is -1 and stores -1 in it, so a second call does nothing. The store is
// atomic: threads may look at the variable without a lock meanwhile. close() is never retried:
// after EINTR the descriptor is gone all the same.
void closeFd(int& fd);

// Owns a descriptor (or -1) and closes it on every path out of its scope, unless release()
// has handed it on.
class CFdGuard {
public:
    explicit CFdGuard(int fd = -1) : m_fd(fd) {}
    ~CFdGuard() { closeFd(m_fd); }
    CFdGuard(const CFdGuard&) = delete;
    CFdGuard& operator=(const CFdGuard&) = delete;

    int get() const { return m_fd; }
    // Gives the descriptor up without closing it; the guard holds -1 afterwards.
    int release() {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    // Closes what the guard holds and takes fd instead.
    void reset(int fd = -1) {
        closeFd(m_fd);
        m_fd = fd;
    }

private:
    int m_fd;
};

// Calls call() again for as long as it fails with EINTR, and returns its last result: for
// calls that consume nothing when interrupted (read, poll). Not for close().
template <typename Call>
auto retryOnEintr(Call call) -> decltype(call()) {
    for (;;) {
        const auto result = call();
        if (result >= 0 || errno != EINTR) return result;
    }
}

// The poll() events of fd for reading right now, without waiting (POLLIN, POLLHUP, POLLERR,
// POLLNVAL); 0 when there are none or poll() fails.
short readEventsNow(int fd);

// Whether a read of fd would not block now: data, end of file, or an error to report. A
// closed descriptor (POLLNVAL) is not readable.
bool isReadable(int fd);

#endif  // PLATFORM_FDGUARD_H_
