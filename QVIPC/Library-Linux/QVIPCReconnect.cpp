// A broken connection: enableClientReconnect restarts a client's connect thread, or frees the
// server slot of a client that vanished, on whichever thread noticed. The slot clean-up is
// shared with the admin handling and may run on any thread: the tables change under m_pCritSec.
#include <sys/select.h>
#include <unistd.h>

#include <vector>

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

constexpr unsigned long RECONNECT_PAUSE_MS = 1000;
constexpr unsigned long long RECONNECT_THROTTLE_MS = 10000;

}  // namespace

void CQVIPCLibraryImpl::enableClientReconnect(unsigned long id) {
    qvTrace("CQVIPCLibraryImpl::enableClientReconnect (0x%08X) - id %d, issvr %d", traceAddr(this),
            static_cast<int>(id), m_isServer);
    if (id >= static_cast<unsigned long>(QVIPC_MAX_SLOTS)) return;
    {
        CCritSecLock lock(m_pCritSec, __LINE__);
        const unsigned long long now = CPortable::GetTickCountULL();
        if (now - m_lastConnectAttempt[id] <= RECONNECT_THROTTLE_MS) {
            qvTrace(
                "CQVIPCLibraryImpl::enableClientReconnect - too soon since previous connect "
                "attempt.  id %d",
                static_cast<int>(id));
            return;
        }
        m_lastConnectAttempt[id] = now;
    }
    if (m_connectThreadRunning.load() != 0) {
        qvTrace("CQVIPCLibraryImpl::enableClientReconnect - connect thread running.  id %d",
                static_cast<int>(id));
        return;
    }

    m_connected.store(m_isServer);
    // The pause ends early when the endpoint stops, so finalize does not wait for it.
    if (!sleepUnlessShutdown(RECONNECT_PAUSE_MS)) return;

    if (m_isServer == 0) {
        m_connected.store(0);
        serverConnect();
        return;
    }

    // Server: the client of this slot vanished without a DISCONNECT, or the reconnect command
    // drops it, on the caller's thread. The slot's descriptors leave both sets before they are
    // closed; the request receiver, which may be admitting a client meanwhile, meets the slot
    // either whole or free.
    closeServerSlot(id, false);
    RequestFrame internal;
    buildAdminRecord(internal, QVIPC_REQUEST_INTERNAL, 0, 0, 0);
    const int adminFd = loadFd(&m_fdsSendRequest[0]);
    if (adminFd != -1) writeRecord(*m_pPipeIO, adminFd, internal);
    wakeResponseReceiver();
}

void CQVIPCLibraryImpl::closeServerSlot(unsigned long slot, bool forgetPeer) {
    if (slot >= static_cast<unsigned long>(QVIPC_MAX_SLOTS)) return;
    int recvRsp;
    int sendReq;
    int recvReq;
    int sendRsp;
    {
        // Two threads may free the same slot at once (the request receiver on a disconnect,
        // another thread on the reconnect command): the one that takes the descriptors closes
        // them, the other finds -1 and nothing to erase.
        CCritSecLock lock(m_pCritSec, __LINE__);
        recvRsp = takeFd(m_fdsRecvResponse[slot]);
        sendReq = takeFd(m_fdsSendRequest[slot]);
        recvReq = takeFd(m_fdsRecvRequest[slot]);
        sendRsp = takeFd(m_fdsSendResponse[slot]);
        // The entry of the slot's connect id: a slot has at most one.
        for (auto it = m_connectIdMap.begin(); it != m_connectIdMap.end(); ++it) {
            if (it->second == slot) {
                m_connectIdMap.erase(it);
                break;
            }
        }
        if (forgetPeer) {
            storeWord(m_slotConnectId[slot], 0);
            storeWord(m_slotPid[slot], 0);
        }
        rebuildSet(m_fdsetRecvRequest, m_fdmaxRecvRequest, m_fdsRecvRequest,
                   loadInt(&m_maxRequestSlot));
        rebuildSet(m_fdsetRecvResponse, m_fdmaxRecvResponse, m_fdsRecvResponse,
                   loadInt(&m_maxResponseSlot));
        // A receiver that entered its call after the entry was taken never sees the read end;
        // one that is inside may still use it, and closes it itself. The request receiver
        // closes its own at once, as it is using none right now.
        if (recvRsp != -1 && m_inReceiveResponse.load() != 0) {
            m_fdsDeferredCloseResponse.push_back(recvRsp);
            recvRsp = -1;
        }
        if (recvReq != -1 && m_inReceiveRequest.load() != 0 && !onRequestReceiver()) {
            m_fdsDeferredCloseRequest.push_back(recvReq);
            recvReq = -1;
        }
    }
    closeFd(recvRsp);
    closeWriteEnd(sendReq, slot);
    closeFd(recvReq);
    closeWriteEnd(sendRsp, slot);
}

int CQVIPCLibraryImpl::takeEntry(int* pEntry) {
    CCritSecLock lock(m_pCritSec, __LINE__);
    return takeFd(*pEntry);
}

void CQVIPCLibraryImpl::closeEntry(int* pEntry) {
    int fd = takeEntry(pEntry);
    closeFd(fd);
}

void CQVIPCLibraryImpl::closeWriteEnd(int fd, unsigned long slot) {
    if (fd == -1) return;
    // The entry is -1 already, so no new sender takes the descriptor; one that took it before
    // ends its write (a dead reader fails it at once, a send time-out bounds it). At shutdown
    // nobody waits: finalize closes what is left.
    while (loadInt(&m_sendsInFlight[slot]) != 0 && m_shutdown.load() == 0) CPortable::Sleep(1);
    closeFd(fd);
}

void CQVIPCLibraryImpl::rebuildSet(fd_set& set, int& fdmax, const int* fds, int maxSlot) {
    FD_ZERO(&set);
    fdmax = 0;
    for (int i = 0; i <= maxSlot && i < QVIPC_MAX_SLOTS; ++i) {
        const int fd = loadFd(&fds[i]);
        if (fd == -1 || fd >= FD_SETSIZE) continue;
        FD_SET(fd, &set);
        if (fd > fdmax) fdmax = fd;
    }
}

void CQVIPCLibraryImpl::closeDeferredFds(std::vector<int>* pList) {
    std::vector<int> taken;
    {
        CCritSecLock lock(m_pCritSec, __LINE__);
        taken.swap(*pList);
    }
    for (int fd : taken) closeFd(fd);
}

void CQVIPCLibraryImpl::wakeResponseReceiver() {
    const int fd = m_adminResponsePipe[1];
    if (fd == -1) return;
    ResponseFrame wake;
    buildAdminRecord(wake, 0, 0, 0, 0);
    // The write end is non-blocking: a full pipe already holds a pending wake-up, and the
    // request loop must not block on a response receiver that nobody runs.
    const ssize_t n = ::write(fd, wake, sizeof wake);
    (void)n;
}
