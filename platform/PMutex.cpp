// CPMutex over an advisory lock (flock) on a lock file named after the mutex. flock locks
// belong to the open file description, so they exclude other objects of this process as well
// as other processes of either ABI, and the kernel drops them when a holder dies. Threads that
// share one object are serialised by m_threadLock first, as flock would let them all in.
// The lock file is opened for each hold and closed on release, so an idle mutex holds no
// descriptor.
#include "platform/PMutex.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "platform/NamedObject.h"

namespace {

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;
constexpr auto POLL_STEP = std::chrono::milliseconds(5);

}  // namespace

CTerminateWait::CTerminateWait() : m_terminated(0) {}

void CTerminateWait::terminate() { m_terminated.store(1); }

bool CTerminateWait::isTerminated() const { return m_terminated.load() != 0; }

CPMutex::CPMutex(int, int, const std::string& name, int, int)
    : m_strPath(mutexLockPath(name)), m_fd(-1), m_bValid(false) {
    // Made (or found) now, so that a name that cannot work fails at construction.
    const int fd = openLockFile();
    if (fd >= 0) {
        close(fd);
        m_bValid = true;
    }
}

CPMutex::~CPMutex() {
    if (m_fd >= 0) close(m_fd);
}

bool CPMutex::isValid() const { return m_bValid; }

int CPMutex::openLockFile() {
    int created = 0;
    int fd = openNamedObjectFile(m_strPath, &created);
    if (fd < 0 && errno == EACCES) {
        // A lock file made read-only by someone else still takes a lock when opened for reading.
        fd = openInSharedDir(m_strPath, O_RDONLY | O_NONBLOCK, S_IFREG);
    }
    return fd;
}

int CPMutex::wait(unsigned long timeout, CTerminateWait* pTerminate) {
    if (!m_bValid) return -1;
    using Clock = std::chrono::steady_clock;
    const bool unlimited = timeout == NO_TIMEOUT;
    const Clock::time_point deadline =
        Clock::now() + std::chrono::milliseconds(unlimited ? 0 : timeout);
    auto giveUp = [&]() {
        return (pTerminate != nullptr && pTerminate->isTerminated()) ||
               (!unlimited && Clock::now() >= deadline);
    };
    const bool blocking = unlimited && pTerminate == nullptr;

    if (blocking) {
        m_threadLock.lock();
    } else {
        // try_lock and a short sleep rather than a timed lock, which the thread sanitizer's
        // runtime does not see.
        while (!m_threadLock.try_lock()) {
            if (giveUp()) return -1;
            std::this_thread::sleep_for(POLL_STEP);
        }
    }
    m_fd = openLockFile();
    if (m_fd >= 0) {
        for (;;) {
            if (flock(m_fd, blocking ? LOCK_EX : LOCK_EX | LOCK_NB) == 0) return 0;
            if (errno != EWOULDBLOCK && errno != EINTR) break;
            if (blocking) continue;  // EINTR: wait again
            if (giveUp()) break;
            std::this_thread::sleep_for(POLL_STEP);
        }
        close(m_fd);
        m_fd = -1;
    }
    m_threadLock.unlock();
    return -1;
}

void CPMutex::release() {
    // Closing the only descriptor of this open file description drops the lock.
    if (m_fd >= 0) {
        flock(m_fd, LOCK_UN);
        close(m_fd);
        m_fd = -1;
    }
    m_threadLock.unlock();
}
