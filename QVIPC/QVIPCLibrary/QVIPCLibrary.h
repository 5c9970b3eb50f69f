// Public: CQVIPCLibrary, one endpoint (server or client) of a service named by a guid. A thin
// facade over CQVIPCLibraryImpl. Any thread may call any operation; see README for the model.
#ifndef QVIPC_QVIPCLIBRARY_QVIPCLIBRARY_H_
#define QVIPC_QVIPCLIBRARY_QVIPCLIBRARY_H_

#include <string>

#include "QVIPC/QVIPCLibrary/QVIPCErrors.h"
#include "common/LQException.h"
#include "common/QVExport.h"

class CQVIPCLibraryImpl;
namespace JSON {
class Serialize;
}

class QV_API CQVIPCLibrary {
public:
    // Throws LQException: QVIPC_E_HEADER_EXT_SIZE (headerExtSize > 48),
    // QVIPC_E_TOO_MANY_CLIENTS (server, maxConnections + 1 > 64 in 32-bit arithmetic),
    // QVIPC_E_OUTOFMEMORY. guid is lower-cased and cut to 63 characters. sto is the send
    // time-out in seconds, 0xFFFFFFFF for none.
    CQVIPCLibrary(const std::string& title, const std::string& guid, int isServer,
                  unsigned long maxConnections, unsigned long headerExtSize, unsigned long sto);
    ~CQVIPCLibrary();
    CQVIPCLibrary(const CQVIPCLibrary&) = delete;
    CQVIPCLibrary& operator=(const CQVIPCLibrary&) = delete;

    QVRESULT initialize();
    QVRESULT finalize();

    // ipcid: the client's slot on the server, 0 on a client. *pRequestId receives the id.
    QVRESULT sendRequest(unsigned long ipcid, const char* buf, unsigned long len,
                         unsigned long* pRequestId, int requestType, const char* headerExt);
    // On S_OK *ppBuf is new[]-allocated, exactly *pLen bytes, no NUL (null when *pLen is 0);
    // the caller delete[]s it. headerExt, when not null, receives headerExtSize bytes.
    QVRESULT receiveRequest(unsigned long* pIpcid, unsigned long* pRequestId, char** ppBuf,
                            unsigned long* pLen, int* pRequestType, char* headerExt);
    QVRESULT sendResponse(unsigned long ipcid, unsigned long requestId, const char* buf,
                          unsigned long len, const char* headerExt);
    QVRESULT receiveResponse(unsigned long* pIpcid, char** ppBuf, unsigned long* pLen,
                             unsigned long* pRequestId, char* headerExt);

    void dump(const std::string& command);
    JSON::Serialize& dumpToJSONBuffer(JSON::Serialize& writer);

private:
    CQVIPCLibraryImpl* m_pImpl;
    int m_isServer;
};

#endif  // QVIPC_QVIPCLIBRARY_QVIPCLIBRARY_H_
