// CPCritSec: an in-process critical section (recursive mutex). enter/leave take the caller's
// source line, kept for diagnostics. CCritSecLock enters on construction and leaves on every
// path out of its scope. Both carry clang's capability attributes (platform/ThreadAnnotations.h).
#ifndef PLATFORM_PCRITSEC_H_
#define PLATFORM_PCRITSEC_H_

#include <mutex>
#include <string>

#include "platform/ThreadAnnotations.h"

class CAPABILITY("mutex") CPCritSec {
public:
    CPCritSec(const char* name, int recursive);
    ~CPCritSec();
    CPCritSec(const CPCritSec&) = delete;
    CPCritSec& operator=(const CPCritSec&) = delete;

    void enter(int line) ACQUIRE();
    void leave(int line) RELEASE();

private:
    std::string m_strName;
    std::recursive_mutex m_mutex;
};

class SCOPED_CAPABILITY CCritSecLock {
public:
    CCritSecLock(CPCritSec* cs, int line) ACQUIRE(cs) : m_pCs(cs), m_line(line) {
        m_pCs->enter(m_line);
    }
    ~CCritSecLock() RELEASE() { m_pCs->leave(m_line); }
    CCritSecLock(const CCritSecLock&) = delete;
    CCritSecLock& operator=(const CCritSecLock&) = delete;

private:
    CPCritSec* m_pCs;
    int m_line;
};

#endif  // PLATFORM_PCRITSEC_H_
