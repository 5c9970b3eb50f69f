// The diagnostics dump: the endpoint's configuration and live connections as one JSON object,
// and the "reconn" command. The JSON dump is made under m_pCritSec, so it shows one moment.
#include <cstdint>
#include <vector>

#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "QVIPC/Library-Linux/QVIPCTrace.h"
#include "QVIPC/Library-Linux/SlotWords.h"
#include "json/JSONSerialize.h"
#include "platform/PCritSec.h"
#include "platform/Portable.h"

namespace {

// Numbers are dumped as signed 32-bit on both targets, so a connect id of 2^31 or more prints
// negative on x86-64 as it does on i686.
long signed32(unsigned long value) {
    return static_cast<long>(static_cast<int32_t>(static_cast<uint32_t>(value)));
}

// A "pipe-name-" member, then its "pipe-handle-" member when the descriptor is open.
void writePipe(JSON::Serialize& w, const char* nameKey, const std::string& path,
               const char* handleKey, const int& fdEntry) {
    w.N(nameKey).V(path.c_str());
    const int fd = loadFd(&fdEntry);
    if (fd != -1) w.N(handleKey).V(fd);
}

// Slots below the slot count and within the arrays: a wrapped count of 0 has none.
unsigned long slotLimit(unsigned long maxConnections) {
    return maxConnections < static_cast<unsigned long>(QVIPC_MAX_SLOTS)
               ? maxConnections
               : static_cast<unsigned long>(QVIPC_MAX_SLOTS);
}

}  // namespace

JSON::Serialize& CQVIPCLibraryImpl::dumpToJSONBuffer(JSON::Serialize& w) {
    CCritSecLock lock(m_pCritSec, __LINE__);
    w.OO();
    w.N("title").V(m_strTitle.c_str());
    w.N("guid").V(m_strGuid.c_str());
    w.N("is-server").V(m_isServer);
    w.N("max-connections").V(signed32(m_maxConnections));
    w.N("header-ext-size").V(signed32(m_headerExtSize));
    w.N("connect-id").V(signed32(m_connectId));
    w.N("next-request-id").V(signed32(loadWord(&m_nextRequestId)));
    w.N("connection-array").AO();
    const unsigned long slots = slotLimit(m_maxConnections);
    for (unsigned long s = 0; s < slots; ++s) {
        const unsigned long pid = loadWord(&m_slotPid[s]);
        if (pid == 0) continue;
        // The texts that name the slot's FIFOs everywhere else: signed 32-bit decimals.
        char c[34];
        char p[34];
        CPortable::itoa(static_cast<int>(loadWord(&m_slotConnectId[s])), c, 10);
        CPortable::itoa(static_cast<int>(pid), p, 10);
        w.OO();
        w.N("pid").V(signed32(m_isServer != 0 ? pid : loadWord(&m_serverPid)));
        writePipe(w, "pipe-name-recv-req", pipenameServerRequest(c, p), "pipe-handle-recv-req",
                  m_fdsRecvRequest[s]);
        writePipe(w, "pipe-name-send-rsp", pipenameServerResponse(c, p), "pipe-handle-send-rsp",
                  m_fdsSendResponse[s]);
        writePipe(w, "pipe-name-send-req", pipenameClientRequest(c, p), "pipe-handle-send-req",
                  m_fdsSendRequest[s]);
        writePipe(w, "pipe-name-recv-rsp", pipenameClientResponse(c, p), "pipe-handle-recv-rsp",
                  m_fdsRecvResponse[s]);
        w.OC();
    }
    w.AC();
    w.OC();
    return w;
}

void CQVIPCLibraryImpl::dump(const std::string& command) {
    qvLogNotice("--dumpIPC \"%s\" - \"%s\"", command.c_str(), m_strTitle.c_str());
    if (command != "reconn" || m_maxConnections <= 1) return;
    // The slots are chosen first: enableClientReconnect closes descriptors as it goes.
    std::vector<unsigned long> live;
    const unsigned long slots = slotLimit(m_maxConnections);
    for (unsigned long s = 1; s < slots; ++s) {
        if (loadFd(&m_fdsRecvResponse[s]) != -1) live.push_back(s);
    }
    for (unsigned long s : live) {
        qvLogNotice("--dumpIPC, calling enableClientReconnect(%d)", static_cast<int>(s));
        enableClientReconnect(s);
    }
}
