// The server's half of the connection handshake: one admin record per call, read on the thread
// that sits in the server's receiveRequest. A new slot's descriptors stay in guards until the
// connect has succeeded, then enter the slot tables in one step under m_pCritSec.
#include <fcntl.h>
#include <signal.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>

#include "QVIPC/Library-Linux/FifoFiles.h"
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

// Whether the process named by a CONNECT may still exist. Only a positive id is asked about
// (kill() with 0 or a negative id would address whole process groups); any answer other than
// "no such process" counts as alive, another user's process included.
bool senderMayStillOpen(uint32_t pid) {
    const pid_t p = static_cast<pid_t>(pid);
    if (p <= 0) return true;
    return kill(p, 0) == 0 || errno != ESRCH;
}

constexpr int OPEN_REPLY_TRIES = 100;

std::string decimal(uint32_t value) {
    char buf[34];
    // Taken as signed 32-bit, as every FIFO name of the service spells the numbers.
    return CPortable::itoa(static_cast<int>(value), buf, 10);
}

// Opens a read end as every read end is opened, blocking afterwards; -1 on failure.
// A descriptor at or above FD_SETSIZE could never go into a select() set: it counts as a
// failure (EMFILE), so the connect is refused cleanly and the client tries again later.
int openServerReadEnd(CQVIPCLibraryImpl* self, const std::string& path) {
    CFdGuard fd(openFifo(path, O_RDONLY | O_CREAT | O_NONBLOCK));
    if (fd.get() == -1) return -1;
    if (fd.get() >= FD_SETSIZE) {
        fd.reset();
        errno = EMFILE;
        return -1;
    }
    self->clearO_NONBLOCK(fd.get());
    return fd.release();
}

// Adds a read end to a master set, raising its highest descriptor. Caller holds m_pCritSec.
void addToSet(fd_set& set, int& fdmax, int fd) {
    if (fd > fdmax) fdmax = fd;
    FD_SET(fd, &set);
}

}  // namespace

QVRESULT CQVIPCLibraryImpl::receiveRequestOnAdminPipe(unsigned long* pSlot) {
    const unsigned addr = traceAddr(this);
    qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe (0x%08X)", addr);

    QVRESULT hr = S_OK;
    RequestFrame record;
    const ssize_t n = readHeader(loadFd(&m_fdsRecvRequest[0]), record, sizeof record);
    if (n != static_cast<ssize_t>(sizeof record)) {
        const int err = n < 0 ? errno : 0;
        qvLogError("(Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (0x%08X), read failed %d",
                   addr, err);
        hr = QVIPC_E_READ;
    } else {
        const RequestHeader h = parseRequest(record);
        switch (h.type) {
            case QVIPC_REQUEST_CONNECT:
                hr = adminConnect(h.requestId, h.connectId, h.pid, pSlot);
                break;
            case QVIPC_REQUEST_DISCONNECT:
                hr = adminDisconnect(h.connectId, h.pid);
                break;
            case QVIPC_REQUEST_INTERNAL:
                qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe - QVIPC_REQUEST_INTERNAL");
                break;
            default:
                qvLogError(
                    "(Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (0x%08X) - invalid "
                    "request",
                    addr);
                hr = QVIPC_E_INVALID_REQUEST;
                break;
        }
    }

    qvTrace("<<<CQVIPCLibraryImpl::receiveRequestOnAdminPipe (0x%08X)", addr);
    return hr;
}

QVRESULT CQVIPCLibraryImpl::adminConnect(uint32_t requestId, uint32_t connectId, uint32_t pid,
                                         unsigned long* pSlot) {
    const unsigned addr = traceAddr(this);

    // Only this thread fills slots; other threads may free them meanwhile (the reconnect
    // command), which leaves this choice valid.
    unsigned long fdId = 0;
    for (unsigned long i = 1; i < m_maxConnections; ++i) {
        if (loadFd(&m_fdsRecvResponse[i]) == -1) {
            fdId = i;
            break;
        }
    }
    *pSlot = fdId;
    qvTrace(
        "CQVIPCLibraryImpl::receiveRequestOnAdminPipe (0x%08X) - QVIPC_REQUEST_CONNECT, pid %d, "
        "connect id %d, fd id %d",
        addr, static_cast<int>(pid), static_cast<int>(connectId), static_cast<int>(fdId));

    // The same client endpoint connects again while its old slot is still held: its connect
    // thread started over before this side noticed the break.
    unsigned long oldSlot = 0;
    if (slotOfConnectId(connectId, &oldSlot)) {
        qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe (0x%08X), closing obsolete fd id %d",
                addr, static_cast<int>(oldSlot));
        closeServerSlot(oldSlot, false);
        wakeResponseReceiver();
    }

    const std::string strConnectId = decimal(connectId);
    const std::string strPid = decimal(pid);
    QVRESULT hr = S_OK;

    // The new slot's descriptors, in guards until the connection is complete; then they enter
    // the slot in one step, so that a thread freeing slots never meets a half-made one.
    // Declared in this order so that a connect that fails half-way closes the reply end
    // first, then the read ends, then the write end.
    CFdGuard sendReq;
    CFdGuard recvRsp;
    CFdGuard recvReq;
    CFdGuard replyFd;

    // The reply descriptor: the client's server-response FIFO, open once the client holds its
    // read end.
    const std::string replyPath = pipenameServerResponse(strConnectId, strPid);
    qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, opening m_fdsSendResponse %s",
            replyPath.c_str());
    for (int tries = 0; tries < OPEN_REPLY_TRIES; ++tries) {
        replyFd.reset(openFifo(replyPath, O_WRONLY | O_NONBLOCK));
        if (replyFd.get() != -1) break;
        // The 20 seconds of tries end early when the endpoint stops, and when the process that
        // sent the CONNECT no longer exists: nobody will ever open that read end, and the
        // request loop would serve no other client meanwhile. (A client killed between its
        // CONNECT and the reply is enough.) The result is that of the tries running out.
        if (!senderMayStillOpen(pid)) {
            qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, pid %d is gone",
                    static_cast<int>(pid));
            break;
        }
        if (!sleepUnlessShutdown(POLL_INTERVAL_MS)) break;
    }
    if (replyFd.get() == -1) {
        return m_shutdown.load() != 0 ? QVIPC_E_SHUTDOWN : QVIPC_E_OPEN_TIMEOUT;
    }
    if (m_sendTimeout == QVIPC_NO_TIMEOUT) clearO_NONBLOCK(replyFd.get());

    if (fdId == 0) {
        hr = QVIPC_E_TOO_MANY_CLIENTS;
    } else {
        const std::string recvReqPath = pipenameServerRequest(strConnectId, strPid);
        qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, creating m_fdsRecvRequest %s",
                recvReqPath.c_str());
        recvReq.reset(openServerReadEnd(this, recvReqPath));
        std::string failedPath = recvReqPath;
        if (recvReq.get() != -1) {
            failedPath = pipenameClientResponse(strConnectId, strPid);
            qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, creating m_fdsRecvResponse %s",
                    failedPath.c_str());
            recvRsp.reset(openServerReadEnd(this, failedPath));
        }
        if (recvReq.get() == -1 || recvRsp.get() == -1) {
            qvLogError(
                "(Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (0x%08X), creating %s, %d",
                addr, failedPath.c_str(), errno);
            hr = QVIPC_E_CREATE_PIPE;
        } else {
            // One try: the client opened its read end before it sent the CONNECT.
            const std::string sendReqPath = pipenameClientRequest(strConnectId, strPid);
            qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, opening m_fdsSendRequest %s",
                    sendReqPath.c_str());
            sendReq.reset(openFifo(sendReqPath, O_WRONLY | O_NONBLOCK));
            if (sendReq.get() == -1) {
                qvLogError(
                    "(Error)CQVIPCLibraryImpl::receiveRequestOnAdminPipe (0x%08X), opening %s, %d",
                    addr, sendReqPath.c_str(), errno);
                hr = QVIPC_E_OPEN_TIMEOUT;
            } else if (m_sendTimeout == QVIPC_NO_TIMEOUT) {
                clearO_NONBLOCK(sendReq.get());
            }
        }
    }

    const uint32_t ownPid = static_cast<uint32_t>(CPortable::GetCurrentProcessId());
    ResponseFrame reply;
    buildAdminRecord(reply, TYPE_CONNECT, requestId, hr, ownPid);
    if (writeRecord(*m_pPipeIO, replyFd.get(), reply) != static_cast<int>(sizeof reply)) {
        hr = QVIPC_E_WRITE_RESPONSE;
    }
    if (hr != S_OK) return hr;

    RequestFrame note;
    buildAdminRecord(note, TYPE_CONNECT, static_cast<uint32_t>(m_connectId),
                     static_cast<uint32_t>(CPortable::GetCurrentProcessId()), 1);
    if (writeRecord(*m_pPipeIO, sendReq.get(), note) < 0) {
        qvLogError("(Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (0x%08X), write failed %d",
                   addr, errno);
        return QVIPC_E_WRITE;
    }

    const int slot = static_cast<int>(fdId);
    const int recvRspFd = recvRsp.get();
    const int sendReqFd = sendReq.get();
    const int recvReqFd = recvReq.get();
    const int replyFdNumber = replyFd.get();
    m_requestPipeSeen[fdId] = 1;
    {
        CCritSecLock lock(m_pCritSec, __LINE__);
        storeReadEnd(m_fdsRecvResponse[fdId], m_readEndGenResponse[fdId], recvRsp.release());
        storeFd(m_fdsSendRequest[fdId], sendReq.release());
        storeReadEnd(m_fdsRecvRequest[fdId], m_readEndGenRequest[fdId], recvReq.release());
        m_bRequestEndsAdded = true;
        storeFd(m_fdsSendResponse[fdId], replyFd.release());
        m_connectIdMap[connectId] = fdId;
        storeWord(m_slotConnectId[fdId], connectId);
        storeWord(m_slotPid[fdId], pid);
        m_lastConnectAttempt[fdId] = 0;
        if (loadInt(&m_maxRequestSlot) < slot) storeInt(m_maxRequestSlot, slot);
        addToSet(m_fdsetRecvRequest, m_fdmaxRecvRequest, recvReqFd);
        if (loadInt(&m_maxResponseSlot) < slot) storeInt(m_maxResponseSlot, slot);
        addToSet(m_fdsetRecvResponse, m_fdmaxRecvResponse, recvRspFd);
    }
    wakeResponseReceiver();

    qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, m_fdsRecvResponse[%d] %d", slot,
            recvRspFd);
    qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, m_fdsSendRequest[%d] %d", slot,
            sendReqFd);
    qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, m_fdsRecvRequest[%d] %d", slot,
            recvReqFd);
    qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, m_fdsSendResponse[%d] %d", slot,
            replyFdNumber);
    return QVIPC_E_NEW_CONNECTION;
}

QVRESULT CQVIPCLibraryImpl::adminDisconnect(uint32_t connectId, uint32_t pid) {
    unsigned long slot = 0;
    if (!slotOfConnectId(connectId, &slot)) return S_OK;
    qvTrace(
        "CQVIPCLibraryImpl::receiveRequestOnAdminPipe (0x%08X) - QVIPC_REQUEST_DISCONNECT, pid "
        "%d, connect id %d, fd id %d",
        traceAddr(this), static_cast<int>(pid), static_cast<int>(connectId),
        static_cast<int>(slot));
    // Both sets are rebuilt (not only the request set), so that the response receiver never
    // selects on a closed descriptor; the wake-up makes it take the new set.
    closeServerSlot(slot, true);
    wakeResponseReceiver();
    return S_OK;
}

bool CQVIPCLibraryImpl::slotOfConnectId(uint32_t connectId, unsigned long* pSlot) {
    CCritSecLock lock(m_pCritSec, __LINE__);
    const auto it = m_connectIdMap.find(connectId);
    if (it == m_connectIdMap.end()) return false;
    *pSlot = it->second;
    return true;
}
