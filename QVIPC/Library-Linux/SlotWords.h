// The words that an endpoint's threads share without holding m_pCritSec (descriptor entries,
// highest-slot values, peer words, the request id counter), read and written only through
// these atomic helpers; and CSendGuard, which counts the senders inside a slot.
#ifndef QVIPC_LIBRARY_LINUX_SLOTWORDS_H_
#define QVIPC_LIBRARY_LINUX_SLOTWORDS_H_

#include <sched.h>

#include "platform/AtomicWord.h"

// The members keep their designed plain types; every access from more than one thread is
// atomic, sequentially consistent. Loads take a pointer and stores a reference, on purpose:
// the slot tables and highest-slot values are GUARDED_BY(m_pCritSec), and clang's analysis
// insists on the lock wherever such a member is passed by reference, so no write gets past it
// unlocked; the lock-free reads are by design (docs/threads.md), and a pointer lets them pass.

inline int loadInt(const int* word) { return atomicLoad(word); }
inline void storeInt(int& word, int value) { atomicStore(&word, value); }

// A descriptor entry: -1 for closed.
inline int loadFd(const int* entry) { return loadInt(entry); }
inline void storeFd(int& entry, int fd) { storeInt(entry, fd); }
// Takes the descriptor out of the entry, leaving -1; the caller closes what it got.
inline int takeFd(int& entry) { return atomicExchange(&entry, -1); }

// A data FIFO's read end and the count of FIFOs that entered its entry, the generation, which
// a reader's read-ahead is tagged with. The generation is odd while a new FIFO is being put in,
// so a reader that finds it even and unchanged around its load of the entry knows which FIFO
// the descriptor is. The store is made under m_pCritSec, like every entry write.
inline void storeReadEnd(int& entry, unsigned& generation, int fd) {
    atomicStore(&generation, atomicLoad(&generation) + 1);
    storeFd(entry, fd);
    atomicStore(&generation, atomicLoad(&generation) + 1);
}
inline int loadReadEnd(const int* entry, const unsigned* generation, unsigned* pGeneration) {
    for (;;) {
        const unsigned before = atomicLoad(generation);
        const int fd = loadFd(entry);
        if ((before & 1u) == 0 && atomicLoad(generation) == before) {
            *pGeneration = before;
            return fd;
        }
        sched_yield();  // the writer holds the lock for a moment only
    }
}

inline unsigned long loadWord(const unsigned long* word) { return atomicLoad(word); }
inline void storeWord(unsigned long& word, unsigned long value) { atomicStore(&word, value); }
// Adds one and returns the value before: two threads never get the same one.
inline unsigned long fetchIncrement(unsigned long& word) { return atomicFetchAdd(&word, 1ul); }

// Counts one sender in a slot for as long as it lives (m_sendsInFlight): whoever closes the
// slot's write ends takes them out of the entries first, then waits for the count to drop.
class CSendGuard {
public:
    explicit CSendGuard(int& count) : m_count(count) { atomicFetchAdd(&m_count, 1); }
    ~CSendGuard() { atomicFetchAdd(&m_count, -1); }
    CSendGuard(const CSendGuard&) = delete;
    CSendGuard& operator=(const CSendGuard&) = delete;

private:
    int& m_count;
};

#endif  // QVIPC_LIBRARY_LINUX_SLOTWORDS_H_
