// CIDGen: the named mutex is held while the block is opened and initialised, so a process that
// opens an existing block never reads the counter before its creator has set it.
#include "QVIPC/Library-Linux/IDGen.h"

#include <new>

#include "QVIPC/QVIPCLibrary/QVIPCErrors.h"
#include "platform/PMutex.h"
#include "platform/PSharedMemory.h"

CIDGen::CIDGen(const std::string& name, unsigned long step)
    : m_pCounter(nullptr), m_step(step), m_pMutex(nullptr), m_pSharedMemory(nullptr) {
    // A mutex whose lock file cannot be opened counts as not made.
    m_pMutex = new (std::nothrow) CPMutex(1, 0, name + "-IDGENMTX", 0, 1);
    if (m_pMutex == nullptr || !m_pMutex->isValid() ||
        m_pMutex->wait(QVIPC_NO_TIMEOUT, nullptr) != 0) {
        delete m_pMutex;
        throw static_cast<unsigned long>(E_FAIL);
    }
    // Likewise a block that cannot be mapped.
    m_pSharedMemory = new (std::nothrow) CPSharedMemory(name + "-IDGENSHMEM", sizeof(uint64_t));
    if (m_pSharedMemory == nullptr || m_pSharedMemory->getAddress() == nullptr) {
        delete m_pSharedMemory;
        m_pMutex->release();
        delete m_pMutex;
        throw static_cast<unsigned long>(E_FAIL);
    }
    m_pCounter = static_cast<uint64_t*>(m_pSharedMemory->getAddress());
    if (m_pSharedMemory->isCreator() != 0) *m_pCounter = 1;
    m_pMutex->release();
}

CIDGen::~CIDGen() {
    delete m_pMutex;
    delete m_pSharedMemory;
}

unsigned long CIDGen::nextId() {
    const bool locked = m_pMutex->wait(QVIPC_NO_TIMEOUT, nullptr) == 0;
    const uint64_t value = *m_pCounter;
    *m_pCounter = value + static_cast<uint64_t>(m_step);
    if (locked) m_pMutex->release();
    // Connect ids are 32-bit on the wire, whatever the width of unsigned long.
    return static_cast<unsigned long>(static_cast<uint32_t>(value));
}
