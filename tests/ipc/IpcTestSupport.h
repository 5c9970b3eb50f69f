// Shared by the endpoint tests: a capture of trace and log lines, and the address text that
// every trace line of an endpoint carries.
#ifndef TESTS_IPC_IPCTESTSUPPORT_H_
#define TESTS_IPC_IPCTESTSUPPORT_H_

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "platform/QVLog.h"

namespace ipctest {

// Collects every line while it exists; lines are kept as "<kind>/<class>/<priority> <text>".
class LineCapture {
public:
    LineCapture() { QVSetLogCallback(&LineCapture::callback, this); }
    ~LineCapture() { QVSetLogCallback(nullptr, nullptr); }
    LineCapture(const LineCapture&) = delete;
    LineCapture& operator=(const LineCapture&) = delete;

    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

private:
    static void callback(void* ctx, int kind, int traceClass, int priority, const char* text) {
        LineCapture* self = static_cast<LineCapture*>(ctx);
        char head[64];
        snprintf(head, sizeof(head), "%s/%d/%d ", kind == QV_LINE_TRACE ? "T" : "L", traceClass,
                 priority);
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_lines.push_back(head + std::string(text));
    }

    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

inline std::string addressText(const void* p) {
    char buf[16];
    snprintf(buf, sizeof(buf), "0x%08X", static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)));
    return buf;
}

}  // namespace ipctest

#endif  // TESTS_IPC_IPCTESTSUPPORT_H_
