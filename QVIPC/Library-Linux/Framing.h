// The frames on every FIFO of a service: the 72-byte request header, the 68-byte response header
// and the admin records built on them, as 32-bit native-order words at fixed offsets. The
// tables are in docs/wire-format.md; the static_asserts keep this file in step with them.
#ifndef QVIPC_LIBRARY_LINUX_FRAMING_H_
#define QVIPC_LIBRARY_LINUX_FRAMING_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "QVIPC/Library-Linux/QVIPCDefs.h"

namespace qvframe {

constexpr size_t REQUEST_HEADER_SIZE = 72;
constexpr size_t RESPONSE_HEADER_SIZE = 68;
constexpr size_t HEADER_EXT_AREA = 48;

// Request header offsets.
constexpr size_t REQ_TYPE = 0;
constexpr size_t REQ_REQUEST_ID = 4;
constexpr size_t REQ_CONNECT_ID = 8;
constexpr size_t REQ_PID = 12;
constexpr size_t REQ_BODY_SIZE = 16;
constexpr size_t REQ_REQUEST_TYPE = 20;
constexpr size_t REQ_EXT = 24;

// Response header offsets.
constexpr size_t RSP_TYPE = 0;
constexpr size_t RSP_REQUEST_ID = 4;
constexpr size_t RSP_RESULT = 8;
constexpr size_t RSP_PID = 12;
constexpr size_t RSP_BODY_SIZE = 16;
constexpr size_t RSP_EXT = 20;

static_assert(REQ_EXT + HEADER_EXT_AREA == REQUEST_HEADER_SIZE, "request header is 72 bytes");
static_assert(RSP_EXT + HEADER_EXT_AREA == RESPONSE_HEADER_SIZE, "response header is 68 bytes");
static_assert(REQUEST_HEADER_SIZE == 72 && RESPONSE_HEADER_SIZE == 68, "designed frame sizes");
static_assert(QVIPC_MAX_HEADER_EXT == static_cast<int>(HEADER_EXT_AREA), "extension area");

// Type words.
constexpr uint32_t TYPE_CONNECT = 1;  // connect reply (response) and connect notification (request)
constexpr uint32_t TYPE_DATA = 3;     // data message; also the shutdown wake-up records

typedef unsigned char RequestFrame[REQUEST_HEADER_SIZE];
typedef unsigned char ResponseFrame[RESPONSE_HEADER_SIZE];

struct RequestHeader {
    uint32_t type = 0;
    uint32_t requestId = 0;
    uint32_t connectId = 0;
    uint32_t pid = 0;
    uint32_t bodySize = 0;
    int32_t requestType = 0;
};

struct ResponseHeader {
    uint32_t type = 0;
    uint32_t requestId = 0;
    uint32_t result = 0;
    uint32_t pid = 0;
    uint32_t bodySize = 0;
};

inline void put32(unsigned char* frame, size_t offset, uint32_t value) {
    std::memcpy(frame + offset, &value, sizeof value);
}

inline uint32_t get32(const unsigned char* frame, size_t offset) {
    uint32_t value;
    std::memcpy(&value, frame + offset, sizeof value);
    return value;
}

// Clears the frame, then fills it; ext (may be null) gives the first extLen bytes of the
// extension area, extLen being the endpoint's extension size (at most 48).
inline void buildRequest(RequestFrame& frame, const RequestHeader& h, const char* ext,
                         size_t extLen) {
    std::memset(frame, 0, sizeof frame);
    put32(frame, REQ_TYPE, h.type);
    put32(frame, REQ_REQUEST_ID, h.requestId);
    put32(frame, REQ_CONNECT_ID, h.connectId);
    put32(frame, REQ_PID, h.pid);
    put32(frame, REQ_BODY_SIZE, h.bodySize);
    put32(frame, REQ_REQUEST_TYPE, static_cast<uint32_t>(h.requestType));
    if (ext != nullptr && extLen > 0) {
        std::memcpy(frame + REQ_EXT, ext, extLen < HEADER_EXT_AREA ? extLen : HEADER_EXT_AREA);
    }
}

inline void buildResponse(ResponseFrame& frame, const ResponseHeader& h, const char* ext,
                          size_t extLen) {
    std::memset(frame, 0, sizeof frame);
    put32(frame, RSP_TYPE, h.type);
    put32(frame, RSP_REQUEST_ID, h.requestId);
    put32(frame, RSP_RESULT, h.result);
    put32(frame, RSP_PID, h.pid);
    put32(frame, RSP_BODY_SIZE, h.bodySize);
    if (ext != nullptr && extLen > 0) {
        std::memcpy(frame + RSP_EXT, ext, extLen < HEADER_EXT_AREA ? extLen : HEADER_EXT_AREA);
    }
}

inline RequestHeader parseRequest(const RequestFrame& frame) {
    RequestHeader h;
    h.type = get32(frame, REQ_TYPE);
    h.requestId = get32(frame, REQ_REQUEST_ID);
    h.connectId = get32(frame, REQ_CONNECT_ID);
    h.pid = get32(frame, REQ_PID);
    h.bodySize = get32(frame, REQ_BODY_SIZE);
    h.requestType = static_cast<int32_t>(get32(frame, REQ_REQUEST_TYPE));
    return h;
}

inline ResponseHeader parseResponse(const ResponseFrame& frame) {
    ResponseHeader h;
    h.type = get32(frame, RSP_TYPE);
    h.requestId = get32(frame, RSP_REQUEST_ID);
    h.result = get32(frame, RSP_RESULT);
    h.pid = get32(frame, RSP_PID);
    h.bodySize = get32(frame, RSP_BODY_SIZE);
    return h;
}

// Copies the first extLen bytes of the extension area (at offset) out, when ext is not null.
inline void copyExtOut(const unsigned char* frame, size_t offset, char* ext, size_t extLen) {
    if (ext != nullptr && extLen > 0) {
        std::memcpy(ext, frame + offset, extLen < HEADER_EXT_AREA ? extLen : HEADER_EXT_AREA);
    }
}

// The records that carry no message: the admin records CONNECT, DISCONNECT and INTERNAL, the
// connect notification and the request-side shutdown wake-up (72 bytes); the connect reply and
// the response-side wake-ups (68 bytes). The fields come in wire order; the rest is zero (the
// request id of a 72-byte record, every body size, the extension).
inline void buildAdminRecord(RequestFrame& frame, uint32_t type, uint32_t connectId, uint32_t pid,
                             int32_t requestType) {
    RequestHeader h;
    h.type = type;
    h.connectId = connectId;
    h.pid = pid;
    h.requestType = requestType;
    buildRequest(frame, h, nullptr, 0);
}

inline void buildAdminRecord(ResponseFrame& frame, uint32_t type, uint32_t requestId,
                             uint32_t result, uint32_t pid) {
    ResponseHeader h;
    h.type = type;
    h.requestId = requestId;
    h.result = result;
    h.pid = pid;
    buildResponse(frame, h, nullptr, 0);
}

}  // namespace qvframe

#endif  // QVIPC_LIBRARY_LINUX_FRAMING_H_
