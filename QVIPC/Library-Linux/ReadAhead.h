// CReadAhead: the bytes one read() took from a data FIFO beyond the frame being read, served to
// the following header and body reads without a system call. Nothing of it shows on the wire:
// each call returns what the same read of the FIFO itself would have returned. Belongs to the
// one thread that reads its slot; takes no lock.
#ifndef QVIPC_LIBRARY_LINUX_READAHEAD_H_
#define QVIPC_LIBRARY_LINUX_READAHEAD_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "QVIPC/QVIPCLibrary/QVIPCErrors.h"

class CReadAhead {
public:
    // One atomic FIFO write: a run of small messages comes in one read.
    static constexpr size_t CAPACITY = 4096;

    CReadAhead() = default;
    CReadAhead(const CReadAhead&) = delete;
    CReadAhead& operator=(const CReadAhead&) = delete;

    size_t buffered() const { return m_end - m_begin; }
    void drop() { m_begin = m_end = 0; }

    // The bytes held are of the FIFO that entered the slot as generation fifo; held bytes of
    // another one are dropped first.
    void belongTo(unsigned fifo) {
        if (fifo != m_fifo) drop();
        m_fifo = fifo;
    }
    // Whether bytes of the FIFO of generation fifo are held.
    bool holds(unsigned fifo) const { return buffered() != 0 && fifo == m_fifo; }

    // Takes one header of size bytes, as one read() of size bytes from fd would: when nothing
    // is held, one read() of up to CAPACITY bytes (blocking while the FIFO is empty); when part
    // of a header is held, the rest only if the read that took that part left bytes in the
    // FIFO. Returns size, or what the read returned (0 end of file, -1 with errno), or the
    // short count of a torn header, whose bytes are consumed.
    ssize_t readHeader(int fd, unsigned char* frame, size_t size);

    // Reads a body of size bytes into a new[] buffer of exactly that size, held bytes first.
    // S_OK hands the buffer over in *ppBuf (null for size 0). QVIPC_E_OUTOFMEMORY when it cannot
    // be allocated (*pErr is ENOMEM then; nothing is consumed); QVIPC_E_READ when the read fails
    // or the writer closes before size bytes came: end of file and errors other than EINTR end
    // the body, so a writer that died mid-body cannot keep the reader looping. *pErr gets errno
    // of the failed read (0 for end of file).
    QVRESULT readBody(int fd, uint32_t size, char** ppBuf, int* pErr);

private:
    // Moves up to want held bytes to out; returns how many.
    size_t take(char* out, size_t want);
    // Reads what fd gives into the room behind the held bytes; returns read()'s result.
    ssize_t fill(int fd);

    std::unique_ptr<char[]> m_buf;  // CAPACITY bytes once the slot is first read
    size_t m_begin = 0;
    size_t m_end = 0;
    bool m_drained = false;  // the last read() took all the FIFO held (less than it asked)
    unsigned m_fifo = 0;
};

#endif  // QVIPC_LIBRARY_LINUX_READAHEAD_H_
