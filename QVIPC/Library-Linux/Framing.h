// The frames on every FIFO of a service: the 72-byte request header, the 68-byte response header
// and the admin records built on them, as 32-bit native-order words at fixed offsets (the tables
// are in docs/wire-format.md). Also the two readers every receive path shares: one header read
// and the body read into a caller-owned buffer. Stateless; safe on any thread.
#ifndef QVIPC_LIBRARY_LINUX_FRAMING_H_
#define QVIPC_LIBRARY_LINUX_FRAMING_H_

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "QVIPC/Library-Linux/QVIPCDefs.h"
#include "QVIPC/QVIPCLibrary/QVIPCErrors.h"

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

// One read() of a whole header. Returns what read() returned; an interrupted call is repeated,
// as nothing was consumed. Anything but size bytes is a failed header read for the caller.
inline ssize_t readHeader(int fd, unsigned char* frame, size_t size) {
    ssize_t n;
    do {
        n = ::read(fd, frame, size);
    } while (n < 0 && errno == EINTR);
    return n;
}

// Reads a body of size bytes into a new[] buffer of exactly that size. S_OK hands the buffer
// over in *ppBuf (null for size 0); QVIPC_E_OUTOFMEMORY when it cannot be allocated;
// QVIPC_E_READ when the read fails or the writer closes before size bytes came: end of file
// and errors other than EINTR end the body, so a writer that died mid-body cannot keep the
// reader looping. *pErr gets errno of the failed read (0 for end of file).
inline QVRESULT readBody(int fd, uint32_t size, char** ppBuf, int* pErr) {
    *ppBuf = nullptr;
    *pErr = 0;
    if (size == 0) return S_OK;
    std::unique_ptr<char[]> buf(new (std::nothrow) char[size]);
    if (!buf) return QVIPC_E_OUTOFMEMORY;
    // One read() never asks for more than this, so its result fits ssize_t on 32 bits.
    constexpr uint32_t MAX_CHUNK = 0x40000000u;
    uint32_t got = 0;
    while (got < size) {
        const uint32_t want = size - got < MAX_CHUNK ? size - got : MAX_CHUNK;
        const ssize_t n = ::read(fd, buf.get() + got, want);
        if (n > 0) {
            got += static_cast<uint32_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        *pErr = n < 0 ? errno : 0;
        return QVIPC_E_READ;
    }
    *ppBuf = buf.release();
    return S_OK;
}

// The read events of fd right now (a poll() that does not wait); 0 when poll() fails.
inline short readEventsNow(int fd) {
    pollfd p;
    p.fd = fd;
    p.events = POLLIN;
    p.revents = 0;
    int n;
    do {
        n = ::poll(&p, 1, 0);
    } while (n < 0 && errno == EINTR);
    return n == 1 ? p.revents : 0;
}

// Whether a read on fd would not block now (data, end of file, or an error to report). A
// select() cycle serves its ready set over several calls; by the time a slot's turn comes its
// descriptor may have been closed and its number reused for a FIFO with nothing to read, and a
// blocking read() there would hold the receive loop, shutdown included.
inline bool isReadable(int fd) {
    const short ev = readEventsNow(fd);
    return ev != 0 && (ev & POLLNVAL) == 0;
}

// A FIFO holds 64 KiB by default, so a larger message crosses it in several rounds of
// writer and reader waking each other. Before such a message the sender grows the FIFO to
// hold it whole, up to 1 MiB (the most an unprivileged process may ask for); the size is the
// pipe's own, invisible on the wire, and stays for the FIFO's later messages. A refusal (the
// user's pipe memory is used up, or a kernel without the call) leaves the FIFO as it was.
inline void fitPipeTo(int fd, size_t messageBytes) {
    constexpr size_t DEFAULT_PIPE = 65536;
    constexpr size_t MAX_PIPE = 1048576;
    if (messageBytes <= DEFAULT_PIPE) return;
    const int current = fcntl(fd, F_GETPIPE_SZ);
    if (current < 0 || static_cast<size_t>(current) >= MAX_PIPE ||
        static_cast<size_t>(current) >= messageBytes) {
        return;
    }
    size_t want = DEFAULT_PIPE * 2;
    while (want < messageBytes && want < MAX_PIPE) want *= 2;
    (void)fcntl(fd, F_SETPIPE_SZ, static_cast<int>(want));
}

// Sends one message, its header and body in one writev() through the endpoint's writer (the
// FIFO grown first when the message is large). bodyLen is the caller's length, whole: a
// message the writer cannot report in its int result (2 GiB or more, or a length the header's
// 32 bits cannot carry) is refused by it before anything is written. Returns its result.
template <typename Writer>
int writeMessage(Writer& writer, int fd, const unsigned char* header, size_t headerSize,
                 const char* body, size_t bodyLen, unsigned long timeout) {
    iovec iov[2];
    iov[0].iov_base = const_cast<unsigned char*>(header);
    iov[0].iov_len = headerSize;
    iov[1].iov_base = const_cast<char*>(body);
    iov[1].iov_len = bodyLen;
    fitPipeTo(fd, headerSize + bodyLen);
    return writer.writev(fd, iov, bodyLen != 0 ? 2 : 1, timeout);
}

// The endpoint's address as the "0x%08X" of every trace text shows it.
inline unsigned traceAddr(const void* p) {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

// Descriptor entries that several threads read (receivers, senders, the connect thread) are
// loaded and stored atomically; the members keep their designed plain int type.
inline int loadFd(const int& entry) { return __atomic_load_n(&entry, __ATOMIC_SEQ_CST); }
inline void storeFd(int& entry, int fd) { __atomic_store_n(&entry, fd, __ATOMIC_SEQ_CST); }
inline int takeFd(int& entry) { return __atomic_exchange_n(&entry, -1, __ATOMIC_SEQ_CST); }

// The per-slot words (peer connect id and pid) and the request id counter are read by the dump
// and written by senders, the admin handling and the connect thread on other threads: they are
// loaded and stored atomically too, and the members keep their designed unsigned long type.
// The two highest-slot values are raised by the admin handling and the connect thread and
// reset by finalize while the receive loops read them.
inline int loadInt(const int& value) { return __atomic_load_n(&value, __ATOMIC_SEQ_CST); }
inline unsigned long loadWord(const unsigned long& word) {
    return __atomic_load_n(&word, __ATOMIC_SEQ_CST);
}
inline void storeWord(unsigned long& word, unsigned long value) {
    __atomic_store_n(&word, value, __ATOMIC_SEQ_CST);
}

// Counts one sender in a slot for as long as it lives; see m_sendsInFlight.
class CSendGuard {
public:
    explicit CSendGuard(int& count) : m_count(count) {
        __atomic_add_fetch(&m_count, 1, __ATOMIC_SEQ_CST);
    }
    ~CSendGuard() { __atomic_sub_fetch(&m_count, 1, __ATOMIC_SEQ_CST); }
    CSendGuard(const CSendGuard&) = delete;
    CSendGuard& operator=(const CSendGuard&) = delete;

private:
    int& m_count;
};

// Closes the descriptor an entry holds, if any, and marks the entry closed; safe to repeat.
inline void closeFd(int& entry) {
    const int fd = takeFd(entry);
    // close() is not retried on EINTR: the descriptor is gone either way.
    if (fd != -1) ::close(fd);
}

}  // namespace qvframe

#endif  // QVIPC_LIBRARY_LINUX_FRAMING_H_
