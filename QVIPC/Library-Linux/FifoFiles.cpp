// FIFOs in /tmp, checked for their kind on the descriptor that was opened, so that a name
// swapped between the check and the use cannot be used.
#include "QVIPC/Library-Linux/FifoFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/FdGuard.h"
#include "platform/NamedObject.h"

namespace {

constexpr mode_t FIFO_MODE = S_IFIFO | 0666;  // 0x11B6
constexpr mode_t FILE_MODE = 0666;            // 0x1B6

}  // namespace

int openFifo(const std::string& path, int flags) { return openInSharedDir(path, flags, S_IFIFO); }

int makeFifo(const std::string& path) {
    if (mknod(path.c_str(), FIFO_MODE, 0) != 0 && errno != EEXIST) return errno;
    // The mode is set on an opened descriptor, never by name, so that it cannot reach the
    // target of a link. A non-blocking read end opens at once and reads nothing.
    CFdGuard fd(openFifo(path, O_RDONLY | O_NONBLOCK));
    if (fd.get() != -1) {
        fchmod(fd.get(), FILE_MODE);
        return 0;
    }
    if (errno != EACCES) return errno;
    // Another user's FIFO that this user may not read: its mode is not ours to set, but it is
    // still the service's FIFO if it is one. O_PATH needs no permission on the file.
    fd.reset(openFifo(path, O_PATH));
    if (fd.get() == -1) return errno;
    return 0;
}
