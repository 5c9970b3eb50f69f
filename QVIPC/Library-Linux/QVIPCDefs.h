// Internal constants of the transport shared by every file of the endpoint.
#ifndef QVIPC_LIBRARY_LINUX_QVIPCDEFS_H_
#define QVIPC_LIBRARY_LINUX_QVIPCDEFS_H_

#include <cstdint>

constexpr int QVIPC_MAX_SLOTS = 64;  // entries of every per-slot array
constexpr int REQUEST_PIPE = 1;      // a client's one connection slot
constexpr int ADMINPIPE = 0;         // the server's own slot (admin FIFO, internal pipe)
constexpr unsigned long POLL_INTERVAL_MS = 200;  // the designed polling period of every wait
constexpr int QVIPC_MAX_HEADER_EXT = 48;         // bytes of header extension on the wire

constexpr uint32_t QVIPC_REQUEST_CONNECT = 1;
constexpr uint32_t QVIPC_REQUEST_DISCONNECT = 2;
constexpr uint32_t QVIPC_REQUEST_INTERNAL = 99;

// Trace class and priorities of the log file calls.
constexpr int QV_TRACE_CLASS = 16;
constexpr int QV_PRIORITY_NOTICE = 2;
constexpr int QV_PRIORITY_ERROR = 64;

#endif  // QVIPC_LIBRARY_LINUX_QVIPCDEFS_H_
