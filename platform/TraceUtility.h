// Tracing and logging: the global g_ptu and its log file. Lines go to the sink set with
// QVSetLogCallback / QVSetLogFile (platform/QVLog.h); with no sink nothing is written.
#ifndef PLATFORM_TRACEUTILITY_H_
#define PLATFORM_TRACEUTILITY_H_

#include <cstdarg>

namespace LQLogLib {

class CLogFile {
public:
    void LogString(int priority, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    void LogStringArgListX(int priority, const char* fmt, va_list args)
        __attribute__((format(printf, 3, 0)));
    void TraceString(int traceClass, int priority, const char* fmt, ...)
        __attribute__((format(printf, 4, 5)));
    void TraceStringArgList(int traceClass, int priority, const char* fmt, va_list args)
        __attribute__((format(printf, 4, 0)));
};

}  // namespace LQLogLib

class CTraceUtility {
public:
    LQLogLib::CLogFile* getLogFile();

private:
    LQLogLib::CLogFile m_logFile;
};

// One per process, shared by all endpoints; reference counted by Create/Destroy.
extern CTraceUtility* g_ptu;

// Makes (or takes one more reference on) the process's trace utility and stores it in *pptu.
// The remaining arguments are accepted and not used. Returns 0.
int CreateCTraceUtility(CTraceUtility** pptu, const char* tag1, const char* tag2, const char* name,
                        int, void*, int, int);
// Drops one reference; the last one frees the utility and sets *pptu to null.
void DestroyCTraceUtility(CTraceUtility** pptu);

#endif  // PLATFORM_TRACEUTILITY_H_
