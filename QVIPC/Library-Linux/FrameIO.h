// Moving whole frames through a FIFO: a header read with one read() (the admin FIFO's; data
// FIFOs are read through ReadAhead.h), a message written as one gather write of header and
// body, and an admin record written whole. Stateless; safe on any thread (one reader per
// descriptor).
#ifndef QVIPC_LIBRARY_LINUX_FRAMEIO_H_
#define QVIPC_LIBRARY_LINUX_FRAMEIO_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "QVIPC/Library-Linux/Framing.h"
#include "QVIPC/QVIPCLibrary/QVIPCErrors.h"

class CPIPEIOBase;

namespace qvframe {

// One read() of a whole header, repeated only when interrupted (nothing was consumed then).
// Returns what read() returned; anything but size bytes is a failed header read.
ssize_t readHeader(int fd, unsigned char* frame, size_t size);

// Sends one message, its header and body in one writev() through writer, with the time-out
// given (the FIFO grown first when the message is large). bodyLen is the caller's length,
// whole: a message the writer cannot report in its int result (2 GiB or more, or a length the
// header's 32 bits cannot carry) is refused by it before anything is written. Returns the
// writer's result.
int writeMessage(CPIPEIOBase& writer, int fd, const unsigned char* header, size_t headerSize,
                 const char* body, size_t bodyLen, unsigned long timeout);

// Writes an admin record whole with one write() through writer, without a time-out. Returns
// the writer's result.
int writeRecord(CPIPEIOBase& writer, int fd, const RequestFrame& record);
int writeRecord(CPIPEIOBase& writer, int fd, const ResponseFrame& record);

}  // namespace qvframe

#endif  // QVIPC_LIBRARY_LINUX_FRAMEIO_H_
