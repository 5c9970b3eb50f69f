// Files behind the system-wide named objects (CPMutex, CPSharedMemory): how a name becomes a
// file name, and opening such a file so that exactly one opener is its creator. Also the one
// way to open a file that anyone may have put in a shared directory such as /tmp.
#ifndef PLATFORM_NAMEDOBJECT_H_
#define PLATFORM_NAMEDOBJECT_H_

#include <sys/types.h>

#include <string>

// A file name (no directory) for an object name of any content. [A-Za-z0-9-_.] stand as they
// are, apart from leading dots; every other byte becomes %XX. So '/' and ".." cannot leave the
// directory, the result is never empty or hidden, and two different names never share a file.
// A very long result is cut and finished with a hash of the whole name to fit NAME_MAX.
std::string namedObjectFileName(const std::string& name);

// Opens path in a directory that other users can write to, with the open() flags given (and
// mode 0666 should O_CREAT make a file), never through a symbolic link and only when the file
// is of the type given (S_IFREG, S_IFIFO). A link fails with ELOOP; a file of another type
// (a directory too) fails with EEXIST, closed again at once if it was opened. Returns the
// descriptor (close-on-exec) or -1 with errno set.
int openInSharedDir(const std::string& path, int flags, mode_t type);

// Opens path read-write, creating it with mode 0666 (whatever the umask) when absent; only a
// regular file is used (see openInSharedDir). *pCreated is set to 1 for the one opener that
// created it. Returns the descriptor (close-on-exec) or -1 with errno set.
int openNamedObjectFile(const std::string& path, int* pCreated);

// Directories of the files: shared memory in /dev/shm, lock files in /tmp.
std::string sharedMemoryPath(const std::string& name);
std::string mutexLockPath(const std::string& name);

#endif  // PLATFORM_NAMEDOBJECT_H_
