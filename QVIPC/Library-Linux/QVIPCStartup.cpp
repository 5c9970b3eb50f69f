// Start-up: the service's admin FIFO, then the server's admin channels (both ends of the admin
// FIFO and the internal pipe) or a client's four connection FIFOs and its connect thread. Runs
// on the application's thread; m_pCritSec is held only while slot 0 enters the sets.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "QVIPC/Library-Linux/FifoFiles.h"
#include "QVIPC/Library-Linux/PipenameRegistry.h"
#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "QVIPC/Library-Linux/QVIPCTrace.h"
#include "QVIPC/Library-Linux/SlotWords.h"
#include "platform/FdGuard.h"
#include "platform/PCritSec.h"

namespace {

// The internal pipe and the admin FIFO's read end go into the receivers' select() sets, which
// hold only descriptors below FD_SETSIZE: a higher one could never wake its receiver, and
// finalize would wait for ever for it. Such descriptors count as not made (EMFILE).
int openAdminReadEnd(const std::string& path) {
    CFdGuard fd(openFifo(path, O_RDONLY | O_CREAT | O_NONBLOCK));
    if (fd.get() < FD_SETSIZE) return fd.release();
    fd.reset();
    errno = EMFILE;
    return -1;
}

// pipe() into fds; on failure both entries stay -1.
bool makeInternalPipe(int (&fds)[2]) {
    int made[2];
    if (pipe(made) != 0) return false;
    CFdGuard readEnd(made[0]);
    CFdGuard writeEnd(made[1]);
    if (readEnd.get() >= FD_SETSIZE) {
        readEnd.reset();
        writeEnd.reset();
        errno = EMFILE;
        return false;
    }
    fds[0] = readEnd.release();
    fds[1] = writeEnd.release();
    return true;
}

}  // namespace

QVRESULT CQVIPCLibraryImpl::initialize() {
    const unsigned addr = traceAddr(this);
    qvTrace("CQVIPCLibraryImpl::initialize (0x%08X)", addr);

    // A second initialize of a running endpoint changes nothing and succeeds; after finalize
    // the endpoint is not started again. (Repeating the steps would open every descriptor a
    // second time and start a second connect thread.)
    if (m_shutdown.load() != 0) {
        qvTrace("<<<CQVIPCLibraryImpl::initialize (0x%08X)", addr);
        return QVIPC_E_SHUTDOWN;
    }
    if (m_initialized.load() != 0) {
        qvTrace("<<<CQVIPCLibraryImpl::initialize (0x%08X)", addr);
        return S_OK;
    }

    m_shutdown.store(0);
    QVRESULT hr = S_OK;
    const std::string adminPath = pipenameServerAdmin();
    qvTrace("CQVIPCLibraryImpl::initialize 0x%08X, mknod serverAdmin %s", addr, adminPath.c_str());
    int err = makeFifo(adminPath);
    if (err != 0) {
        qvLogError("(Error) CQVIPCLibraryImpl::initialize, can't mknod fifo %s, errno %d",
                   adminPath.c_str(), err);
        hr = QVIPC_E_CREATE_PIPE;
    } else if (m_isServer != 0) {
        qvTrace("CQVIPCLibraryImpl::initialize 0x%08X, create server response admin pipe", addr);
        // A retry after a failed start-up keeps what the failed one made.
        if (m_adminResponsePipe[0] == -1 && !makeInternalPipe(m_adminResponsePipe)) {
            qvLogError(
                "(Error) CQVIPCLibraryImpl::initialize, create server response admin pipe, errno "
                "%d",
                errno);
            m_adminResponsePipe[0] = -1;
            m_adminResponsePipe[1] = -1;
            hr = QVIPC_E_CREATE_PIPE;
        }
        if (hr == S_OK) {
            // Wake-ups need no more than one pending record: a full pipe must not block the
            // writer (see wakeResponseReceiver).
            const int flags = fcntl(m_adminResponsePipe[1], F_GETFL);
            if (flags != -1) fcntl(m_adminResponsePipe[1], F_SETFL, flags | O_NONBLOCK);
            CCritSecLock lock(m_pCritSec, __LINE__);
            FD_SET(m_adminResponsePipe[0], &m_fdsetRecvResponse);
            if (m_adminResponsePipe[0] > m_fdmaxRecvResponse) {
                m_fdmaxRecvResponse = m_adminResponsePipe[0];
            }
            storeFd(m_fdsRecvResponse[0], m_adminResponsePipe[0]);
            storeInt(m_maxResponseSlot, 0);
        }

        if (hr == S_OK) {
            qvTrace("CQVIPCLibraryImpl::initialize 0x%08X, open serverAdmin (read) %s", addr,
                    adminPath.c_str());
            // A retry after a failed start-up keeps the read end the failed one stored.
            CFdGuard opened;
            int fd = loadFd(&m_fdsRecvRequest[0]);
            if (fd == -1) {
                opened.reset(openAdminReadEnd(adminPath));
                fd = opened.get();
            }
            if (fd == -1) {
                qvLogError(
                    "(Error) CQVIPCLibraryImpl::initialize, can't create recv pipe %s, errno %d",
                    adminPath.c_str(), errno);
                hr = QVIPC_E_CREATE_PIPE;
            } else {
                clearO_NONBLOCK(fd);
                CCritSecLock lock(m_pCritSec, __LINE__);
                m_fdmaxRecvRequest = fd;
                FD_SET(fd, &m_fdsetRecvRequest);
                storeFd(m_fdsRecvRequest[0], fd);
                opened.release();
                storeInt(m_maxRequestSlot, 0);
            }
        }

        if (hr == S_OK) {
            qvTrace("CQVIPCLibraryImpl::initialize 0x%08X, open serverAdmin (write) %s", addr,
                    adminPath.c_str());
            const int flags = m_sendTimeout != QVIPC_NO_TIMEOUT ? O_WRONLY | O_NONBLOCK : O_WRONLY;
            CFdGuard fd(openFifo(adminPath, flags));
            if (fd.get() == -1) {
                qvLogError(
                    "(Error) CQVIPCLibraryImpl::initialize, can't create send pipe %s, errno %d",
                    adminPath.c_str(), errno);
                hr = QVIPC_E_MKNOD;
            } else {
                {
                    CCritSecLock lock(m_pCritSec, __LINE__);
                    storeFd(m_fdsSendRequest[0], fd.release());
                }
                m_initialized.store(1);
            }
        }
    } else {
        // The four FIFOs of the client's own connection. A failed mknod ends start-up with the
        // code of that FIFO; those made before stay, and stay registered.
        for (int i = 0; i < 4 && hr == S_OK; ++i) {
            std::string path;
            QVRESULT failure = QVIPC_E_MKNOD;
            switch (i) {
                case 0:
                    path = pipenameServerRequest(m_strConnectId, m_strPid);
                    qvTrace("CQVIPCLibraryImpl::initialize 0x%08X, mknod serverRequest %s", addr,
                            path.c_str());
                    break;
                case 1:
                    path = pipenameServerResponse(m_strConnectId, m_strPid);
                    qvTrace("CQVIPCLibraryImpl::initialize 0x%08X, mknod serverResponse %s", addr,
                            path.c_str());
                    failure = QVIPC_E_CREATE_PIPE;
                    break;
                case 2:
                    path = pipenameClientRequest(m_strConnectId, m_strPid);
                    qvTrace("CQVIPCLibraryImpl::initialize 0x%08X, mknod clientRequest %s", addr,
                            path.c_str());
                    failure = QVIPC_E_CREATE_PIPE;
                    break;
                default:
                    path = pipenameClientResponse(m_strConnectId, m_strPid);
                    qvTrace("CQVIPCLibraryImpl::initialize 0x%08X, mknod clientResponse %s", addr,
                            path.c_str());
                    break;
            }
            err = makeFifo(path);
            if (err != 0) {
                qvLogError("(Error) CQVIPCLibraryImpl::initialize, can't mknod fifo %s, errno %d",
                           path.c_str(), err);
                hr = failure;
            } else {
                g_pipenameRegistry.add(path);
            }
        }
        if (hr == S_OK) {
            m_initialized.store(1);
            serverConnect();
        }
    }

    qvTrace("<<<CQVIPCLibraryImpl::initialize (0x%08X)", addr);
    return hr;
}
