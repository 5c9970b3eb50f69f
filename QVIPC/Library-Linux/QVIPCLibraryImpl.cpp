// The endpoint itself: its construction, and the two waits every path shares. Nothing is made in
// the file system and no descriptor is opened here; that waits for initialize(). The SIGPIPE
// set-up lives in this translation unit so that it runs during the library's static
// initialisation, before any endpoint exists.
#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"

#include <cstdint>
#include <new>

#include "QVIPC/Library-Linux/IDGen.h"
#include "QVIPC/Library-Linux/PipeIO.h"
#include "QVIPC/Library-Linux/QVIPCTrace.h"
#include "common/LQException.h"
#include "platform/PCritSec.h"
#include "platform/Portable.h"

CPipeSigDisable g_pipesigDisable;

namespace {

constexpr uint32_t MAX_SERVER_SLOTS = QVIPC_MAX_SLOTS;
constexpr unsigned long CLIENT_SLOTS = 2;
constexpr unsigned long ID_STEP = 2;

template <typename T, int N>
void fillSlots(T (&array)[N], T value) {
    for (T& entry : array) entry = value;
}

}  // namespace

CQVIPCLibraryImpl::CQVIPCLibraryImpl(const std::string& title, const std::string& guid,
                                     int isServer, unsigned long maxConnections,
                                     unsigned long headerExtSize, unsigned long sto)
    : m_pPipeIO(nullptr),
      m_isServer(0),
      m_maxConnections(0),
      m_headerExtSize(0),
      m_sendTimeout(0),
      m_nextRequestId(0),
      m_pIDGen(nullptr),
      m_connectId(0),
      m_pCritSec(nullptr),
      m_initialized(0),
      m_connected(0),
      m_shutdown(0),
      m_inReceiveResponse(0),
      m_fdmaxRecvResponse(-1),
      m_maxResponseSlot(-1),
      m_readyResponseCount(-1),
      m_nextResponseSlot(0),
      m_waitingConnectReply(0),
      m_inReceiveRequest(0),
      m_fdmaxRecvRequest(-1),
      m_maxRequestSlot(-1),
      m_readyRequestCount(-1),
      m_nextRequestSlot(0),
      m_connectThreadRunning(0),
      m_serverPid(0),
      m_fdConnectAdmin(-1),
      m_bRequestEndsAdded(true) {
    // Every member has a safe value before the first step, so a throw below releases only what
    // exists. The designed values that depend on the arguments follow in the designed order.
    FD_ZERO(&m_fdsetRecvResponse);
    FD_ZERO(&m_fdsetRecvResponseReady);
    FD_ZERO(&m_fdsetRecvRequest);
    FD_ZERO(&m_fdsetRecvRequestReady);
    fillSlots(m_fdsSendRequest, -1);
    fillSlots(m_fdsRecvResponse, -1);
    fillSlots(m_responsePipeSeen, 0);
    m_adminResponsePipe[0] = -1;
    m_adminResponsePipe[1] = -1;
    fillSlots(m_connectResult, 0ul);
    fillSlots(m_fdsRecvRequest, -1);
    fillSlots(m_fdsSendResponse, -1);
    fillSlots(m_requestPipeSeen, 0);
    fillSlots(m_lastConnectAttempt, static_cast<uint64_t>(0));
    fillSlots(m_slotConnectId, 0ul);
    fillSlots(m_slotPid, 0ul);
    fillSlots(m_sendsInFlight, 0);
    fillSlots(m_readEndGenRequest, 0u);
    fillSlots(m_readEndGenResponse, 0u);

    CreateCTraceUtility(&g_ptu, "xprt", "ipc ", "Transport", 0, nullptr, 0, 40000);
    qvTrace("CQVIPCLibraryImpl::CQVIPCLibraryImpl (0x%08X), guid %s, isServer %d, sto %d",
            traceAddr(this), guid.c_str(), isServer, static_cast<int>(sto));

    // A constructor that throws gets no destructor: what it made so far is released here, so
    // that the trace utility's reference count and the descriptors stay balanced.
    try {
        m_strTitle = title;
        m_strGuid = guid;
        m_isServer = isServer;

        if (isServer != 0) {
            // 32-bit arithmetic on both targets: 0xFFFFFFFF wraps to 0 slots and is accepted.
            const uint32_t slots = static_cast<uint32_t>(maxConnections) + 1u;
            if (slots > MAX_SERVER_SLOTS) LQ_THROW(QVIPC_E_TOO_MANY_CLIENTS);
            m_maxConnections = slots;
        } else {
            m_maxConnections = CLIENT_SLOTS;
        }

        m_sendTimeout = sto;
        m_headerExtSize = headerExtSize;

        if (sto == QVIPC_NO_TIMEOUT) {
            m_pPipeIO = new (std::nothrow) CPIPEIOSynchronous(this);
        } else {
            m_pPipeIO = new (std::nothrow) CPIPEIOAsynchronous(this);
        }
        if (m_pPipeIO == nullptr) LQ_THROW(QVIPC_E_OUTOFMEMORY);

        m_nextRequestId = 1;

        // CIDGen throws E_FAIL as an unsigned long when its named objects cannot be made.
        m_pIDGen = new (std::nothrow) CIDGen(m_strGuid, ID_STEP);
        if (m_pIDGen == nullptr) LQ_THROW(QVIPC_E_OUTOFMEMORY);

        m_connectId = m_pIDGen->nextId();

        // Both are taken as signed 32-bit, as every FIFO name of the service spells them.
        char buf[34];
        m_strConnectId = CPortable::itoa(static_cast<int>(m_connectId), buf, 10);
        m_strPid = CPortable::itoa(static_cast<int>(CPortable::GetCurrentProcessId()), buf, 10);

        m_pCritSec = new (std::nothrow) CPCritSec("CQVIPCLibraryImpl", 1);
        if (m_pCritSec == nullptr) LQ_THROW(QVIPC_E_OUTOFMEMORY);

        m_initialized.store(0);
        m_connected.store(isServer);
        m_shutdown.store(0);
    } catch (...) {
        delete m_pIDGen;
        delete m_pPipeIO;
        DestroyCTraceUtility(&g_ptu);
        throw;
    }
}

QVRESULT CQVIPCLibraryImpl::waitInitialized() {
    while (m_initialized.load() == 0) {
        if (m_shutdown.load() != 0) return QVIPC_E_SHUTDOWN;
        CPortable::Sleep(POLL_INTERVAL_MS);
    }
    return S_OK;
}

bool CQVIPCLibraryImpl::sleepUnlessShutdown(unsigned long ms) {
    constexpr unsigned long SLICE_MS = 100;
    for (unsigned long slept = 0; slept < ms; slept += SLICE_MS) {
        if (m_shutdown.load() != 0) return false;
        CPortable::Sleep(ms - slept < SLICE_MS ? ms - slept : SLICE_MS);
    }
    return m_shutdown.load() == 0;
}
