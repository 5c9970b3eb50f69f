// The response path: sending a response and receiving one, on the server through a select()
// loop over every client's response FIFO and the internal pipe that wakes it, on a client by a
// blocking read of its own response FIFO (which also carries the connect reply that the connect
// thread reads). One thread per endpoint receives responses; its cycle members take no lock.
#include <poll.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "QVIPC/Library-Linux/FrameIO.h"
#include "QVIPC/Library-Linux/Framing.h"
#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "QVIPC/Library-Linux/QVIPCTrace.h"
#include "QVIPC/Library-Linux/SlotWords.h"
#include "platform/PCritSec.h"
#include "platform/Portable.h"

using namespace qvframe;

namespace {

// One look, of at most 200 ms, of the connect reply wait, made when a read of the reply FIFO
// found no writer. The wait is bounded by the life of the server that took the CONNECT, not
// by a time: a live server may be busy for long with other clients. True when no reply can
// come any more: the reply FIFO, made for this attempt, saw a writer come and go without a
// reply (a hang-up without data), or no process reads the admin FIFO any more (adminFd, the
// CONNECT's write end there, reports an error), so the server died, possibly before it opened
// the reply FIFO. A successor that opens the admin FIFO before this thread has looked again
// hides the death, and the wait goes on as the design has it; see docs/reliability.md.
bool connectReplyLost(int replyFd, int adminFd) {
    pollfd watch[2];
    watch[0].fd = replyFd;
    watch[0].events = POLLIN;
    watch[1].fd = adminFd;  // a negative descriptor is not watched
    watch[1].events = 0;    // POLLERR is reported without being asked for
    watch[0].revents = watch[1].revents = 0;
    if (::poll(watch, 2, static_cast<int>(POLL_INTERVAL_MS)) <= 0) return false;
    const bool hungUp = (watch[0].revents & POLLHUP) != 0 && (watch[0].revents & POLLIN) == 0;
    return hungUp || (watch[1].revents & POLLERR) != 0;
}

}  // namespace

QVRESULT CQVIPCLibraryImpl::sendResponse(unsigned long ipcid, unsigned long requestId,
                                         const char* buf, unsigned long len,
                                         const char* headerExt) {
    const unsigned addr = traceAddr(this);
    qvTrace("CQVIPCLibraryImpl::sendResponse (0x%08X), ipcid %d, buf 0x%08X, len %d", addr,
            static_cast<int>(ipcid), traceAddr(buf), static_cast<int>(len));

    QVRESULT hr = waitInitialized();
    int fd = -1;
    const unsigned long slot = m_isServer != 0 && ipcid < m_maxConnections
                                   ? ipcid
                                   : static_cast<unsigned long>(REQUEST_PIPE);
    // Counted before the descriptor is loaded: whoever closes the slot waits for the write.
    CSendGuard sending(m_sendsInFlight[slot]);
    if (hr == S_OK) {
        if (ipcid >= m_maxConnections) {
            hr = QVIPC_E_INVALID_ID;
        } else {
            fd = loadFd(&m_fdsSendResponse[slot]);
            if (fd == -1) {
                qvLogError(
                    "(Error) CQVIPCLibraryImpl::sendResponse (0x%08X) failed, ipcid %d, hr "
                    "0x%08X",
                    addr, static_cast<int>(ipcid), QVIPC_E_NO_PIPE);
                hr = QVIPC_E_NO_PIPE;
            }
        }
    }
    if (hr == S_OK) {
        ResponseFrame header;
        ResponseHeader h;
        h.type = TYPE_DATA;
        h.requestId = static_cast<uint32_t>(requestId);
        h.pid = static_cast<uint32_t>(CPortable::GetCurrentProcessId());
        // The wire carries 32 bits of length. A longer one is never written: the writer
        // refuses the whole message (see writeMessage).
        h.bodySize = static_cast<uint32_t>(len);
        buildResponse(header, h, headerExt, m_headerExtSize);

        if (writeMessage(*m_pPipeIO, fd, header, sizeof header, buf, len, m_sendTimeout) < 0) {
            qvLogError("(Error) CQVIPCLibraryImpl::sendResponse (0x%08X), writev failed %d", addr,
                       errno);
            hr = QVIPC_E_WRITE_RESPONSE;
        }
    }

    qvTrace("<<<CQVIPCLibraryImpl::sendResponse, hr 0x%08X", hr);
    return hr;
}

QVRESULT CQVIPCLibraryImpl::receiveResponse(unsigned long* pIpcid, char** ppBuf,
                                            unsigned long* pLen, unsigned long* pRequestId,
                                            char* headerExt) {
    qvTrace("CQVIPCLibraryImpl::receiveResponse (0x%08X)", traceAddr(this));

    QVRESULT hr = S_OK;
    for (;;) {
        if (m_shutdown.load() != 0) {
            hr = QVIPC_E_SHUTDOWN;
            break;
        }
        // The flag is raised before m_connected is looked at: a connect thread that starts
        // after this look then sees the flag and waits before it touches slot 1.
        m_inReceiveResponse.store(1);
        if (m_initialized.load() != 0 && m_connected.load() != 0) {
            if (m_isServer != 0) {
                hr = receiveResponseServer(pIpcid, ppBuf, pLen, pRequestId, headerExt);
            } else {
                hr = receiveResponseClient(pIpcid, ppBuf, pLen, pRequestId, headerExt);
            }
            m_inReceiveResponse.store(0);
            break;
        }
        m_inReceiveResponse.store(0);
        CPortable::Sleep(POLL_INTERVAL_MS);
    }
    if (m_shutdown.load() != 0) hr = QVIPC_E_SHUTDOWN;

    if (m_isServer == 0) *pIpcid = 0;
    qvTrace("<<<CQVIPCLibraryImpl::receiveResponse, client id %d, hr 0x%08X",
            static_cast<int>(*pIpcid), hr);
    return hr;
}

QVRESULT CQVIPCLibraryImpl::receiveResponseServer(unsigned long* pIpcid, char** ppBuf,
                                                  unsigned long* pLen, unsigned long* pRequestId,
                                                  char* headerExt) {
    const unsigned addr = traceAddr(this);
    qvTrace("CQVIPCLibraryImpl::receiveResponseServer (0x%08X)", addr);

    QVRESULT hr = waitInitialized();
    bool done = hr != S_OK;
    while (!done) {
        const int slot = nextServerSlot(false);
        if (slot < 0) {
            hr = QVIPC_E_SHUTDOWN;
            break;
        }
        if (slot == ADMINPIPE) {
            ResponseFrame drop;
            const ssize_t n = ::read(loadFd(&m_fdsRecvResponse[ADMINPIPE]), drop, sizeof drop);
            (void)n;
            unsigned char set[8];
            CCritSecLock lock(m_pCritSec, __LINE__);
            std::memcpy(set, &m_fdsetRecvResponse, sizeof set);
            qvTrace(
                "CQVIPCLibraryImpl::receiveResponseServer 0x%08X ADMINPIPE, fdmax %d, fdset "
                "%02X.%02X.%02X.%02X.%02X.%02X.%02X.%02X",
                addr, m_fdmaxRecvResponse, set[0], set[1], set[2], set[3], set[4], set[5], set[6],
                set[7]);
            continue;
        }
        hr = receiveResponseOnClientPipe(static_cast<unsigned long>(slot), 0, pRequestId, ppBuf,
                                         pLen, headerExt);
        *pIpcid = static_cast<unsigned long>(slot);
        done = true;
    }
    if (m_nextResponseSlot > loadInt(&m_maxResponseSlot)) m_nextResponseSlot = 0;

    qvTrace("<<<CQVIPCLibraryImpl::receiveResponseServer (0x%08X)", addr);
    return hr;
}

QVRESULT CQVIPCLibraryImpl::receiveResponseClient(unsigned long* pIpcid, char** ppBuf,
                                                  unsigned long* pLen, unsigned long* pRequestId,
                                                  char* headerExt) {
    const unsigned addr = traceAddr(this);
    qvTrace("CQVIPCLibraryImpl::receiveResponseClient (0x%08X)", addr);
    QVRESULT hr = waitInitialized();
    if (hr == S_OK) {
        hr = receiveResponseOnClientPipe(REQUEST_PIPE, 1, pRequestId, ppBuf, pLen, headerExt);
    }
    *pIpcid = 0;
    qvTrace("<<<CQVIPCLibraryImpl::receiveResponseClient (0x%08X)", addr);
    return hr;
}

QVRESULT CQVIPCLibraryImpl::receiveResponseOnClientPipe(unsigned long slot, int keepWaiting,
                                                        unsigned long* pRequestId, char** ppBuf,
                                                        unsigned long* pLen, char* headerExt) {
    const unsigned addr = traceAddr(this);
    qvTrace("CQVIPCLibraryImpl::receiveResponseOnClientPipe (0x%08X), id %d", addr,
            static_cast<int>(slot));
    *ppBuf = nullptr;
    *pLen = 0;

    QVRESULT hr = S_OK;
    for (;;) {
        int fd = -1;
        CReadAhead& ahead = readAheadOf(false, slot, &fd);
        if (fd == -1) {
            if (keepWaiting == 0) {
                hr = QVIPC_E_DISCONNECTED;
                break;
            }
            if (m_shutdown.load() != 0) {
                hr = QVIPC_E_SHUTDOWN;
                break;
            }
            CPortable::Sleep(POLL_INTERVAL_MS);
            continue;
        }
        if (m_shutdown.load() != 0) {
            hr = QVIPC_E_SHUTDOWN;
            break;
        }

        ResponseFrame header;
        const ssize_t n = ahead.readHeader(fd, header, sizeof header);
        if (n != static_cast<ssize_t>(sizeof header)) {
            const int err = n < 0 ? errno : 0;
            const QVRESULT failure = n == 0 ? QVIPC_E_DISCONNECTED : QVIPC_E_READ;
            bool quiet = m_responsePipeSeen[slot] == 0;
            if (!quiet) {
                m_responsePipeSeen[slot] = 0;
                if (n == 0) {
                    qvLogError(
                        "(Error) CQVIPCLibraryImpl::receiveResponseOnClientPipe (0x%08X), client "
                        "disconnected, id %d",
                        addr, static_cast<int>(slot));
                } else {
                    qvLogError(
                        "(Error) CQVIPCLibraryImpl::receiveResponseOnClientPipe (0x%08X), read "
                        "header failed, id %d, errno %d",
                        addr, static_cast<int>(slot), err);
                }
                quiet = m_waitingConnectReply.load() != 0;
            }
            if (quiet && keepWaiting != 0) {
                if (n != 0 || m_waitingConnectReply.load() == 0) {
                    CPortable::Sleep(POLL_INTERVAL_MS);
                } else if (connectReplyLost(fd, m_fdConnectAdmin)) {
                    // The attempt fails, so that the connect thread sends its CONNECT again,
                    // to the server's successor.
                    qvTrace(
                        "CQVIPCLibraryImpl::receiveResponseOnClientPipe (0x%08X), server gone "
                        "before its connect reply, id %d",
                        addr, static_cast<int>(slot));
                    hr = QVIPC_E_DISCONNECTED;
                    break;
                }
                continue;
            }
            if (!quiet && m_isServer == 0) enableClientReconnect(slot);
            hr = failure;
            break;
        }

        m_responsePipeSeen[slot] = 1;
        const ResponseHeader h = parseResponse(header);
        *pRequestId = h.requestId;
        copyExtOut(header, RSP_EXT, headerExt, m_headerExtSize);

        if (h.type == TYPE_DATA) {
            char* body = nullptr;
            int err = 0;
            hr = ahead.readBody(fd, h.bodySize, &body, &err);
            if (hr != S_OK) {
                qvLogError(
                    "(Error) CQVIPCLibraryImpl::receiveResponseOnClientPipe (0x%08X), read "
                    "message failed %d",
                    addr, err);
                // The rest of the body stays in the FIFO and the framing cannot resync: an
                // unallocatable body breaks the connection like a failed body read.
                if (m_isServer == 0 && m_waitingConnectReply.load() == 0) {
                    enableClientReconnect(slot);
                }
                break;
            }
            if (m_waitingConnectReply.load() != 0 && keepWaiting != 0) {
                // A response left over from the broken connection is not the connect reply.
                delete[] body;
                continue;
            }
            *ppBuf = body;
            *pLen = h.bodySize;
            break;
        }
        if (h.type == TYPE_CONNECT && m_isServer == 0) {
            if (m_waitingConnectReply.load() != 0) storeWord(m_connectResult[slot], h.result);
            storeWord(m_serverPid, h.pid);
            break;
        }
        if (keepWaiting == 0) break;
        CPortable::Sleep(POLL_INTERVAL_MS);
    }

    qvTrace("<<<CQVIPCLibraryImpl::receiveResponseOnClientPipe (0x%08X)", addr);
    return hr;
}
