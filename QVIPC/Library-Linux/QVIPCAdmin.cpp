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
    const int fd = openFifo(path, O_RDONLY | O_CREAT | O_NONBLOCK);
    if (fd == -1) return -1;
    if (fd >= FD_SETSIZE) {
        close(fd);
        errno = EMFILE;
        return -1;
    }
    self->clearO_NONBLOCK(fd);
    return fd;
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
    const ssize_t n = readHeader(loadFd(m_fdsRecvRequest[0]), record, sizeof record);
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
        if (loadFd(m_fdsRecvResponse[i]) == -1) {
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

    // The new slot's descriptors stay local until the connection is complete and then enter
    // the slot in one step, so that a thread freeing slots never meets a half-made one.
    int recvReq = -1;
    int recvRsp = -1;
    int sendReq = -1;

    // The reply descriptor: the client's server-response FIFO, open once the client holds its
    // read end.
    const std::string replyPath = pipenameServerResponse(strConnectId, strPid);
    qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, opening m_fdsSendResponse %s",
            replyPath.c_str());
    int replyFd = -1;
    for (int tries = 0; tries < OPEN_REPLY_TRIES; ++tries) {
        replyFd = openFifo(replyPath, O_WRONLY | O_NONBLOCK);
        if (replyFd != -1) break;
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
    if (replyFd == -1) {
        hr = m_shutdown.load() != 0 ? QVIPC_E_SHUTDOWN : QVIPC_E_OPEN_TIMEOUT;
    } else {
        if (m_sendTimeout == QVIPC_NO_TIMEOUT) clearO_NONBLOCK(replyFd);

        if (fdId == 0) {
            hr = QVIPC_E_TOO_MANY_CLIENTS;
        } else {
            const std::string recvReqPath = pipenameServerRequest(strConnectId, strPid);
            qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, creating m_fdsRecvRequest %s",
                    recvReqPath.c_str());
            recvReq = openServerReadEnd(this, recvReqPath);
            std::string failedPath = recvReqPath;
            if (recvReq != -1) {
                failedPath = pipenameClientResponse(strConnectId, strPid);
                qvTrace(
                    "CQVIPCLibraryImpl::receiveRequestOnAdminPipe, creating m_fdsRecvResponse %s",
                    failedPath.c_str());
                recvRsp = openServerReadEnd(this, failedPath);
            }
            if (recvReq == -1 || recvRsp == -1) {
                qvLogError(
                    "(Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (0x%08X), creating %s, "
                    "%d",
                    addr, failedPath.c_str(), errno);
                hr = QVIPC_E_CREATE_PIPE;
            } else {
                // One try: the client opened its read end before it sent the CONNECT.
                const std::string sendReqPath = pipenameClientRequest(strConnectId, strPid);
                qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, opening m_fdsSendRequest %s",
                        sendReqPath.c_str());
                sendReq = openFifo(sendReqPath, O_WRONLY | O_NONBLOCK);
                if (sendReq == -1) {
                    qvLogError(
                        "(Error)CQVIPCLibraryImpl::receiveRequestOnAdminPipe (0x%08X), opening "
                        "%s, %d",
                        addr, sendReqPath.c_str(), errno);
                    hr = QVIPC_E_OPEN_TIMEOUT;
                } else if (m_sendTimeout == QVIPC_NO_TIMEOUT) {
                    clearO_NONBLOCK(sendReq);
                }
            }
        }

        ResponseFrame reply;
        buildAdminRecord(reply, TYPE_CONNECT, requestId, hr,
                         static_cast<uint32_t>(CPortable::GetCurrentProcessId()));
        if (writeRecord(*m_pPipeIO, replyFd, reply) != static_cast<int>(sizeof reply)) {
            hr = QVIPC_E_WRITE_RESPONSE;
        }

        if (hr == S_OK) {
            RequestFrame note;
            buildAdminRecord(note, TYPE_CONNECT, static_cast<uint32_t>(m_connectId),
                             static_cast<uint32_t>(CPortable::GetCurrentProcessId()), 1);
            if (writeRecord(*m_pPipeIO, sendReq, note) < 0) {
                qvLogError(
                    "(Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (0x%08X), write "
                    "failed %d",
                    addr, errno);
                hr = QVIPC_E_WRITE;
            }
        }
    }

    if (hr != S_OK) {
        // A connect that fails half-way closes what it opened; none of it is in a slot yet.
        for (const int fd : {replyFd, recvReq, recvRsp, sendReq}) {
            if (fd != -1) close(fd);
        }
        return hr;
    }

    m_requestPipeSeen[fdId] = 1;
    {
        CCritSecLock lock(m_pCritSec, __LINE__);
        storeFd(m_fdsRecvResponse[fdId], recvRsp);
        storeFd(m_fdsSendRequest[fdId], sendReq);
        storeFd(m_fdsRecvRequest[fdId], recvReq);
        storeFd(m_fdsSendResponse[fdId], replyFd);
        m_connectIdMap[connectId] = fdId;
        storeWord(m_slotConnectId[fdId], connectId);
        storeWord(m_slotPid[fdId], pid);
        m_lastConnectAttempt[fdId] = 0;
        const int slot = static_cast<int>(fdId);
        if (loadInt(m_maxRequestSlot) < slot) storeInt(m_maxRequestSlot, slot);
        addToSet(m_fdsetRecvRequest, m_fdmaxRecvRequest, recvReq);
        if (loadInt(m_maxResponseSlot) < slot) storeInt(m_maxResponseSlot, slot);
        addToSet(m_fdsetRecvResponse, m_fdmaxRecvResponse, recvRsp);
    }
    wakeResponseReceiver();

    const int slot = static_cast<int>(fdId);
    qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, m_fdsRecvResponse[%d] %d", slot,
            recvRsp);
    qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, m_fdsSendRequest[%d] %d", slot, sendReq);
    qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, m_fdsRecvRequest[%d] %d", slot, recvReq);
    qvTrace("CQVIPCLibraryImpl::receiveRequestOnAdminPipe, m_fdsSendResponse[%d] %d", slot,
            replyFd);
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
