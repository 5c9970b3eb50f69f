// Public: the IPC result codes. A result code is a 32-bit unsigned value; 0 is success.
#ifndef QVIPC_QVIPCLIBRARY_QVIPCERRORS_H_
#define QVIPC_QVIPCLIBRARY_QVIPCERRORS_H_

#include <cstdint>

// The type of every result code, 32 bits on both targets.
typedef uint32_t QVRESULT;

#ifndef S_OK
#define S_OK 0x00000000u
#endif
#ifndef E_FAIL
#define E_FAIL 0x80004005u
#endif

constexpr uint32_t QVIPC_E_OUTOFMEMORY = 0xC1261004u;       // allocation failed
constexpr uint32_t QVIPC_E_SHUTDOWN = 0xC1261006u;          // the endpoint is stopping
constexpr uint32_t QVIPC_E_HEADER_EXT_SIZE = 0xC1261007u;   // thrown: extension above 48
constexpr uint32_t QVIPC_E_NEW_CONNECTION = 0xC1261008u;    // receiveRequest: new connection
constexpr uint32_t QVIPC_E_DISCONNECTED = 0xC1261009u;      // end of file on a connection FIFO
constexpr uint32_t QVIPC_E_TOO_MANY_CLIENTS = 0xC126100Au;  // too many clients
constexpr uint32_t QVIPC_E_INVALID_ID = 0xC126100Bu;        // ipcid out of range
constexpr uint32_t QVIPC_E_NO_PIPE = 0xC126100Cu;           // slot without write descriptor
constexpr uint32_t QVIPC_E_THREAD = 0xC126100Du;            // connect thread not started
constexpr uint32_t QVIPC_E_CREATE_PIPE = 0xC126100Eu;       // FIFO or pipe not made/opened
constexpr uint32_t QVIPC_E_READ = 0xC1261010u;              // header or body read failed
constexpr uint32_t QVIPC_E_WRITE_RESPONSE = 0xC1261011u;    // response/reply not written
constexpr uint32_t QVIPC_E_MKNOD = 0xC1261012u;             // start-up FIFO not made/opened
constexpr uint32_t QVIPC_E_OPEN_TIMEOUT = 0xC1261013u;      // peer FIFO not opened in time
constexpr uint32_t QVIPC_E_WRITE = 0xC1261014u;             // request/record not written whole
constexpr uint32_t QVIPC_E_INVALID_REQUEST = 0xC1261017u;   // unknown admin record code

// No limit, wherever a time-out is passed (the send time-out counts whole seconds).
constexpr unsigned long QVIPC_NO_TIMEOUT = 0xFFFFFFFFul;

#endif  // QVIPC_QVIPCLIBRARY_QVIPCERRORS_H_
