// CPCritSec: an in-process critical section (recursive mutex). enter/leave take the caller's
// source line, kept for diagnostics. CCritSecLock enters on construction and leaves on every
// path out of its scope.
#ifndef PLATFORM_PCRITSEC_H_
#define PLATFORM_PCRITSEC_H_

#include <mutex>
#include <string>

class CPCritSec {
public:
    CPCritSec(const char* name, int recursive);
    ~CPCritSec();
    CPCritSec(const CPCritSec&) = delete;
    CPCritSec& operator=(const CPCritSec&) = delete;

    void enter(int line);
    void leave(int line);

private:
    std::string m_strName;
    std::recursive_mutex m_mutex;
};

class CCritSecLock {
public:
    CCritSecLock(CPCritSec* cs, int line) : m_pCs(cs), m_line(line) { m_pCs->enter(m_line); }
    ~CCritSecLock() { m_pCs->leave(m_line); }
    CCritSecLock(const CCritSecLock&) = delete;
    CCritSecLock& operator=(const CCritSecLock&) = delete;

private:
    CPCritSec* m_pCs;
    int m_line;
};

#endif  // PLATFORM_PCRITSEC_H_
