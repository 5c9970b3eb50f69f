// Descriptors: closing once, and the poll probes.
#include "platform/FdGuard.h"

#include <poll.h>
#include <unistd.h>

#include "platform/AtomicWord.h"

void closeFd(int& fd) {
    const int taken = atomicExchange(&fd, -1);
    if (taken != -1) ::close(taken);
}

short readEventsNow(int fd) {
    pollfd p;
    p.fd = fd;
    p.events = POLLIN;
    p.revents = 0;
    const int n = retryOnEintr([&p] { return ::poll(&p, 1, 0); });
    return n == 1 ? p.revents : 0;
}

bool isReadable(int fd) {
    const short ev = readEventsNow(fd);
    return ev != 0 && (ev & POLLNVAL) == 0;
}
