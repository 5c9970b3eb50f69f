// CPCritSec over a recursive std::mutex: one thread may enter again what it already holds.
#include "platform/PCritSec.h"

CPCritSec::CPCritSec(const char* name, int /*recursive*/)
    : m_strName(name != nullptr ? name : "") {}

CPCritSec::~CPCritSec() = default;

void CPCritSec::enter(int /*line*/) { m_mutex.lock(); }

void CPCritSec::leave(int /*line*/) { m_mutex.unlock(); }
