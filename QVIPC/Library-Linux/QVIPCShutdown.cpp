// Shutdown: finalize stops the connect thread, wakes every blocked receiver with one record and
// waits for it to leave, then closes every descriptor exactly once and removes a client's FIFOs.
// It runs on an application thread and meets the others only through the atomic flags; it
// closes descriptors only after their users have left. The destructor runs it again.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "QVIPC/Library-Linux/FifoFiles.h"
#include "QVIPC/Library-Linux/FrameIO.h"
#include "QVIPC/Library-Linux/Framing.h"
#include "QVIPC/Library-Linux/IDGen.h"
#include "QVIPC/Library-Linux/PipeIO.h"
#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "QVIPC/Library-Linux/QVIPCTrace.h"
#include "QVIPC/Library-Linux/SlotWords.h"
#include "platform/FdGuard.h"
#include "platform/PCritSec.h"
#include "platform/Portable.h"
#include "platform/TraceUtility.h"

using namespace qvframe;

namespace {

void waitWhileSet(const std::atomic<int>& flag) {
    while (flag.load() != 0) CPortable::Sleep(POLL_INTERVAL_MS);
}

}  // namespace

QVRESULT CQVIPCLibraryImpl::finalize() {
    const unsigned addr = traceAddr(this);
    qvTrace("CQVIPCLibraryImpl::finalize (0x%08X)", addr);

    m_initialized.store(0);
    m_shutdown.store(1);
    waitWhileSet(m_connectThreadRunning);

    const int writeFlags = m_sendTimeout != QVIPC_NO_TIMEOUT ? O_WRONLY | O_NONBLOCK : O_WRONLY;
    const uint32_t ownPid = static_cast<uint32_t>(CPortable::GetCurrentProcessId());

    // Request side: a blocked select() (server) or read() (client) gets one record.
    RequestFrame requestWake;
    buildAdminRecord(requestWake, TYPE_DATA, 0, 0, 0);
    if (m_isServer != 0) {
        const int fd = loadFd(&m_fdsSendRequest[0]);
        if (fd != -1 &&
            writeRecord(*m_pPipeIO, fd, requestWake) == static_cast<int>(sizeof requestWake)) {
            waitWhileSet(m_inReceiveRequest);
        }
    } else if (loadFd(&m_fdsRecvRequest[REQUEST_PIPE]) != -1) {
        CFdGuard fd(openFifo(pipenameClientRequest(m_strConnectId, m_strPid), writeFlags));
        if (fd.get() != -1 && writeRecord(*m_pPipeIO, fd.get(), requestWake) ==
                                  static_cast<int>(sizeof requestWake)) {
            waitWhileSet(m_inReceiveRequest);
        }
    }

    // Response side: the server's internal pipe, or the client's own response FIFO.
    ResponseFrame responseWake;
    buildAdminRecord(responseWake, TYPE_DATA, 0, 0, ownPid);
    if (m_isServer != 0) {
        const int fd = m_adminResponsePipe[1];
        if (fd != -1) {
            // The pipe's write end is non-blocking; a full pipe already holds a wake-up for the
            // receiver, so it is waited for all the same.
            const ssize_t n = ::write(fd, responseWake, sizeof responseWake);
            if (n == static_cast<ssize_t>(sizeof responseWake) || (n < 0 && errno == EAGAIN)) {
                waitWhileSet(m_inReceiveResponse);
            }
        }
    } else if (loadFd(&m_fdsRecvResponse[REQUEST_PIPE]) != -1) {
        CFdGuard fd(openFifo(pipenameServerResponse(m_strConnectId, m_strPid), writeFlags));
        if (fd.get() != -1 && writeRecord(*m_pPipeIO, fd.get(), responseWake) ==
                                  static_cast<int>(sizeof responseWake)) {
            waitWhileSet(m_inReceiveResponse);
        }
    }

    // The internal pipe's read end is also m_fdsRecvResponse[0]; it is closed once, there.
    const bool pipeReadInSlot0 =
        m_adminResponsePipe[0] != -1 && loadFd(&m_fdsRecvResponse[0]) == m_adminResponsePipe[0];

    for (int slot = 0; slot <= loadInt(&m_maxResponseSlot) && slot < QVIPC_MAX_SLOTS; ++slot) {
        qvTrace("...CQVIPCLibraryImpl::finalize (0x%08X), closing m_fdsRecvResponse[%d] %d", addr,
                slot, loadFd(&m_fdsRecvResponse[slot]));
        closeEntry(&m_fdsRecvResponse[slot]);
        qvTrace("...CQVIPCLibraryImpl::finalize (0x%08X), closing m_fdsSendRequest[%d] %d", addr,
                slot, loadFd(&m_fdsSendRequest[slot]));
        closeEntry(&m_fdsSendRequest[slot]);
    }
    {
        CCritSecLock lock(m_pCritSec, __LINE__);
        storeInt(m_maxResponseSlot, -1);
    }

    for (int slot = 0; slot <= loadInt(&m_maxRequestSlot) && slot < QVIPC_MAX_SLOTS; ++slot) {
        qvTrace("...CQVIPCLibraryImpl::finalize (0x%08X), closing m_fdsRecvRequest[%d] %d", addr,
                slot, loadFd(&m_fdsRecvRequest[slot]));
        closeEntry(&m_fdsRecvRequest[slot]);
        qvTrace("...CQVIPCLibraryImpl::finalize (0x%08X), closing m_fdsSendResponse[%d] %d", addr,
                slot, loadFd(&m_fdsSendResponse[slot]));
        closeEntry(&m_fdsSendResponse[slot]);
    }
    {
        CCritSecLock lock(m_pCritSec, __LINE__);
        storeInt(m_maxRequestSlot, -1);
    }

    if (pipeReadInSlot0) {
        m_adminResponsePipe[0] = -1;
    } else {
        closeFd(m_adminResponsePipe[0]);
    }
    closeFd(m_adminResponsePipe[1]);

    // What the loops above do not cover: a client's read ends that its connect thread made
    // before it was stopped (the highest-slot values cover slot 1 only once connected), and
    // read ends of freed slots that a server's receivers had not yet closed themselves.
    if (m_isServer == 0) {
        closeEntry(&m_fdsRecvResponse[REQUEST_PIPE]);
        closeEntry(&m_fdsRecvRequest[REQUEST_PIPE]);
        closeEntry(&m_fdsSendRequest[REQUEST_PIPE]);
        closeEntry(&m_fdsSendResponse[REQUEST_PIPE]);
    }
    closeDeferredFds(&m_fdsDeferredCloseRequest);
    closeDeferredFds(&m_fdsDeferredCloseResponse);

    cleanupPipenames();
    qvTrace("<<<CQVIPCLibraryImpl::finalize (0x%08X)", addr);
    return S_OK;
}

CQVIPCLibraryImpl::~CQVIPCLibraryImpl() {
    const unsigned addr = traceAddr(this);
    qvTrace("CQVIPCLibraryImpl::~CQVIPCLibraryImpl (0x%08X)", addr);
    finalize();
    delete m_pPipeIO;
    m_pPipeIO = nullptr;
    delete m_pCritSec;
    m_pCritSec = nullptr;
    delete m_pIDGen;
    m_pIDGen = nullptr;
    qvTrace("<<<CQVIPCLibraryImpl::~CQVIPCLibraryImpl 0x%08X", addr);
    DestroyCTraceUtility(&g_ptu);
}
