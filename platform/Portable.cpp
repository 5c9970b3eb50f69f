// CPortable on POSIX: detached pthreads, a monotonic millisecond clock and the number/text
// conversions the transport and CParamsX use.
#include "platform/Portable.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <new>

namespace {

// What the new thread needs before it runs the caller's entry; freed by the thread itself.
struct ThreadStart {
    CPortable::ThreadEntry entry;
    void* arg;
    char name[16];
};

void* threadTrampoline(void* p) {
    ThreadStart* start = static_cast<ThreadStart*>(p);
    const CPortable::ThreadEntry entry = start->entry;
    void* const arg = start->arg;
    if (start->name[0] != '\0') CPortable::SetCurrentThreadName(start->name);
    delete start;
    return entry(arg);
}

// Digits of magnitude in radix, written backwards from the end of a scratch buffer; returns the
// first digit. The caller copies them out.
char* formatDigits(unsigned long long magnitude, int radix, char* end) {
    char* p = end;
    *--p = '\0';
    do {
        const int d = static_cast<int>(magnitude % static_cast<unsigned>(radix));
        *--p = static_cast<char>(d < 10 ? '0' + d : 'a' + d - 10);
        magnitude /= static_cast<unsigned>(radix);
    } while (magnitude != 0);
    return p;
}

// Radix 10 prints a sign; other radices print the value's bits as unsigned of its own width.
char* formatSigned(long long value, unsigned long long asUnsigned, int radix, char* buf) {
    if (buf == nullptr) return buf;
    if (radix < 2 || radix > 36) {
        buf[0] = '\0';
        return buf;
    }
    char scratch[72];
    char* out = buf;
    unsigned long long magnitude = asUnsigned;
    if (radix == 10 && value < 0) {
        *out++ = '-';
        // Negate in the unsigned type so that the most negative value is defined.
        magnitude = 0ull - static_cast<unsigned long long>(value);
    }
    const char* digits = formatDigits(magnitude, radix, scratch + sizeof(scratch));
    while ((*out++ = *digits++) != '\0') {
    }
    return buf;
}

}  // namespace

int CPortable::CreateThread(ThreadEntry entry, void* arg, unsigned long* pThreadId,
                            const char* name) {
    ThreadStart* start = new (std::nothrow) ThreadStart;
    if (start == nullptr) return 0;
    start->entry = entry;
    start->arg = arg;
    start->name[0] = '\0';
    if (name != nullptr) {
        size_t i = 0;
        for (; i + 1 < sizeof(start->name) && name[i] != '\0'; ++i) start->name[i] = name[i];
        start->name[i] = '\0';
    }

    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        delete start;
        return 0;
    }
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t tid;
    const int rc = pthread_create(&tid, &attr, threadTrampoline, start);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete start;
        return 0;
    }
    // pthread_t is an unsigned long on Linux; it identifies the thread only while it runs.
    if (pThreadId != nullptr) *pThreadId = static_cast<unsigned long>(tid);
    return 1;
}

void CPortable::SetCurrentThreadName(const char* name) {
    if (name == nullptr) return;
    char shortName[16];
    size_t i = 0;
    for (; i + 1 < sizeof(shortName) && name[i] != '\0'; ++i) shortName[i] = name[i];
    shortName[i] = '\0';
    prctl(PR_SET_NAME, shortName, 0, 0, 0);
}

void CPortable::Sleep(unsigned long ms) {
    timespec req;
    req.tv_sec = static_cast<time_t>(ms / 1000);
    req.tv_nsec = static_cast<long>((ms % 1000) * 1000000ul);
    timespec rem;
    // A signal must not cut the sleep short: go on with what is left.
    while (nanosleep(&req, &rem) != 0 && errno == EINTR) req = rem;
}

unsigned long long CPortable::GetTickCountULL() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<unsigned long long>(ts.tv_sec) * 1000ull +
           static_cast<unsigned long long>(ts.tv_nsec) / 1000000ull;
}

namespace {

// Every message header carries the sender's process id; the C library no longer caches it, so
// each getpid() is a system call. The cache is cleared in a child after fork(). (A child made
// by a raw clone() system call would keep its parent's value; the library makes none.)
std::atomic<pid_t> g_cachedPid{0};
std::once_flag g_forkHandlerOnce;

void forgetPidInChild() { g_cachedPid.store(0, std::memory_order_relaxed); }

}  // namespace

unsigned long CPortable::GetCurrentProcessId() {
    pid_t pid = g_cachedPid.load(std::memory_order_relaxed);
    if (pid == 0) {
        std::call_once(g_forkHandlerOnce,
                       [] { pthread_atfork(nullptr, nullptr, forgetPidInChild); });
        pid = getpid();
        g_cachedPid.store(pid, std::memory_order_relaxed);
    }
    return static_cast<unsigned long>(pid);
}

char* CPortable::itoa(int value, char* buf, int radix) {
    return formatSigned(value, static_cast<unsigned int>(value), radix, buf);
}

char* CPortable::ltoa(long value, char* buf, int radix) {
    return formatSigned(value, static_cast<unsigned long>(value), radix, buf);
}

std::string CPortable::ulltos(unsigned long long value) {
    char scratch[32];
    return formatDigits(value, 10, scratch + sizeof(scratch));
}

unsigned long long CPortable::stoull(const std::string& text) {
    return std::strtoull(text.c_str(), nullptr, 10);
}

char* CPortable::strlwr(char* s) {
    if (s == nullptr) return s;
    for (char* p = s; *p != '\0'; ++p) {
        // ASCII only, whatever the locale: guids must lower the same way in every process.
        if (*p >= 'A' && *p <= 'Z') *p = static_cast<char>(*p - 'A' + 'a');
    }
    return s;
}
