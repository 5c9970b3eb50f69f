// Reading and writing whole frames; the layouts themselves are Framing.h's.
#include "QVIPC/Library-Linux/FrameIO.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>

#include "QVIPC/Library-Linux/PipeIO.h"
#include "platform/FdGuard.h"

namespace qvframe {

namespace {

// A FIFO holds 64 KiB by default, so a larger message crosses it in several rounds of writer
// and reader waking each other. Before such a message the sender grows the FIFO to hold it
// whole, up to 1 MiB (the most an unprivileged process may ask for); the size is the pipe's
// own, invisible on the wire, and stays for the FIFO's later messages. A refusal (the user's
// pipe memory is used up, or a kernel without the call) leaves the FIFO as it was.
void fitPipeTo(int fd, size_t messageBytes) {
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

}  // namespace

ssize_t readHeader(int fd, unsigned char* frame, size_t size) {
    return retryOnEintr([=] { return ::read(fd, frame, size); });
}

int writeMessage(CPIPEIOBase& writer, int fd, const unsigned char* header, size_t headerSize,
                 const char* body, size_t bodyLen, unsigned long timeout) {
    iovec iov[2];
    iov[0].iov_base = const_cast<unsigned char*>(header);
    iov[0].iov_len = headerSize;
    iov[1].iov_base = const_cast<char*>(body);
    iov[1].iov_len = bodyLen;
    fitPipeTo(fd, headerSize + bodyLen);
    return writer.writev(fd, iov, bodyLen != 0 ? 2 : 1, timeout);
}

int writeRecord(CPIPEIOBase& writer, int fd, const RequestFrame& record) {
    return writer.write(fd, record, static_cast<int>(sizeof record), QVIPC_NO_TIMEOUT);
}

int writeRecord(CPIPEIOBase& writer, int fd, const ResponseFrame& record) {
    return writer.write(fd, record, static_cast<int>(sizeof record), QVIPC_NO_TIMEOUT);
}

}  // namespace qvframe
