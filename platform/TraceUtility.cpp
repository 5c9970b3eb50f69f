// The trace utility and the line sink. One utility object serves the whole process; endpoints
// take and drop references on it. Lines are formatted only when a sink is set, and handed to it
// under one lock, so lines of different threads never interleave.
#include "platform/TraceUtility.h"

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>

#include "platform/QVLog.h"

CTraceUtility* g_ptu = nullptr;

namespace {

struct Sink {
    // Recursive: a callback that itself logs must not deadlock.
    std::recursive_mutex mutex;
    QVLogCallback callback = nullptr;
    void* ctx = nullptr;
    FILE* file = nullptr;
    int fileWithTrace = 0;
    std::atomic<int> active{0};  // nonzero while a callback or a file is set: the fast path
};

// Function-local so that it exists whichever static object logs first.
Sink& sink() {
    static Sink s;
    return s;
}

struct Registry {
    std::mutex mutex;
    int refs = 0;
    CTraceUtility utility;
};

Registry& registry() {
    static Registry r;
    return r;
}

void emit(int kind, int traceClass, int priority, const char* fmt, va_list args)
    __attribute__((format(printf, 4, 0)));

void emit(int kind, int traceClass, int priority, const char* fmt, va_list args) {
    Sink& s = sink();
    if (s.active.load() == 0 || fmt == nullptr) return;

    char small[512];
    va_list copy;
    va_copy(copy, args);
    const int n = vsnprintf(small, sizeof(small), fmt, copy);
    va_end(copy);
    if (n < 0) return;
    std::string big;
    const char* text = small;
    if (static_cast<size_t>(n) >= sizeof(small)) {
        big.resize(static_cast<size_t>(n) + 1);
        vsnprintf(&big[0], big.size(), fmt, args);
        big.resize(static_cast<size_t>(n));
        text = big.c_str();
    }

    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    if (s.callback != nullptr) {
        s.callback(s.ctx, kind, traceClass, priority, text);
    } else if (s.file != nullptr && (kind == QV_LINE_LOG || s.fileWithTrace != 0)) {
        fprintf(s.file, "%s\n", text);
        fflush(s.file);  // a process that dies keeps its last lines
    }
}

void closeFileLocked(Sink& s) {
    if (s.file != nullptr) fclose(s.file);
    s.file = nullptr;
    s.fileWithTrace = 0;
}

}  // namespace

namespace LQLogLib {

void CLogFile::LogString(int priority, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    emit(QV_LINE_LOG, 0, priority, fmt, args);
    va_end(args);
}

void CLogFile::LogStringArgListX(int priority, const char* fmt, va_list args) {
    emit(QV_LINE_LOG, 0, priority, fmt, args);
}

void CLogFile::TraceString(int traceClass, int priority, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    emit(QV_LINE_TRACE, traceClass, priority, fmt, args);
    va_end(args);
}

void CLogFile::TraceStringArgList(int traceClass, int priority, const char* fmt, va_list args) {
    emit(QV_LINE_TRACE, traceClass, priority, fmt, args);
}

}  // namespace LQLogLib

LQLogLib::CLogFile* CTraceUtility::getLogFile() { return &m_logFile; }

int CreateCTraceUtility(CTraceUtility** pptu, const char*, const char*, const char*, int, void*,
                        int, int) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    ++r.refs;
    // Written only when it changes: threads of other endpoints read g_ptu without a lock.
    if (pptu != nullptr && *pptu != &r.utility) *pptu = &r.utility;
    return 0;
}

void DestroyCTraceUtility(CTraceUtility** pptu) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (r.refs > 0) --r.refs;
    // The utility itself is static and never freed, so a late line from a thread that still
    // holds the old pointer finds a valid object.
    if (r.refs == 0 && pptu != nullptr && *pptu != nullptr) *pptu = nullptr;
}

extern "C" {

void QVSetLogCallback(QVLogCallback cb, void* ctx) {
    Sink& s = sink();
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    closeFileLocked(s);
    s.callback = cb;
    s.ctx = ctx;
    s.active.store(cb != nullptr ? 1 : 0);
}

int QVSetLogFile(const char* path, int withTrace) {
    Sink& s = sink();
    std::lock_guard<std::recursive_mutex> lock(s.mutex);
    closeFileLocked(s);
    s.callback = nullptr;
    s.ctx = nullptr;
    s.active.store(0);
    if (path == nullptr) return 0;
    FILE* f = fopen(path, "ae");
    if (f == nullptr) return -1;
    s.file = f;
    s.fileWithTrace = withTrace;
    s.active.store(1);
    return 0;
}
}
