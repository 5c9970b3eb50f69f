// Serving header and body reads of one data FIFO from what a single read() took.
#include "QVIPC/Library-Linux/ReadAhead.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "platform/FdGuard.h"

size_t CReadAhead::take(char* out, size_t want) {
    const size_t n = want < buffered() ? want : buffered();
    if (n == 0) return 0;
    std::memcpy(out, m_buf.get() + m_begin, n);
    m_begin += n;
    if (m_begin == m_end) drop();
    return n;
}

ssize_t CReadAhead::fill(int fd) {
    if (m_begin != 0) {
        std::memmove(m_buf.get(), m_buf.get() + m_begin, buffered());
        m_end -= m_begin;
        m_begin = 0;
    }
    char* const at = m_buf.get() + m_end;
    const size_t room = CAPACITY - m_end;
    const ssize_t n = retryOnEintr([=] { return ::read(fd, at, room); });
    if (n > 0) m_end += static_cast<size_t>(n);
    m_drained = n < static_cast<ssize_t>(room);
    return n;
}

ssize_t CReadAhead::readHeader(int fd, unsigned char* frame, size_t size) {
    if (!m_buf) {
        m_buf.reset(new (std::nothrow) char[CAPACITY]);
        // Without memory for it, the header is read alone, as it would be without a buffer.
        if (!m_buf) return retryOnEintr([=] { return ::read(fd, frame, size); });
    }
    if (buffered() == 0) {
        const ssize_t n = fill(fd);
        if (n <= 0) return n;
    }
    // Part of a header is held. If the read() that took it emptied the FIFO, the header was
    // torn by its writer (it died, or gave up or stalled in the middle of a message): it is
    // short, as a read of the FIFO at that moment found it, and is never completed by bytes
    // written later. Otherwise the buffer's edge cut it, and its rest is in the FIFO, unless
    // the writer tore it exactly there.
    if (buffered() < size && !m_drained && isReadable(fd)) fill(fd);
    if (buffered() < size) {
        const ssize_t got = static_cast<ssize_t>(buffered());
        drop();
        return got;
    }
    take(reinterpret_cast<char*>(frame), size);
    return static_cast<ssize_t>(size);
}

QVRESULT CReadAhead::readBody(int fd, uint32_t size, char** ppBuf, int* pErr) {
    *ppBuf = nullptr;
    *pErr = 0;
    if (size == 0) return S_OK;
    std::unique_ptr<char[]> body(new (std::nothrow) char[size]);
    if (!body) {
        *pErr = ENOMEM;
        return QVIPC_E_OUTOFMEMORY;
    }
    uint32_t got = static_cast<uint32_t>(take(body.get(), size));
    // One read() never asks for more than this, so its result fits ssize_t on 32 bits.
    constexpr uint32_t MAX_CHUNK = 0x40000000u;
    while (got < size) {
        // Nothing is held now. A rest of at least a buffer's size goes straight into the body;
        // a smaller one through the buffer, which then also takes the messages behind it.
        const uint32_t missing = size - got;
        ssize_t n;
        if (missing < CAPACITY && m_buf) {
            n = fill(fd);
            if (n > 0) got += static_cast<uint32_t>(take(body.get() + got, missing));
        } else {
            const uint32_t want = missing < MAX_CHUNK ? missing : MAX_CHUNK;
            char* const at = body.get() + got;
            n = retryOnEintr([=] { return ::read(fd, at, want); });
            if (n > 0) got += static_cast<uint32_t>(n);
        }
        if (n <= 0) {
            *pErr = n < 0 ? errno : 0;
            return QVIPC_E_READ;
        }
    }
    *ppBuf = body.release();
    return S_OK;
}
