// CPSharedMemory over a file in /dev/shm mapped shared. The file outlives the processes, so a
// block keeps its content until someone removes the file.
#include "platform/PSharedMemory.h"

#include <sys/mman.h>
#include <unistd.h>

#include "platform/NamedObject.h"

CPSharedMemory::CPSharedMemory(const std::string& name, unsigned long size)
    : m_pAddress(nullptr), m_size(size), m_creator(0) {
    if (size == 0) return;
    int created = 0;
    const int fd = openNamedObjectFile(sharedMemoryPath(name), &created);
    if (fd < 0) return;
    // The size by lseek rather than fstat: a 32-bit fstat fails with EOVERFLOW on a file
    // system with 64-bit inode numbers.
    const off_t end = lseek(fd, 0, SEEK_END);
    bool ok = end != static_cast<off_t>(-1);
    // Only ever grown: a file shorter than the block (just created, or made by a smaller
    // block of the same name) would fault on access past its end. Growing fills with zeros
    // and leaves what is there.
    if (ok && static_cast<unsigned long long>(end) < size) {
        ok = ftruncate(fd, static_cast<off_t>(size)) == 0;
    }
    if (ok) {
        void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (p != MAP_FAILED) {
            m_pAddress = p;
            m_creator = created;
        }
    }
    close(fd);  // the mapping stays valid without it
}

CPSharedMemory::~CPSharedMemory() {
    if (m_pAddress != nullptr) munmap(m_pAddress, m_size);
}

void* CPSharedMemory::getAddress() const { return m_pAddress; }

int CPSharedMemory::isCreator() const { return m_creator; }
