// The service's FIFOs live in /tmp, where anyone may have put a file of the same name first.
// Every FIFO the transport makes or opens goes through these two calls, which never act
// through a symbolic link and never use a file that is not a FIFO. Stateless; any thread.
#ifndef QVIPC_LIBRARY_LINUX_FIFOFILES_H_
#define QVIPC_LIBRARY_LINUX_FIFOFILES_H_

#include <string>

// open(path, flags) for a FIFO: flags are the designed open() flags; O_NOFOLLOW and
// O_CLOEXEC are added. Returns the descriptor, or -1 with errno set: the open's own errno
// (ENXIO for a non-blocking write end without a reader, as ever), ELOOP for a symbolic link,
// EEXIST for a file of another kind, a directory included.
int openFifo(const std::string& path, int flags);

// Makes the FIFO path with mode 0666, or finds it made (an existing FIFO is reused), and sets
// its mode to 0666 whatever the umask; a mode that cannot be set (another user's FIFO) is not
// a failure. Returns 0, or the errno of the failure: that of mknod, or ELOOP / EEXIST when the
// name holds a symbolic link or a file of another kind.
int makeFifo(const std::string& path);

#endif  // QVIPC_LIBRARY_LINUX_FIFOFILES_H_
