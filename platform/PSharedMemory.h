// CPSharedMemory: a block of memory named system-wide, created zero-filled when absent. Backed
// by the file /dev/shm/<name> (the name made file-safe by namedObjectFileName), which keeps the
// content after the last user has gone, until someone removes it. Its layout is the caller's;
// the same bytes are seen by 32-bit and 64-bit processes.
#ifndef PLATFORM_PSHAREDMEMORY_H_
#define PLATFORM_PSHAREDMEMORY_H_

#include <string>

class CPSharedMemory {
public:
    CPSharedMemory(const std::string& name, unsigned long size);
    ~CPSharedMemory();
    CPSharedMemory(const CPSharedMemory&) = delete;
    CPSharedMemory& operator=(const CPSharedMemory&) = delete;

    // The block's address in this process; null when it could not be opened or mapped.
    void* getAddress() const;
    // Nonzero when this object created the block.
    int isCreator() const;

private:
    void* m_pAddress;
    unsigned long m_size;
    int m_creator;
};

#endif  // PLATFORM_PSHAREDMEMORY_H_
