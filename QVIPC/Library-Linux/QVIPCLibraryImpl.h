// CQVIPCLibraryImpl: all state of one endpoint. The members keep their designed names, types and
// order; the flags that threads share are std::atomic<int>. m_pCritSec guards both descriptor
// sets, their maxima, both highest-slot values and the reconnect throttle. The methods are
// spread over several files of this folder, one per concern (start-up, shutdown, admin, request
// path, response path, connect thread, reconnect, dump).
#ifndef QVIPC_LIBRARY_LINUX_QVIPCLIBRARYIMPL_H_
#define QVIPC_LIBRARY_LINUX_QVIPCLIBRARYIMPL_H_

#include <sys/select.h>
#include <sys/uio.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "QVIPC/Library-Linux/QVIPCDefs.h"
#include "QVIPC/QVIPCLibrary/QVIPCErrors.h"

class CPIPEIOBase;
class CIDGen;
class CPCritSec;
namespace JSON {
class Serialize;
}

class CQVIPCLibraryImpl {
public:
    CQVIPCLibraryImpl(const std::string& title, const std::string& guid, int isServer,
                      unsigned long maxConnections, unsigned long headerExtSize, unsigned long sto);
    ~CQVIPCLibraryImpl();
    CQVIPCLibraryImpl(const CQVIPCLibraryImpl&) = delete;
    CQVIPCLibraryImpl& operator=(const CQVIPCLibraryImpl&) = delete;

    // Start-up and shutdown.
    QVRESULT initialize();
    QVRESULT finalize();

    // Request path.
    QVRESULT sendRequest(unsigned long ipcid, const char* buf, unsigned long len,
                         unsigned long* pRequestId, int requestType, const char* headerExt);
    QVRESULT receiveRequestPrimaryServer(unsigned long* pIpcid, unsigned long* pRequestId,
                                         char** ppBuf, unsigned long* pLen, int* pRequestType,
                                         char* headerExt);
    QVRESULT receiveRequestSecondaryServer(unsigned long* pIpcid, unsigned long* pRequestId,
                                           char** ppBuf, unsigned long* pLen, int* pRequestType,
                                           char* headerExt);

    // Response path.
    QVRESULT sendResponse(unsigned long ipcid, unsigned long requestId, const char* buf,
                          unsigned long len, const char* headerExt);
    QVRESULT receiveResponse(unsigned long* pIpcid, char** ppBuf, unsigned long* pLen,
                             unsigned long* pRequestId, char* headerExt);

    // Diagnostics.
    void dump(const std::string& command);
    JSON::Serialize& dumpToJSONBuffer(JSON::Serialize& writer);

    // Pipe names.
    std::string pipenameServerAdmin() const;
    std::string pipenameServerRequest(const std::string& connectId, const std::string& pid) const;
    std::string pipenameServerResponse(const std::string& connectId, const std::string& pid) const;
    std::string pipenameClientRequest(const std::string& connectId, const std::string& pid) const;
    std::string pipenameClientResponse(const std::string& connectId, const std::string& pid) const;
    void cleanupPipenames();

    // Turns a descriptor opened non-blocking into a blocking one; -1 is left alone.
    void clearO_NONBLOCK(int fd);

    // Connection management.
    QVRESULT receiveRequestOnAdminPipe(unsigned long* pSlot);
    QVRESULT receiveRequestOnClientPipe(unsigned long slot, unsigned long* pRequestId, char** ppBuf,
                                        unsigned long* pLen, int* pRequestType, char* headerExt);
    QVRESULT receiveResponseOnClientPipe(unsigned long slot, int keepWaiting,
                                         unsigned long* pRequestId, char** ppBuf,
                                         unsigned long* pLen, char* headerExt);
    void serverConnect();
    static void* connectThread(void* p);
    void connectThreadFunc();
    void enableClientReconnect(unsigned long id);

    // ---- Members, in their designed order. ----
    CPIPEIOBase* m_pPipeIO;
    std::string m_strTitle;
    std::string m_strGuid;
    int m_isServer;
    unsigned long m_maxConnections;
    unsigned long m_headerExtSize;
    unsigned long m_sendTimeout;
    unsigned long m_nextRequestId;
    CIDGen* m_pIDGen;
    unsigned long m_connectId;
    std::string m_strConnectId;
    std::string m_strPid;
    CPCritSec* m_pCritSec;
    std::atomic<int> m_initialized;
    std::atomic<int> m_connected;
    std::atomic<int> m_shutdown;
    std::atomic<int> m_inReceiveResponse;
    fd_set m_fdsetRecvResponse;  // guarded by m_pCritSec
    int m_fdmaxRecvResponse;     // guarded by m_pCritSec
    int m_fdsSendRequest[QVIPC_MAX_SLOTS];
    int m_fdsRecvResponse[QVIPC_MAX_SLOTS];
    int m_responsePipeSeen[QVIPC_MAX_SLOTS];
    fd_set m_fdsetRecvResponseReady;
    int m_maxResponseSlot;  // guarded by m_pCritSec
    int m_readyResponseCount;
    int m_nextResponseSlot;
    int m_adminResponsePipe[2];
    std::atomic<int> m_waitingConnectReply;
    unsigned long m_connectResult[QVIPC_MAX_SLOTS];
    std::atomic<int> m_inReceiveRequest;
    fd_set m_fdsetRecvRequest;  // guarded by m_pCritSec
    int m_fdmaxRecvRequest;     // guarded by m_pCritSec
    int m_fdsRecvRequest[QVIPC_MAX_SLOTS];
    int m_fdsSendResponse[QVIPC_MAX_SLOTS];
    int m_requestPipeSeen[QVIPC_MAX_SLOTS];
    fd_set m_fdsetRecvRequestReady;
    int m_maxRequestSlot;  // guarded by m_pCritSec
    int m_readyRequestCount;
    int m_nextRequestSlot;
    std::map<unsigned long, unsigned long> m_connectIdMap;
    uint64_t m_lastConnectAttempt[QVIPC_MAX_SLOTS];  // guarded by m_pCritSec
    unsigned long m_slotConnectId[QVIPC_MAX_SLOTS];
    unsigned long m_slotPid[QVIPC_MAX_SLOTS];
    std::atomic<int> m_connectThreadRunning;
    unsigned long m_serverPid;
};

#endif  // QVIPC_LIBRARY_LINUX_QVIPCLIBRARYIMPL_H_
