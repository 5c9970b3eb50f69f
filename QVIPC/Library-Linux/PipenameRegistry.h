// CPipenameRegistry: the FIFO paths this process made, unlinked when the process exits normally
// (or the library is unloaded). One per process: g_pipenameRegistry.
#ifndef QVIPC_LIBRARY_LINUX_PIPENAMEREGISTRY_H_
#define QVIPC_LIBRARY_LINUX_PIPENAMEREGISTRY_H_

#include <string>
#include <vector>

#include "platform/PCritSec.h"

class CPipenameRegistry {
public:
    CPipenameRegistry();
    // Unlinks every registered path, in the order added; failures are ignored.
    ~CPipenameRegistry();
    CPipenameRegistry(const CPipenameRegistry&) = delete;
    CPipenameRegistry& operator=(const CPipenameRegistry&) = delete;

    // Appends a copy of path; duplicates stay.
    void add(const std::string& path);

    CPCritSec m_critSec;
    std::vector<std::string> m_pipenames GUARDED_BY(m_critSec);  // in the order made
};

extern CPipenameRegistry g_pipenameRegistry;

#endif  // QVIPC_LIBRARY_LINUX_PIPENAMEREGISTRY_H_
