// CPMutex: a mutex named system-wide, shared by every process (32-bit or 64-bit) that opens the
// same name; a holder that dies releases it. Backed by the lock file /tmp/<name>.lock (the name
// made file-safe by namedObjectFileName), which stays after use. Not recursive: a thread that
// holds it must not wait on the same object again. CTerminateWait lets another thread end a
// wait.
#ifndef PLATFORM_PMUTEX_H_
#define PLATFORM_PMUTEX_H_

#include <atomic>
#include <mutex>
#include <string>

class CTerminateWait {
public:
    CTerminateWait();
    void terminate();
    bool isTerminated() const;

private:
    std::atomic<int> m_terminated;
};

class CPMutex {
public:
    // The integer arguments are accepted for compatibility and not used; name is any text.
    CPMutex(int, int, const std::string& name, int, int);
    ~CPMutex();
    CPMutex(const CPMutex&) = delete;
    CPMutex& operator=(const CPMutex&) = delete;

    // False when the named object could not be opened; then wait() fails at once. No
    // descriptor is held between a release and the next wait.
    bool isValid() const;
    // Waits at most timeout ms (0xFFFFFFFF: no limit) or until pTerminate (may be null) is
    // terminated. Returns 0 when the mutex is held, nonzero otherwise.
    int wait(unsigned long timeout, CTerminateWait* pTerminate);
    // Called by the thread that holds the mutex (after a wait that returned 0).
    void release();

private:
    // Opens the lock file for one hold; the descriptor exists only while the mutex is held.
    int openLockFile();

    std::string m_strPath;
    int m_fd;  // the lock file while held, else -1; written under m_threadLock
    bool m_bValid;
    std::mutex m_threadLock;  // serialises the threads of this process on one object
};

#endif  // PLATFORM_PMUTEX_H_
