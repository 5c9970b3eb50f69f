// The pipe writers through which the endpoint puts every byte into a FIFO, and the process-wide
// SIGPIPE set-up. The writers keep no state between calls and take no lock; one instance serves
// every thread of its endpoint. They never log: they return -1 and leave errno to the caller.
#ifndef QVIPC_LIBRARY_LINUX_PIPEIO_H_
#define QVIPC_LIBRARY_LINUX_PIPEIO_H_

#include <sys/types.h>
#include <sys/uio.h>

class CQVIPCLibraryImpl;

// The bytes of a gather list, or -1 when they exceed INT_MAX: write and writev report their
// count as an int, so the writers refuse such a list (-1, errno EOVERFLOW) before anything is
// written. A list of 0 or fewer elements holds 0 bytes.
ssize_t gatherLength(const iovec* iov, int iovcnt);

class CPIPEIOBase {
public:
    explicit CPIPEIOBase(CQVIPCLibraryImpl* pOwner) : m_pOwner(pOwner) {}
    virtual ~CPIPEIOBase() {}
    CPIPEIOBase(const CPIPEIOBase&) = delete;
    CPIPEIOBase& operator=(const CPIPEIOBase&) = delete;

    // Write len bytes of buf to fd. timeout is in whole seconds, 0xFFFFFFFF for no limit.
    // Returns the bytes written, or -1 with errno as the failing call left it.
    virtual int write(int fd, const void* buf, int len, unsigned long timeout) = 0;
    // Gather form of write; the time-out is one budget for the whole call.
    virtual int writev(int fd, const iovec* iov, int iovcnt, unsigned long timeout) = 0;

protected:
    CQVIPCLibraryImpl* m_pOwner;  // the endpoint that owns this writer; not used for writing
};

// Hands every call straight to the system; blocks while the FIFO is full. Ignores timeout.
class CPIPEIOSynchronous : public CPIPEIOBase {
public:
    explicit CPIPEIOSynchronous(CQVIPCLibraryImpl* pOwner) : CPIPEIOBase(pOwner) {}
    int write(int fd, const void* buf, int len, unsigned long timeout) override;
    int writev(int fd, const iovec* iov, int iovcnt, unsigned long timeout) override;
};

// For non-blocking descriptors: waits for room with select() within the time-out, then gives up
// with -1 even if part of the data is already in the FIFO.
class CPIPEIOAsynchronous : public CPIPEIOBase {
public:
    explicit CPIPEIOAsynchronous(CQVIPCLibraryImpl* pOwner) : CPIPEIOBase(pOwner) {}
    int write(int fd, const void* buf, int len, unsigned long timeout) override;
    int writev(int fd, const iovec* iov, int iovcnt, unsigned long timeout) override;
};

// Its one instance, g_pipesigDisable, makes the process ignore SIGPIPE when the library loads,
// so a write to a FIFO without reader fails with EPIPE instead of ending the process. The
// destructor restores nothing.
class CPipeSigDisable {
public:
    CPipeSigDisable();
    ~CPipeSigDisable() {}
};

extern CPipeSigDisable g_pipesigDisable;

#endif  // QVIPC_LIBRARY_LINUX_PIPEIO_H_
