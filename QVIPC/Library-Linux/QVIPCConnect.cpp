// A client's connect thread "QVConnect": at most one per endpoint, never joined; finalize waits
// for m_connectThreadRunning to drop. Slot 1's descriptors are published in a fixed order: read
// ends, write ends, response set, then m_connected, then the thread's end.
#include <fcntl.h>
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

constexpr unsigned long CONNECT_RETRY_MS = 1000;
constexpr unsigned long RECEIVER_POLL_MS = 100;
constexpr int OPEN_WRITE_END_TRIES = 20;

}  // namespace

void CQVIPCLibraryImpl::serverConnect() {
    qvTrace("CQVIPCLibraryImpl::serverConnect");
    if (m_shutdown.load() != 0) return;
    // Two threads that both find the connection broken start one connect thread between them.
    int expected = 0;
    if (!m_connectThreadRunning.compare_exchange_strong(expected, 1)) return;
    if (CPortable::CreateThread(connectThread, this, nullptr, "") == 0) {
        m_connectThreadRunning.store(0);
        qvLogError(
            "(Error) CQVIPCLibraryImpl::serverConnect, CPortable::CreateThread failed - 0x%08X",
            QVIPC_E_THREAD);
    }
}

void* CQVIPCLibraryImpl::connectThread(void* p) {
    static_cast<CQVIPCLibraryImpl*>(p)->connectThreadFunc();
    return nullptr;
}

void CQVIPCLibraryImpl::connectThreadFunc() {
    const unsigned addr = traceAddr(this);
    CPortable::SetCurrentThreadName("QVConnect");
    m_connectThreadRunning.store(1);
    qvLogNotice("CQVIPCLibraryImpl::connectThreadFunc (0x%08X) - starting", addr);

    if (m_connected.load() == 0) {
        while (m_inReceiveResponse.load() != 0 && m_shutdown.load() == 0) {
            CPortable::Sleep(RECEIVER_POLL_MS);
        }
        // Slot 1's write ends go now; its read ends are made anew by every attempt below.
        dropClientWriteEnds();

        // Every attempt makes the client's read ends anew, so that each CONNECT finds both
        // open for the server's opens and the reply.
        bool refusedBefore = false;
        while (makeClientReadEnds()) {
            CFdGuard fdSendAdmin;
            bool refused = false;
            const QVRESULT hr = connectAttempt(&fdSendAdmin, &refused);
            if (hr == S_OK) {
                publishConnection();
                break;
            }
            failedConnectAttempt(&fdSendAdmin);
            if (m_shutdown.load() != 0 || hr == QVIPC_E_TOO_MANY_CLIENTS) break;
            // A refusal is answered with the next attempt at once. A refusal that repeats has a
            // cause that stays (the server short of descriptors, a foreign file at one of this
            // client's FIFO names): asking again at once would keep this thread and the
            // server's request loop spinning, and the server logging an error every turn, so
            // the next attempt waits a second.
            if (refused && refusedBefore && !sleepUnlessShutdown(CONNECT_RETRY_MS)) break;
            refusedBefore = refused;
        }
        if (m_connected.load() == 0 && m_shutdown.load() == 0) releaseClientReadEnds();
    }

    qvLogNotice("CQVIPCLibraryImpl::connectThreadFunc (0x%08X) - stopping", addr);
    // Last touch of the endpoint: finalize may destroy it as soon as this is seen.
    m_connectThreadRunning.store(0);
}

// Opens a read end anew. When old (the entry's number) is open, the new FIFO takes that number
// with dup2(): a receive thread that holds the number keeps reading the same FIFO, never a
// closed or reused number; old is returned then. Otherwise the new descriptor, for the caller
// to store; -1 (logged) when the FIFO cannot be opened.
int CQVIPCLibraryImpl::reopenClientReadEnd(const std::string& path, int old) {
    CFdGuard fd(openFifo(path, O_RDONLY | O_CREAT | O_NONBLOCK));
    if (fd.get() == -1) {
        qvLogError(
            "(Error) CQVIPCLibraryImpl::connectThreadFunc, can't create recv pipe %s, errno %d",
            path.c_str(), errno);
        return -1;
    }
    clearO_NONBLOCK(fd.get());
    if (old != -1 && dup2(fd.get(), old) == old) return old;
    return fd.release();
}

bool CQVIPCLibraryImpl::makeClientReadEnds() {
    const std::string rspPath = pipenameServerResponse(m_strConnectId, m_strPid);
    qvTrace("CQVIPCLibraryImpl::connectThreadFunc, creating m_fdsRecvResponse %s", rspPath.c_str());
    // Every attempt reads its reply from a FIFO made anew under the same name. The old one may
    // still hold responses of the broken connection and the old server's write end; on a new
    // FIFO the reply wait sees only what this attempt's server writes, and a write end that
    // comes and goes there (poll()'s hang-up) can only be a server that died before replying.
    // A FIFO that cannot be renewed is used as it is.
    if (unlink(rspPath.c_str()) == 0) (void)makeFifo(rspPath);
    int old = loadFd(&m_fdsRecvResponse[REQUEST_PIPE]);
    int fd = reopenClientReadEnd(rspPath, old);
    if (fd == -1) return false;
    if (fd != old) {
        // The old number could not be taken over: it is closed, the new one stored.
        CCritSecLock lock(m_pCritSec, __LINE__);
        closeFd(m_fdsRecvResponse[REQUEST_PIPE]);
        storeReadEnd(m_fdsRecvResponse[REQUEST_PIPE], m_readEndGenResponse[REQUEST_PIPE], fd);
    }
    // What the old read end delivered says nothing about the new one: a first read that finds
    // no writer yet is no disconnect, and bytes it read ahead belong to the old FIFO (this
    // thread is the slot's only response reader now).
    m_responsePipeSeen[REQUEST_PIPE] = 0;
    m_readAheadResponse[REQUEST_PIPE].drop();
    qvTrace("CQVIPCLibraryImpl::connectThreadFunc, opened m_fdsRecvResponse[REQUEST_PIPE] %d", fd);

    const std::string reqPath = pipenameClientRequest(m_strConnectId, m_strPid);
    qvTrace("CQVIPCLibraryImpl::connectThreadFunc, creating m_fdsRecvRequest %s", reqPath.c_str());
    // The request FIFO is opened again under its name, not made anew: the same FIFO, so what
    // the request reader read ahead of it stays valid, as it would have stayed in the FIFO.
    old = loadFd(&m_fdsRecvRequest[REQUEST_PIPE]);
    fd = reopenClientReadEnd(reqPath, old);
    if (fd == -1) return false;
    if (fd != old) {
        CCritSecLock lock(m_pCritSec, __LINE__);
        closeFd(m_fdsRecvRequest[REQUEST_PIPE]);
        storeReadEnd(m_fdsRecvRequest[REQUEST_PIPE], m_readEndGenRequest[REQUEST_PIPE], fd);
    }
    qvTrace("CQVIPCLibraryImpl::connectThreadFunc, opened m_fdsRecvRequest[REQUEST_PIPE] %d", fd);
    return true;
}

// A connect thread that ends without a connection (refused for too many clients, or a read end
// not made) leaves slot 1 closed. Not while a request reader is inside its call: it may be
// reading the request read end, so both stay, to be replaced by the next attempt or closed by
// finalize. The response reader never reads while the client is not connected.
void CQVIPCLibraryImpl::releaseClientReadEnds() {
    int request;
    int response;
    {
        CCritSecLock lock(m_pCritSec, __LINE__);
        // Taken before the flag is looked at: a reader raises the flag before it loads the
        // descriptor, so one of the two sees the other.
        request = takeFd(m_fdsRecvRequest[REQUEST_PIPE]);
        if (request != -1 && m_inReceiveRequest.load() != 0) {
            storeFd(m_fdsRecvRequest[REQUEST_PIPE], request);
            return;
        }
        response = takeFd(m_fdsRecvResponse[REQUEST_PIPE]);
    }
    closeFd(request);
    closeFd(response);
}

// Slot 1's write ends leave the entries, and are closed once no sender is still using them;
// its peer words are cleared.
void CQVIPCLibraryImpl::dropClientWriteEnds() {
    closeWriteEnd(takeEntry(&m_fdsSendRequest[REQUEST_PIPE]), REQUEST_PIPE);
    closeWriteEnd(takeEntry(&m_fdsSendResponse[REQUEST_PIPE]), REQUEST_PIPE);
    CCritSecLock lock(m_pCritSec, __LINE__);
    storeWord(m_slotConnectId[REQUEST_PIPE], 0);
    storeWord(m_slotPid[REQUEST_PIPE], 0);
}

// Opens one of slot 1's write ends and stores it in its entry: up to 20 tries, 1 second apart.
// Always opened non-blocking, then made blocking when there is no send time-out: a plain
// blocking open would wait for ever for a server that died after its reply.
QVRESULT CQVIPCLibraryImpl::openClientWriteEnd(const std::string& path, bool requestFifo) {
    for (int tries = 1;; ++tries) {
        if (requestFifo) {
            qvTrace("CQVIPCLibraryImpl::connectThreadFunc, opening m_fdsSendRequest %s",
                    path.c_str());
        } else {
            qvTrace("CQVIPCLibraryImpl::connectThreadFunc, opening m_fdsSendResponse %s",
                    path.c_str());
        }
        CFdGuard fd(openFifo(path, O_WRONLY | O_NONBLOCK));
        if (fd.get() != -1) {
            if (m_sendTimeout == QVIPC_NO_TIMEOUT) clearO_NONBLOCK(fd.get());
            const int stored = fd.get();
            {
                CCritSecLock lock(m_pCritSec, __LINE__);
                storeFd(
                    requestFifo ? m_fdsSendRequest[REQUEST_PIPE] : m_fdsSendResponse[REQUEST_PIPE],
                    fd.release());
            }
            if (requestFifo) {
                qvTrace(
                    "CQVIPCLibraryImpl::connectThreadFunc, opened m_fdsSendRequest[REQUEST_PIPE] "
                    "%d",
                    stored);
            } else {
                qvTrace(
                    "CQVIPCLibraryImpl::connectThreadFunc, opened m_fdsSendResponse[REQUEST_PIPE] "
                    "%d",
                    stored);
            }
            return S_OK;
        }
        if (m_shutdown.load() != 0) return QVIPC_E_SHUTDOWN;
        if (tries >= OPEN_WRITE_END_TRIES) return QVIPC_E_OPEN_TIMEOUT;
        if (!sleepUnlessShutdown(CONNECT_RETRY_MS)) return QVIPC_E_SHUTDOWN;
    }
}

QVRESULT CQVIPCLibraryImpl::connectAttempt(CFdGuard* pFdSendAdmin, bool* pRefused) {
    const unsigned addr = traceAddr(this);
    const uint32_t ownPid = static_cast<uint32_t>(CPortable::GetCurrentProcessId());

    const std::string adminPath = pipenameServerAdmin();
    for (;;) {
        qvTrace("CQVIPCLibraryImpl::connectThreadFunc, opening fdSendAdmin %s", adminPath.c_str());
        pFdSendAdmin->reset(openFifo(adminPath, O_WRONLY | O_NONBLOCK));
        if (pFdSendAdmin->get() != -1) break;
        qvTraceError(
            "(Error) CQVIPCLibraryImpl::connectThreadFunc, can't open fdSendAdmin %s, errno %d",
            adminPath.c_str(), errno);
        if (!sleepUnlessShutdown(CONNECT_RETRY_MS)) return QVIPC_E_SHUTDOWN;
    }

    if (m_sendTimeout == QVIPC_NO_TIMEOUT) clearO_NONBLOCK(pFdSendAdmin->get());
    storeWord(m_connectResult[REQUEST_PIPE], 0);
    qvTrace("CQVIPCLibraryImpl::connectThreadFunc, sending connect request");
    RequestFrame record;
    buildAdminRecord(record, QVIPC_REQUEST_CONNECT, static_cast<uint32_t>(m_connectId), ownPid, 0);
    if (writeRecord(*m_pPipeIO, pFdSendAdmin->get(), record) < 0) {
        qvLogError("(Error) CQVIPCLibraryImpl::connectThreadFunc (0x%08X), write failed %d", addr,
                   errno);
        pFdSendAdmin->reset();
        return QVIPC_E_WRITE;
    }

    m_fdConnectAdmin = pFdSendAdmin->get();
    m_waitingConnectReply.store(1);
    unsigned long requestId = 0;
    char* body = nullptr;
    unsigned long len = 0;
    QVRESULT hr = receiveResponseOnClientPipe(REQUEST_PIPE, 1, &requestId, &body, &len, nullptr);
    delete[] body;
    m_waitingConnectReply.store(0);
    m_fdConnectAdmin = -1;
    if (hr == S_OK) {
        hr = static_cast<QVRESULT>(loadWord(&m_connectResult[REQUEST_PIPE]));
        *pRefused = hr != S_OK;
    }
    if (hr == QVIPC_E_TOO_MANY_CLIENTS) {
        qvLogError(
            "(Error) CQVIPCLibraryImpl::connectThreadFunc (0x%08X), server has too many clients",
            addr);
    }
    if (hr != S_OK) return hr;

    hr = openClientWriteEnd(pipenameServerRequest(m_strConnectId, m_strPid), true);
    if (hr == S_OK)
        hr = openClientWriteEnd(pipenameClientResponse(m_strConnectId, m_strPid), false);
    if (hr != S_OK) return hr;

    pFdSendAdmin->reset();
    {
        CCritSecLock lock(m_pCritSec, __LINE__);
        storeInt(m_maxRequestSlot, REQUEST_PIPE);
        storeWord(m_slotConnectId[REQUEST_PIPE], m_connectId);
        storeWord(m_slotPid[REQUEST_PIPE], ownPid);
    }
    return S_OK;
}

void CQVIPCLibraryImpl::failedConnectAttempt(CFdGuard* pFdSendAdmin) {
    if (pFdSendAdmin->get() != -1) {
        qvTrace("CQVIPCLibraryImpl::connectThreadFunc, sending disconnect request");
        RequestFrame record;
        buildAdminRecord(record, QVIPC_REQUEST_DISCONNECT, static_cast<uint32_t>(m_connectId),
                         static_cast<uint32_t>(CPortable::GetCurrentProcessId()), 1);
        if (writeRecord(*m_pPipeIO, pFdSendAdmin->get(), record) < 0) {
            qvLogError("(Error) CQVIPCLibraryImpl::connectThreadFunc.1, write failed %d", errno);
        }
        pFdSendAdmin->reset();
    }
    // The read ends stay until the next attempt replaces them, or until finalize: a receive
    // thread may be reading them, and only these two points are known to be safe.
    dropClientWriteEnds();
}

void CQVIPCLibraryImpl::publishConnection() {
    int recvRsp;
    {
        CCritSecLock lock(m_pCritSec, __LINE__);
        if (loadInt(&m_maxResponseSlot) < REQUEST_PIPE) storeInt(m_maxResponseSlot, REQUEST_PIPE);
        recvRsp = loadFd(&m_fdsRecvResponse[REQUEST_PIPE]);
        // A client never selects on its set; a descriptor beyond FD_SETSIZE stays out of it.
        if (recvRsp < FD_SETSIZE) {
            if (recvRsp > m_fdmaxRecvResponse) m_fdmaxRecvResponse = recvRsp;
            FD_SET(recvRsp, &m_fdsetRecvResponse);
        }
    }
    qvTrace("CQVIPCLibraryImpl::connectThreadFunc, m_fdsRecvResponse[REQUEST_PIPE] %d", recvRsp);
    qvTrace("CQVIPCLibraryImpl::connectThreadFunc, m_fdsSendRequest[REQUEST_PIPE] %d",
            loadFd(&m_fdsSendRequest[REQUEST_PIPE]));
    qvTrace("CQVIPCLibraryImpl::connectThreadFunc, m_fdsRecvRequest[REQUEST_PIPE] %d",
            loadFd(&m_fdsRecvRequest[REQUEST_PIPE]));
    qvTrace("CQVIPCLibraryImpl::connectThreadFunc, m_fdsSendResponse[REQUEST_PIPE] %d",
            loadFd(&m_fdsSendResponse[REQUEST_PIPE]));
    {
        CCritSecLock lock(m_pCritSec, __LINE__);
        m_lastConnectAttempt[REQUEST_PIPE] = 0;
    }
    m_connected.store(1);
}
