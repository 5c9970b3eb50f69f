// CQVIPCLibraryImpl: all state of one endpoint, and what m_pCritSec guards (GUARDED_BY below).
// The members keep their designed names, types and order; the flags that threads share are
// std::atomic<int>. The methods are spread over this folder, one file per concern: start-up,
// shutdown, request path, response path, admin handling, connect thread, reconnect, dump.
#ifndef QVIPC_LIBRARY_LINUX_QVIPCLIBRARYIMPL_H_
#define QVIPC_LIBRARY_LINUX_QVIPCLIBRARYIMPL_H_

#include <sys/select.h>
#include <sys/uio.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "QVIPC/Library-Linux/QVIPCDefs.h"
#include "QVIPC/Library-Linux/ReadAhead.h"
#include "QVIPC/QVIPCLibrary/QVIPCErrors.h"
#include "platform/PCritSec.h"

class CPIPEIOBase;
class CIDGen;
class CFdGuard;
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
    QVRESULT receiveResponseServer(unsigned long* pIpcid, char** ppBuf, unsigned long* pLen,
                                   unsigned long* pRequestId, char* headerExt);
    QVRESULT receiveResponseClient(unsigned long* pIpcid, char** ppBuf, unsigned long* pLen,
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

    // ---- Helpers of the transport (not part of the designed interface). ----
    // Waits until initialize() has run; QVIPC_E_SHUTDOWN when finalize() comes first.
    QVRESULT waitInitialized();
    // Sleeps ms in short slices; false when m_shutdown was set meanwhile.
    bool sleepUnlessShutdown(unsigned long ms);

    // The server's select() cycle of one side (requests, or responses): the next slot whose
    // read end is ready, a new select() on a copy of the master set when the cycle is used up
    // (a failed select() is logged and made again). Returns the slot, or -1 when m_shutdown
    // ends the wait.
    int nextServerSlot(bool requestSide);
    // Copies one side's master set and highest descriptor under m_pCritSec into its ready set
    // and selects on the copy, without a time-out, or only looking with noWait; returns
    // select()'s result, *pErr its errno.
    int selectOnCopy(bool requestSide, int* pErr, bool noWait);
    // Advances a select() cycle to the next slot (up to maxSlot) whose descriptor in fds is
    // ready and still readable (or has bytes read ahead in aheads, of the FIFO that generations
    // names), and returns it; -1 when the cycle is used up, the cursor then being 0 so that the
    // caller selects again. current: no descriptor has entered fds since the cycle's select(),
    // so a ready slot is taken as it stands.
    static int nextReadySlot(int* pCursor, int* pReadyCount, const fd_set& ready, const int* fds,
                             const unsigned* generations, const CReadAhead* aheads, int maxSlot,
                             bool current);
    // Whether the calling thread is the one inside this server's receiveRequest.
    bool onRequestReceiver() const;

    // Server admin handling of one CONNECT or DISCONNECT record.
    QVRESULT adminConnect(uint32_t requestId, uint32_t connectId, uint32_t pid,
                          unsigned long* pSlot);
    QVRESULT adminDisconnect(uint32_t connectId, uint32_t pid);
    // The slot that m_connectIdMap gives a connect id; false when it has none.
    bool slotOfConnectId(uint32_t connectId, unsigned long* pSlot);

    // Frees a server slot, on any thread: under m_pCritSec its four descriptors leave the
    // arrays and both descriptor sets, its entry leaves m_connectIdMap and, with forgetPeer,
    // its peer's connect id and pid are cleared; the descriptors are closed afterwards. A read
    // end that a receiver inside its call may still use is left to that receiver
    // (m_fdsDeferredCloseRequest, m_fdsDeferredCloseResponse).
    void closeServerSlot(unsigned long slot, bool forgetPeer);
    // Closes a write end taken out of its slot entry once no sender is still using it.
    void closeWriteEnd(int fd, unsigned long slot);
    // Rebuilds a master set and its highest descriptor from the open read ends in fds of the
    // slots 0 to maxSlot. Called with m_pCritSec held, on the members it guards.
    static void rebuildSet(fd_set& set, int& fdmax, const int* fds, int maxSlot);
    // Closes what one of the deferred lists holds. Called by the receiver the list belongs to,
    // after its select(), or by finalize.
    void closeDeferredFds(std::vector<int>* pList);
    // Writes the 68-byte all-zero record that makes the response receiver take a fresh set.
    void wakeResponseReceiver();
    // Take the descriptor out of a slot entry under m_pCritSec, leaving -1; the first hands it
    // to the caller, the second closes it. (A pointer: the entry is GUARDED_BY, and the lock is
    // taken inside.)
    int takeEntry(int* pEntry);
    void closeEntry(int* pEntry);

    // Client connect thread steps: make the read ends, one connect attempt, its clean-up,
    // publishing the connection.
    bool makeClientReadEnds();
    int reopenClientReadEnd(const std::string& path, int old);
    void releaseClientReadEnds();
    void dropClientWriteEnds();
    QVRESULT openClientWriteEnd(const std::string& path, bool requestFifo);
    QVRESULT connectAttempt(CFdGuard* pFdSendAdmin, bool* pRefused);
    void failedConnectAttempt(CFdGuard* pFdSendAdmin);
    void publishConnection();

    // ---- Members, in their designed order. ----
    // GUARDED_BY(m_pCritSec): written only while it is held, which a clang -Wthread-safety
    // build checks. The slot tables and highest-slot values are also read without it, by
    // design, through the atomic loads of SlotWords.h. Who writes what: docs/threads.md.
    CPIPEIOBase* m_pPipeIO;
    std::string m_strTitle;
    std::string m_strGuid;
    int m_isServer;
    unsigned long m_maxConnections;
    unsigned long m_headerExtSize;
    unsigned long m_sendTimeout;
    unsigned long m_nextRequestId;  // any sender draws from it: fetchIncrement
    CIDGen* m_pIDGen;
    unsigned long m_connectId;
    std::string m_strConnectId;
    std::string m_strPid;
    CPCritSec* m_pCritSec;
    std::atomic<int> m_initialized;
    std::atomic<int> m_connected;
    std::atomic<int> m_shutdown;
    std::atomic<int> m_inReceiveResponse;
    fd_set m_fdsetRecvResponse GUARDED_BY(m_pCritSec);
    int m_fdmaxRecvResponse GUARDED_BY(m_pCritSec);
    int m_fdsSendRequest[QVIPC_MAX_SLOTS] GUARDED_BY(m_pCritSec);
    int m_fdsRecvResponse[QVIPC_MAX_SLOTS] GUARDED_BY(m_pCritSec);
    int m_responsePipeSeen[QVIPC_MAX_SLOTS];  // the response reader's own
    fd_set m_fdsetRecvResponseReady;          // the response receiver's own, as the two below
    int m_maxResponseSlot GUARDED_BY(m_pCritSec);
    int m_readyResponseCount;
    int m_nextResponseSlot;
    int m_adminResponsePipe[2];  // start-up makes it, finalize closes it
    std::atomic<int> m_waitingConnectReply;
    unsigned long m_connectResult[QVIPC_MAX_SLOTS];  // loadWord / storeWord
    std::atomic<int> m_inReceiveRequest;
    fd_set m_fdsetRecvRequest GUARDED_BY(m_pCritSec);
    int m_fdmaxRecvRequest GUARDED_BY(m_pCritSec);
    int m_fdsRecvRequest[QVIPC_MAX_SLOTS] GUARDED_BY(m_pCritSec);
    int m_fdsSendResponse[QVIPC_MAX_SLOTS] GUARDED_BY(m_pCritSec);
    int m_requestPipeSeen[QVIPC_MAX_SLOTS];  // the request reader's own
    fd_set m_fdsetRecvRequestReady;          // the request receiver's own, as the two below
    int m_maxRequestSlot GUARDED_BY(m_pCritSec);
    int m_readyRequestCount;
    int m_nextRequestSlot;
    std::map<unsigned long, unsigned long> m_connectIdMap GUARDED_BY(m_pCritSec);
    uint64_t m_lastConnectAttempt[QVIPC_MAX_SLOTS] GUARDED_BY(m_pCritSec);
    unsigned long m_slotConnectId[QVIPC_MAX_SLOTS] GUARDED_BY(m_pCritSec);
    unsigned long m_slotPid[QVIPC_MAX_SLOTS] GUARDED_BY(m_pCritSec);
    std::atomic<int> m_connectThreadRunning;
    unsigned long m_serverPid;  // loadWord / storeWord

    // Server: read ends of freed slots that a receiver may still be using: the response
    // receiver's, and the request receiver's when another thread freed the slot. Each receiver
    // closes its own after its next select() (finalize closes what is left), so no thread
    // closes a descriptor another thread is reading.
    std::vector<int> m_fdsDeferredCloseRequest GUARDED_BY(m_pCritSec);
    std::vector<int> m_fdsDeferredCloseResponse GUARDED_BY(m_pCritSec);
    // Per slot, the senders (sendRequest, sendResponse) between loading a write descriptor and
    // the end of their write. A thread that closes a slot's write ends takes them out of the
    // arrays first and waits for this count to drop, so a sender never writes into a
    // descriptor number that was closed and reused meanwhile (a request into the wrong FIFO).
    int m_sendsInFlight[QVIPC_MAX_SLOTS];  // CSendGuard, loadInt
    // Client: the connect thread's write end on the admin FIFO while it waits for the connect
    // reply, else -1. The reply wait watches it: once no process reads the admin FIFO, the
    // server that took the CONNECT is gone and no reply will come. Connect thread only.
    int m_fdConnectAdmin;

    // ---- Read-ahead of the data FIFOs (ReadAhead.h); slot 0 has none. ----
    // Per slot, the bytes read from a read end beyond the frame being read: the request
    // reader's own, and the response reader's (on a client slot 1's also the connect thread's,
    // which never reads at once with the response reader).
    CReadAhead m_readAheadRequest[QVIPC_MAX_SLOTS];
    CReadAhead m_readAheadResponse[QVIPC_MAX_SLOTS];
    // Per slot, the generation of the FIFO in m_fdsRecvRequest and m_fdsRecvResponse: counts
    // the FIFOs put there (storeReadEnd), read lock-free with loadReadEnd. Held bytes of an
    // earlier generation belong to a FIFO that is gone, and are dropped.
    unsigned m_readEndGenRequest[QVIPC_MAX_SLOTS] GUARDED_BY(m_pCritSec);
    unsigned m_readEndGenResponse[QVIPC_MAX_SLOTS] GUARDED_BY(m_pCritSec);

    // The read end of a slot on one side in *pFd and its read-ahead, which then holds no byte
    // of an earlier FIFO of the slot. Called by the thread that reads the slot.
    CReadAhead& readAheadOf(bool requestSide, unsigned long slot, int* pFd);
    // Adds the ready descriptors that select() cannot see to one side's ready set: the slots
    // (1 to maxSlot) whose read-ahead holds bytes, as if those were still in their FIFOs.
    // Returns how many were added.
    int addReadAheadToReady(bool requestSide, fd_set* ready);
    // Whether any slot of one side (1 to its highest slot) holds bytes read ahead.
    bool anyReadAhead(bool requestSide) const;

    // The request receiver's own: its admin handling stored a new read end in the request table
    // since the cycle's select(), so the cycle's ready set may name a reused number.
    bool m_bRequestEndsAdded;
};

#endif  // QVIPC_LIBRARY_LINUX_QVIPCLIBRARYIMPL_H_
