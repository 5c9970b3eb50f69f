// The process's registry of FIFO paths; built when the library loads, emptied at exit.
#include "QVIPC/Library-Linux/PipenameRegistry.h"

#include <unistd.h>

CPipenameRegistry g_pipenameRegistry;

CPipenameRegistry::CPipenameRegistry() : m_critSec("", 1) {}

CPipenameRegistry::~CPipenameRegistry() {
    m_critSec.enter(__LINE__);
    for (const std::string& path : m_pipenames) unlink(path.c_str());
    m_critSec.leave(__LINE__);
}

void CPipenameRegistry::add(const std::string& path) {
    CCritSecLock lock(&m_critSec, __LINE__);
    m_pipenames.push_back(path);
}
