// The transport's line writers, and the endpoint address as its texts show it. Each writer
// looks at g_ptu and its log file once and writes nothing when either is missing. Texts are
// written out word for word at the call sites.
#ifndef QVIPC_LIBRARY_LINUX_QVIPCTRACE_H_
#define QVIPC_LIBRARY_LINUX_QVIPCTRACE_H_

#include <cstdarg>
#include <cstdint>

#include "QVIPC/Library-Linux/QVIPCDefs.h"
#include "platform/TraceUtility.h"

// Trace: class 16, priority 2.
inline void qvTrace(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Error: priority 64; the text already begins "(Error) ".
inline void qvLogError(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Notice: priority 2.
inline void qvLogNotice(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Trace at error priority: class 16, priority 64; for a failure that repeats on every try of a
// wait, which belongs in the trace rather than the log.
inline void qvTraceError(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// An address as the "0x%08X" of every trace text shows it: the endpoint's, or a buffer's.
inline unsigned traceAddr(const void* p) {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

namespace qvtrace_detail {
inline LQLogLib::CLogFile* logFile() {
    CTraceUtility* ptu = g_ptu;
    return ptu != nullptr ? ptu->getLogFile() : nullptr;
}
}  // namespace qvtrace_detail

inline void qvTrace(const char* fmt, ...) {
    LQLogLib::CLogFile* log = qvtrace_detail::logFile();
    if (log == nullptr) return;
    va_list args;
    va_start(args, fmt);
    log->TraceStringArgList(QV_TRACE_CLASS, QV_PRIORITY_NOTICE, fmt, args);
    va_end(args);
}

inline void qvTraceError(const char* fmt, ...) {
    LQLogLib::CLogFile* log = qvtrace_detail::logFile();
    if (log == nullptr) return;
    va_list args;
    va_start(args, fmt);
    log->TraceStringArgList(QV_TRACE_CLASS, QV_PRIORITY_ERROR, fmt, args);
    va_end(args);
}

inline void qvLogError(const char* fmt, ...) {
    LQLogLib::CLogFile* log = qvtrace_detail::logFile();
    if (log == nullptr) return;
    va_list args;
    va_start(args, fmt);
    log->LogStringArgListX(QV_PRIORITY_ERROR, fmt, args);
    va_end(args);
}

inline void qvLogNotice(const char* fmt, ...) {
    LQLogLib::CLogFile* log = qvtrace_detail::logFile();
    if (log == nullptr) return;
    va_list args;
    va_start(args, fmt);
    log->LogStringArgListX(QV_PRIORITY_NOTICE, fmt, args);
    va_end(args);
}

#endif  // QVIPC_LIBRARY_LINUX_QVIPCTRACE_H_
