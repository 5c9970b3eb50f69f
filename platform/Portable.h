// CPortable: the small portability calls the library is written against (threads, time, process
// id, number/text conversions). All are static and thread-safe.
#ifndef PLATFORM_PORTABLE_H_
#define PLATFORM_PORTABLE_H_

#include <cstdint>
#include <string>

class CPortable {
public:
    typedef void* (*ThreadEntry)(void*);

    // Starts entry(arg) on a new detached thread. *pThreadId (when not null) receives an id.
    // name, when not empty, names the thread. Returns nonzero on success, 0 on failure.
    static int CreateThread(ThreadEntry entry, void* arg, unsigned long* pThreadId,
                            const char* name);
    // Names the calling thread (cut to the 15 characters the kernel keeps).
    static void SetCurrentThreadName(const char* name);
    // Sleeps at least ms milliseconds.
    static void Sleep(unsigned long ms);
    // Milliseconds from a monotonic clock.
    static unsigned long long GetTickCountULL();
    static unsigned long GetCurrentProcessId();

    // Write value in radix (2..36) into buf, NUL-terminated, with a leading '-' for negatives
    // in radix 10. buf must hold the text (34 bytes always suffice). Return buf.
    static char* itoa(int value, char* buf, int radix);
    static char* ltoa(long value, char* buf, int radix);
    // Decimal text of value.
    static std::string ulltos(unsigned long long value);
    // Decimal text to number as strtoull reads it (leading blanks, optional sign); 0 when the
    // text holds no number, ULLONG_MAX when it overflows.
    static unsigned long long stoull(const std::string& text);
    // Lower-cases an ASCII text in place; returns s.
    static char* strlwr(char* s);
};

#endif  // PLATFORM_PORTABLE_H_
