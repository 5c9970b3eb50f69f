// CIDGen: the connect-id counter of one service, shared by every process that uses the same
// name. An 8-byte native-order counter in named shared memory, guarded by a named mutex; the
// block's creator sets it to 1.
#ifndef QVIPC_LIBRARY_LINUX_IDGEN_H_
#define QVIPC_LIBRARY_LINUX_IDGEN_H_

#include <cstdint>
#include <string>

class CPMutex;
class CPSharedMemory;

class CIDGen {
public:
    // Opens or creates name + "-IDGENMTX" and name + "-IDGENSHMEM" (8 bytes). Throws E_FAIL
    // (0x80004005) as an unsigned long when either cannot be made.
    CIDGen(const std::string& name, unsigned long step);
    // Deletes the mutex object, then the shared-memory object.
    ~CIDGen();
    CIDGen(const CIDGen&) = delete;
    CIDGen& operator=(const CIDGen&) = delete;

    // Draws an id under the mutex: returns the counter's low 32 bits and adds step to it.
    unsigned long nextId();

    uint64_t* m_pCounter;             // the shared counter: the next id to hand out
    unsigned long m_step;             // added to the counter per id drawn
    CPMutex* m_pMutex;                // owning; guards *m_pCounter across processes
    CPSharedMemory* m_pSharedMemory;  // owning; the block that holds the counter
};

#endif  // QVIPC_LIBRARY_LINUX_IDGEN_H_
