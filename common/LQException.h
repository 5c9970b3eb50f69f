// LQException: what the endpoint constructors and CParamsX throw. It carries a result code and
// the throw site as "file.line". Exported, so that a caller's catch matches across the library.
#ifndef COMMON_LQEXCEPTION_H_
#define COMMON_LQEXCEPTION_H_

#include "common/QVExport.h"

class QV_API LQException {
public:
    // Stores code; text is "%s.%d" of file and line cut to 269 characters, or empty when file is
    // null. Always NUL-terminated.
    LQException(long code, const char* file, long line);
    virtual ~LQException();

    long code;
    char text[271];
};

// Throws an LQException naming the current source file and line.
#define LQ_THROW(code) throw LQException((code), __FILE__, __LINE__)

#endif  // COMMON_LQEXCEPTION_H_
