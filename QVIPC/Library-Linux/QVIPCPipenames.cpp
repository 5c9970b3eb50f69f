// The FIFO paths of a service: the rendezvous of server and clients, built on both sides from
// the same inputs. The title plays no part.
#include <unistd.h>

#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"

std::string CQVIPCLibraryImpl::pipenameServerAdmin() const {
    return "/tmp/" + m_strGuid + "-svr-admin";
}

std::string CQVIPCLibraryImpl::pipenameServerRequest(const std::string& connectId,
                                                     const std::string& pid) const {
    return "/tmp/" + m_strGuid + "-svr-req-" + connectId + "-p" + pid;
}

std::string CQVIPCLibraryImpl::pipenameServerResponse(const std::string& connectId,
                                                      const std::string& pid) const {
    return "/tmp/" + m_strGuid + "-svr-rsp-" + connectId + "-p" + pid;
}

std::string CQVIPCLibraryImpl::pipenameClientRequest(const std::string& connectId,
                                                     const std::string& pid) const {
    return "/tmp/" + m_strGuid + "-cli-req-" + connectId + "-p" + pid;
}

std::string CQVIPCLibraryImpl::pipenameClientResponse(const std::string& connectId,
                                                      const std::string& pid) const {
    return "/tmp/" + m_strGuid + "-cli-rsp-" + connectId + "-p" + pid;
}

void CQVIPCLibraryImpl::cleanupPipenames() {
    if (m_isServer != 0) return;
    // The paths stay in the registry; its unlink at exit then fails harmlessly.
    unlink(pipenameServerRequest(m_strConnectId, m_strPid).c_str());
    unlink(pipenameServerResponse(m_strConnectId, m_strPid).c_str());
    unlink(pipenameClientRequest(m_strConnectId, m_strPid).c_str());
    unlink(pipenameClientResponse(m_strConnectId, m_strPid).c_str());
}
