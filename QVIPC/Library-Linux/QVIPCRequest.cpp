// The request path: sending a request (one gather write of header and body) and receiving one,
// on the server through a select() loop over the admin FIFO and every client's request FIFO,
// on a client by a blocking read of its own request FIFO. Also the server's select() cycle,
// which the response receiver shares. One thread per endpoint receives requests: the cycle
// members (ready set, count, cursor) are its own and take no lock.
#include <sys/select.h>
#include <sys/time.h>

#include <cerrno>

#include "QVIPC/Library-Linux/FrameIO.h"
#include "QVIPC/Library-Linux/Framing.h"
#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "QVIPC/Library-Linux/QVIPCTrace.h"
#include "QVIPC/Library-Linux/SlotWords.h"
#include "platform/FdGuard.h"
#include "platform/PCritSec.h"
#include "platform/Portable.h"

using namespace qvframe;

namespace {

constexpr time_t SELECT_TIMEOUT_SEC = 9999999;  // acts as no time-out

// The server whose receiveRequest runs on this thread, if any.
thread_local const CQVIPCLibraryImpl* t_requestReceiverOf = nullptr;

}  // namespace

bool CQVIPCLibraryImpl::onRequestReceiver() const { return t_requestReceiverOf == this; }

int CQVIPCLibraryImpl::selectOnCopy(bool requestSide, int* pErr, bool noWait) {
    fd_set* const ready = requestSide ? &m_fdsetRecvRequestReady : &m_fdsetRecvResponseReady;
    int count;
    {
        CCritSecLock lock(m_pCritSec, __LINE__);
        *ready = requestSide ? m_fdsetRecvRequest : m_fdsetRecvResponse;
        count = (requestSide ? m_fdmaxRecvRequest : m_fdmaxRecvResponse) + 1;
    }
    timeval tv;
    tv.tv_sec = noWait ? 0 : SELECT_TIMEOUT_SEC;
    tv.tv_usec = 0;
    const int n = select(count, ready, nullptr, nullptr, &tv);
    *pErr = errno;
    return n;
}

bool CQVIPCLibraryImpl::anyReadAhead(bool requestSide) const {
    const CReadAhead* const aheads = requestSide ? m_readAheadRequest : m_readAheadResponse;
    const int maxSlot = loadInt(requestSide ? &m_maxRequestSlot : &m_maxResponseSlot);
    for (int slot = 1; slot <= maxSlot && slot < QVIPC_MAX_SLOTS; ++slot) {
        if (aheads[slot].buffered() != 0) return true;
    }
    return false;
}

int CQVIPCLibraryImpl::addReadAheadToReady(bool requestSide, fd_set* ready) {
    const int maxSlot = loadInt(requestSide ? &m_maxRequestSlot : &m_maxResponseSlot);
    int added = 0;
    for (int slot = 1; slot <= maxSlot && slot < QVIPC_MAX_SLOTS; ++slot) {
        const CReadAhead& ahead =
            requestSide ? m_readAheadRequest[slot] : m_readAheadResponse[slot];
        if (ahead.buffered() == 0) continue;
        int fd = -1;
        readAheadOf(requestSide, static_cast<unsigned long>(slot), &fd);
        if (ahead.buffered() == 0 || fd < 0 || fd >= FD_SETSIZE || FD_ISSET(fd, ready)) continue;
        FD_SET(fd, ready);
        ++added;
    }
    return added;
}

CReadAhead& CQVIPCLibraryImpl::readAheadOf(bool requestSide, unsigned long slot, int* pFd) {
    unsigned fifo = 0;
    if (requestSide) {
        *pFd = loadReadEnd(&m_fdsRecvRequest[slot], &m_readEndGenRequest[slot], &fifo);
        m_readAheadRequest[slot].belongTo(fifo);
        return m_readAheadRequest[slot];
    }
    *pFd = loadReadEnd(&m_fdsRecvResponse[slot], &m_readEndGenResponse[slot], &fifo);
    m_readAheadResponse[slot].belongTo(fifo);
    return m_readAheadResponse[slot];
}

int CQVIPCLibraryImpl::nextServerSlot(bool requestSide) {
    int* const cursor = requestSide ? &m_nextRequestSlot : &m_nextResponseSlot;
    int* const readyCount = requestSide ? &m_readyRequestCount : &m_readyResponseCount;
    for (;;) {
        if (*cursor == 0) {
            int err = 0;
            // Bytes read ahead make their slots ready as they would if still in the FIFOs: the
            // select() then only looks, and the cycle serves them beside the FIFOs it finds
            // ready, one message per slot in slot order, as ever.
            const bool ahead = anyReadAhead(requestSide);
            *readyCount = selectOnCopy(requestSide, &err, ahead);
            if (ahead && *readyCount >= 0) {
                *readyCount +=
                    addReadAheadToReady(requestSide, requestSide ? &m_fdsetRecvRequestReady
                                                                 : &m_fdsetRecvResponseReady);
            }
            // Read ends of slots freed while this receiver might use them are closed now: the
            // scan below looks at descriptors only through the slot entries.
            closeDeferredFds(requestSide ? &m_fdsDeferredCloseRequest
                                         : &m_fdsDeferredCloseResponse);
            if (requestSide) m_bRequestEndsAdded = false;
            if (m_shutdown.load() != 0) return -1;
            if (*readyCount < 0) {
                if (requestSide) {
                    qvLogError(
                        "(Error) CQVIPCLibraryImpl::receiveRequestPrimaryServer (0x%08X), select "
                        "failed %d",
                        traceAddr(this), err);
                } else {
                    qvLogError(
                        "(Error) CQVIPCLibraryImpl::receiveResponseServer (0x%08X), select failed "
                        "%d",
                        traceAddr(this), err);
                }
                continue;
            }
            if (*readyCount == 0) continue;
        }
        // Only the request receiver knows the ready set to be current (see nextReadySlot):
        // only that thread stores new descriptors in the request table.
        const int slot =
            requestSide ? nextReadySlot(cursor, readyCount, m_fdsetRecvRequestReady,
                                        m_fdsRecvRequest, m_readEndGenRequest, m_readAheadRequest,
                                        loadInt(&m_maxRequestSlot), !m_bRequestEndsAdded)
                        : nextReadySlot(cursor, readyCount, m_fdsetRecvResponseReady,
                                        m_fdsRecvResponse, m_readEndGenResponse,
                                        m_readAheadResponse, loadInt(&m_maxResponseSlot), false);
        if (slot >= 0) return slot;
    }
}

int CQVIPCLibraryImpl::nextReadySlot(int* pCursor, int* pReadyCount, const fd_set& ready,
                                     const int* fds, const unsigned* generations,
                                     const CReadAhead* aheads, int maxSlot, bool current) {
    while (*pCursor != 0 || *pReadyCount > 0) {
        if (*pCursor > maxSlot) break;
        const int slot = (*pCursor)++;
        unsigned fifo = 0;
        const int fd = loadReadEnd(&fds[slot], &generations[slot], &fifo);
        if (fd < 0 || fd >= FD_SETSIZE || !FD_ISSET(fd, &ready)) continue;
        const bool cycleOver = --*pReadyCount <= 0;
        if (cycleOver) *pCursor = 0;
        // A select() cycle serves its ready set over several calls, and calls, connects and
        // clean-ups in between may have closed later slots' descriptors and reused the numbers
        // for FIFOs with nothing to read: a blocking read() there would hold the loop, shutdown
        // included. So slots are checked again, unless the set is known to be current (one
        // system call less per message): in the request loop, as long as that thread's own
        // connect handling, the only one that stores new descriptors in the request table, has
        // not run since select(). A slot freed meanwhile shows -1 above, and only that
        // handling fills it again; a read end taken while this thread reads stays open until
        // its next select().
        if (current || aheads[slot].holds(fifo) || isReadable(fd)) return slot;
        if (cycleOver) return -1;
    }
    *pCursor = 0;
    return -1;
}

QVRESULT CQVIPCLibraryImpl::sendRequest(unsigned long ipcid, const char* buf, unsigned long len,
                                        unsigned long* pRequestId, int requestType,
                                        const char* headerExt) {
    const unsigned addr = traceAddr(this);
    qvTrace("CQVIPCLibraryImpl::sendRequest (0x%08X), ipcid %d", addr, static_cast<int>(ipcid));

    QVRESULT hr = waitInitialized();
    int fd = -1;
    unsigned long slot = REQUEST_PIPE;
    if (hr == S_OK) {
        if (m_isServer != 0) {
            if (ipcid < 1 || ipcid >= m_maxConnections) {
                hr = QVIPC_E_INVALID_ID;
            } else {
                slot = ipcid;
            }
        } else if (ipcid != 0) {
            hr = QVIPC_E_INVALID_ID;
        }
    }
    // Counted before the descriptor is loaded: whoever closes the slot waits for the write.
    CSendGuard sending(m_sendsInFlight[slot]);
    if (hr == S_OK) fd = loadFd(&m_fdsSendRequest[slot]);
    if (hr == S_OK && fd == -1) {
        qvLogError("(Error) CQVIPCLibraryImpl::sendRequest (0x%08X) failed, ipcid %d, hr 0x%08X",
                   addr, static_cast<int>(ipcid), QVIPC_E_NO_PIPE);
        hr = QVIPC_E_NO_PIPE;
    }
    if (hr == S_OK) {
        // The id is used up before the write, so a failed write still consumes it.
        // Any thread may send: the id is drawn atomically so two senders never share one.
        const unsigned long requestId = fetchIncrement(m_nextRequestId);
        if (pRequestId != nullptr) *pRequestId = requestId;

        RequestFrame header;
        RequestHeader h;
        h.type = TYPE_DATA;
        h.requestId = static_cast<uint32_t>(requestId);
        // The wire carries 32 bits of length. A longer one is never written: the writer
        // refuses the whole message (see writeMessage).
        h.bodySize = static_cast<uint32_t>(len);
        h.requestType = requestType;
        buildRequest(header, h, headerExt, m_headerExtSize);
        qvTrace("CQVIPCLibraryImpl::sendRequest 0x%08X, fd %d", addr, fd);

        const int sent =
            writeMessage(*m_pPipeIO, fd, header, sizeof header, buf, len, m_sendTimeout);
        const unsigned long toSend = len + sizeof header;
        if (sent < 0) {
            qvLogError("(Error) CQVIPCLibraryImpl::sendRequest (0x%08X), writev failed %d", addr,
                       errno);
            hr = QVIPC_E_WRITE;
        } else if (static_cast<unsigned long>(sent) != toSend) {
            qvLogError(
                "(Error) CQVIPCLibraryImpl::sendRequest (0x%08X), writev count mismatch: tosend "
                "%d, sent %d",
                addr, static_cast<int>(toSend), sent);
            hr = QVIPC_E_WRITE;
        }
    }

    qvTrace("<<<CQVIPCLibraryImpl::sendRequest (0x%08X), ipcid %d", addr, static_cast<int>(ipcid));
    return hr;
}

QVRESULT CQVIPCLibraryImpl::receiveRequestPrimaryServer(unsigned long* pIpcid,
                                                        unsigned long* pRequestId, char** ppBuf,
                                                        unsigned long* pLen, int* pRequestType,
                                                        char* headerExt) {
    const unsigned addr = traceAddr(this);
    qvTrace("CQVIPCLibraryImpl::receiveRequestPrimaryServer (0x%08X)", addr);
    m_inReceiveRequest.store(1);
    t_requestReceiverOf = this;

    QVRESULT hr = waitInitialized();
    bool done = hr != S_OK;
    while (!done) {
        const int slot = nextServerSlot(true);
        if (slot < 0) {
            hr = QVIPC_E_SHUTDOWN;
            break;
        }
        if (slot == ADMINPIPE) {
            unsigned long newSlot = 0;
            hr = receiveRequestOnAdminPipe(&newSlot);
            if (hr == QVIPC_E_NEW_CONNECTION) {
                // A new connection carries no message: the other outputs are cleared, so that
                // no value the caller left in *ppBuf looks like a body it now owns.
                *pIpcid = newSlot;
                *pRequestId = 0;
                *ppBuf = nullptr;
                *pLen = 0;
                *pRequestType = 0;
                done = true;
            }
            continue;
        }
        hr = receiveRequestOnClientPipe(static_cast<unsigned long>(slot), pRequestId, ppBuf, pLen,
                                        pRequestType, headerExt);
        *pIpcid = static_cast<unsigned long>(slot);
        done = true;
    }
    if (m_nextRequestSlot > loadInt(&m_maxRequestSlot)) m_nextRequestSlot = 0;

    t_requestReceiverOf = nullptr;
    m_inReceiveRequest.store(0);
    qvTrace("<<<CQVIPCLibraryImpl::receiveRequestPrimaryServer (0x%08X), id %d", addr,
            static_cast<int>(*pIpcid));
    return hr;
}

QVRESULT CQVIPCLibraryImpl::receiveRequestSecondaryServer(unsigned long* pIpcid,
                                                          unsigned long* pRequestId, char** ppBuf,
                                                          unsigned long* pLen, int* pRequestType,
                                                          char* headerExt) {
    const unsigned addr = traceAddr(this);
    qvTrace("CQVIPCLibraryImpl::receiveRequestSecondaryServer (0x%08X)", addr);
    m_inReceiveRequest.store(1);
    *pIpcid = 0;

    QVRESULT hr = waitInitialized();
    while (hr == S_OK && loadFd(&m_fdsRecvRequest[REQUEST_PIPE]) == -1) {
        if (m_shutdown.load() != 0) {
            hr = QVIPC_E_SHUTDOWN;
        } else {
            CPortable::Sleep(POLL_INTERVAL_MS);
        }
    }
    if (hr == S_OK) {
        hr = receiveRequestOnClientPipe(REQUEST_PIPE, pRequestId, ppBuf, pLen, pRequestType,
                                        headerExt);
        if (m_shutdown.load() != 0) hr = QVIPC_E_SHUTDOWN;
    }

    m_inReceiveRequest.store(0);
    qvTrace("<<<CQVIPCLibraryImpl::receiveRequestSecondaryServer (0x%08X)", addr);
    return hr;
}

QVRESULT CQVIPCLibraryImpl::receiveRequestOnClientPipe(unsigned long slot,
                                                       unsigned long* pRequestId, char** ppBuf,
                                                       unsigned long* pLen, int* pRequestType,
                                                       char* headerExt) {
    const unsigned addr = traceAddr(this);
    qvTrace("CQVIPCLibraryImpl::receiveRequestOnClientPipe (0x%08X), id %d", addr,
            static_cast<int>(slot));
    *pRequestId = 0;
    *ppBuf = nullptr;
    *pLen = 0;
    *pRequestType = 0;

    QVRESULT hr = S_OK;
    for (;;) {
        int fd = -1;
        CReadAhead& ahead = readAheadOf(true, slot, &fd);
        // On the server a slot picked by the scan may have been freed since by another thread
        // (the reconnect command); waiting for it to be filled again would hold the loop.
        if (fd == -1 && m_isServer != 0) {
            hr = QVIPC_E_DISCONNECTED;
            break;
        }
        while (fd == -1 && m_shutdown.load() == 0) {
            CPortable::Sleep(POLL_INTERVAL_MS);
            readAheadOf(true, slot, &fd);
        }
        if (m_shutdown.load() != 0) {
            hr = QVIPC_E_SHUTDOWN;
            break;
        }
        // A client whose writer has not shown up yet does not read while its connect thread
        // rebuilds slot 1: the thread replaces the read ends, and the connect notification is
        // read once it has finished.
        if (m_isServer == 0 && m_requestPipeSeen[slot] == 0 && m_connectThreadRunning.load() != 0) {
            CPortable::Sleep(POLL_INTERVAL_MS);
            continue;
        }

        RequestFrame header;
        const ssize_t n = ahead.readHeader(fd, header, sizeof header);
        if (n != static_cast<ssize_t>(sizeof header)) {
            const int err = n < 0 ? errno : 0;
            // Only a client waits for its writer; a server slot with no writer is reported, so
            // that a throttled clean-up cannot hold the server's loop on one slot.
            if (m_requestPipeSeen[slot] == 0 && slot == REQUEST_PIPE && m_isServer == 0) {
                CPortable::Sleep(POLL_INTERVAL_MS);
                continue;
            }
            m_requestPipeSeen[slot] = 0;
            if (n == 0) {
                qvLogError(
                    "(Error) CQVIPCLibraryImpl::receiveRequestOnClientPipe (0x%08X), client "
                    "disconnected",
                    addr);
                hr = QVIPC_E_DISCONNECTED;
            } else {
                qvLogError(
                    "(Error) CQVIPCLibraryImpl::receiveRequestOnClientPipe (0x%08X), read header "
                    "failed %d",
                    addr, err);
                hr = QVIPC_E_READ;
            }
            enableClientReconnect(slot);
            CPortable::Sleep(POLL_INTERVAL_MS);
            break;
        }

        m_requestPipeSeen[slot] = 1;
        const RequestHeader h = parseRequest(header);
        if (h.type == TYPE_CONNECT) {
            {
                CCritSecLock lock(m_pCritSec, __LINE__);
                m_lastConnectAttempt[slot] = 0;
            }
            bool first = true;
            while (m_connectThreadRunning.load() != 0) {
                CPortable::Sleep(POLL_INTERVAL_MS);
                if (first) {
                    qvTrace(
                        "CQVIPCLibraryImpl::receiveRequestOnClientPipe - waiting for connect "
                        "thread finished");
                    first = false;
                }
            }
            hr = QVIPC_E_NEW_CONNECTION;
        } else if (h.type == TYPE_DATA) {
            *pRequestId = h.requestId;
            *pRequestType = h.requestType;
            copyExtOut(header, REQ_EXT, headerExt, m_headerExtSize);
            char* body = nullptr;
            int err = 0;
            hr = ahead.readBody(fd, h.bodySize, &body, &err);
            if (hr == S_OK) {
                *ppBuf = body;
                *pLen = h.bodySize;
            } else {
                // The rest of the body is still in the FIFO and the framing cannot resync: an
                // unallocatable body breaks the connection like a failed body read.
                m_requestPipeSeen[slot] = 0;
                qvLogError(
                    "(Error) CQVIPCLibraryImpl::receiveRequestOnClientPipe (0x%08X), read message "
                    "failed %d",
                    addr, err);
                enableClientReconnect(slot);
            }
        }
        break;
    }

    qvTrace("<<<CQVIPCLibraryImpl::receiveRequestOnClientPipe (0x%08X), id %d", addr,
            static_cast<int>(slot));
    return hr;
}
