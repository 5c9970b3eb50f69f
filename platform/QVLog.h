// Public: where the library's log and trace lines go. By default nowhere.
#ifndef PLATFORM_QVLOG_H_
#define PLATFORM_QVLOG_H_

#include "common/QVExport.h"

extern "C" {

enum { QV_LINE_LOG = 0, QV_LINE_TRACE = 1 };

// Receives every line: kind (QV_LINE_LOG or QV_LINE_TRACE), trace class (0 for log lines),
// priority and the formatted text without a line end. Called on the thread that logs.
typedef void (*QVLogCallback)(void* ctx, int kind, int traceClass, int priority, const char* text);

// Sets the sink (null: none). Replaces a file set by QVSetLogFile.
QV_API void QVSetLogCallback(QVLogCallback cb, void* ctx);
// Appends lines to path (null closes the file); trace lines only when withTrace is nonzero.
// Returns 0 on success, -1 when the file cannot be opened.
QV_API int QVSetLogFile(const char* path, int withTrace);
}

#endif  // PLATFORM_QVLOG_H_
