// The facade: checks the header-extension size, normalises the guid, owns the implementation
// and forwards every call to it.
#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"

#include <cstring>
#include <new>

#include "QVIPC/Library-Linux/QVIPCDefs.h"
#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "platform/Portable.h"

namespace {

constexpr size_t GUID_BUFFER_SIZE = 64;  // 63 characters and the NUL

}  // namespace

CQVIPCLibrary::CQVIPCLibrary(const std::string& title, const std::string& guid, int isServer,
                             unsigned long maxConnections, unsigned long headerExtSize,
                             unsigned long sto)
    : m_pImpl(nullptr), m_isServer(0) {
    // Checked before anything exists: no trace utility, no shared objects.
    if (headerExtSize > static_cast<unsigned long>(QVIPC_MAX_HEADER_EXT)) {
        LQ_THROW(QVIPC_E_HEADER_EXT_SIZE);
    }

    // As a C string: a guid with an embedded NUL ends there.
    char buf[GUID_BUFFER_SIZE];
    std::memset(buf, 0, sizeof(buf));
    std::strncpy(buf, guid.c_str(), GUID_BUFFER_SIZE - 1);
    buf[GUID_BUFFER_SIZE - 1] = '\0';
    CPortable::strlwr(buf);
    const std::string lowered(buf);

    // An exception from the constructor frees the memory and propagates.
    m_pImpl = new (std::nothrow)
        CQVIPCLibraryImpl(title, lowered, isServer, maxConnections, headerExtSize, sto);
    if (m_pImpl == nullptr) LQ_THROW(QVIPC_E_OUTOFMEMORY);
    m_isServer = isServer;
}

CQVIPCLibrary::~CQVIPCLibrary() {
    if (m_pImpl != nullptr) delete m_pImpl;
}

QVRESULT CQVIPCLibrary::initialize() { return m_pImpl->initialize(); }

QVRESULT CQVIPCLibrary::finalize() { return m_pImpl->finalize(); }

QVRESULT CQVIPCLibrary::sendRequest(unsigned long ipcid, const char* buf, unsigned long len,
                                    unsigned long* pRequestId, int requestType,
                                    const char* headerExt) {
    return m_pImpl->sendRequest(ipcid, buf, len, pRequestId, requestType, headerExt);
}

QVRESULT CQVIPCLibrary::receiveRequest(unsigned long* pIpcid, unsigned long* pRequestId,
                                       char** ppBuf, unsigned long* pLen, int* pRequestType,
                                       char* headerExt) {
    if (m_isServer != 0) {
        return m_pImpl->receiveRequestPrimaryServer(pIpcid, pRequestId, ppBuf, pLen, pRequestType,
                                                    headerExt);
    }
    return m_pImpl->receiveRequestSecondaryServer(pIpcid, pRequestId, ppBuf, pLen, pRequestType,
                                                  headerExt);
}

QVRESULT CQVIPCLibrary::sendResponse(unsigned long ipcid, unsigned long requestId, const char* buf,
                                     unsigned long len, const char* headerExt) {
    return m_pImpl->sendResponse(ipcid, requestId, buf, len, headerExt);
}

QVRESULT CQVIPCLibrary::receiveResponse(unsigned long* pIpcid, char** ppBuf, unsigned long* pLen,
                                        unsigned long* pRequestId, char* headerExt) {
    return m_pImpl->receiveResponse(pIpcid, ppBuf, pLen, pRequestId, headerExt);
}

void CQVIPCLibrary::dump(const std::string& command) { m_pImpl->dump(command); }

JSON::Serialize& CQVIPCLibrary::dumpToJSONBuffer(JSON::Serialize& writer) {
    return m_pImpl->dumpToJSONBuffer(writer);
}
