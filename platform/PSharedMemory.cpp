// CPSharedMemory over a file in /dev/shm mapped shared. The file outlives the processes, so a
// block keeps its content until someone removes the file.
#include "platform/PSharedMemory.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/NamedObject.h"

CPSharedMemory::CPSharedMemory(const std::string& name, unsigned long size)
    : m_pAddress(nullptr), m_size(size), m_creator(0) {
    if (size == 0) return;
    int created = 0;
    const int fd = openNamedObjectFile(sharedMemoryPath(name), &created);
    if (fd < 0) return;
    struct stat st;
    bool ok = fstat(fd, &st) == 0;
    // Only ever grown: a file shorter than the block (just created, or made by a smaller
    // block of the same name) would fault on access past its end. Growing fills with zeros
    // and leaves what is there.
    if (ok && static_cast<unsigned long long>(st.st_size) < size) {
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
