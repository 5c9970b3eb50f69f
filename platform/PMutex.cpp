// CPMutex over an advisory lock (flock) on a lock file named after the mutex. flock locks
// belong to the open file description, so they exclude other objects of this process as well
// as other processes of either ABI, and the kernel drops them when a holder dies. Threads that
// share one object are serialised by m_threadLock first, as flock would let them all in.
#include "platform/PMutex.h"

#include <fcntl.h>
#include <sys/file.h>
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

CPMutex::CPMutex(int, int, const std::string& name, int, int) : m_fd(-1) {
    const std::string path = mutexLockPath(name);
    int created = 0;
    m_fd = openNamedObjectFile(path, &created);
    if (m_fd < 0 && errno == EACCES) {
        // A lock file made read-only by someone else still takes a lock when opened for reading.
        m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    }
}

CPMutex::~CPMutex() {
    if (m_fd >= 0) close(m_fd);
}

bool CPMutex::isValid() const { return m_fd >= 0; }

int CPMutex::wait(unsigned long timeout, CTerminateWait* pTerminate) {
    if (m_fd < 0) return -1;
    using Clock = std::chrono::steady_clock;
    const bool unlimited = timeout == NO_TIMEOUT;
    const Clock::time_point deadline =
        Clock::now() + std::chrono::milliseconds(unlimited ? 0 : timeout);

    if (unlimited && pTerminate == nullptr) {
        m_threadLock.lock();
        while (flock(m_fd, LOCK_EX) != 0) {
            if (errno != EINTR) {
                m_threadLock.unlock();
                return -1;
            }
        }
        return 0;
    }

    // Bounded or interruptible: poll both locks in short steps.
    auto giveUp = [&]() {
        return (pTerminate != nullptr && pTerminate->isTerminated()) ||
               (!unlimited && Clock::now() >= deadline);
    };
    while (!m_threadLock.try_lock_for(POLL_STEP)) {
        if (giveUp()) return -1;
    }
    for (;;) {
        if (flock(m_fd, LOCK_EX | LOCK_NB) == 0) return 0;
        if (errno != EWOULDBLOCK && errno != EINTR) break;
        if (giveUp()) break;
        std::this_thread::sleep_for(POLL_STEP);
    }
    m_threadLock.unlock();
    return -1;
}

void CPMutex::release() {
    flock(m_fd, LOCK_UN);
    m_threadLock.unlock();
}
