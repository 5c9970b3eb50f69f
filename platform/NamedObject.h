// Files behind the system-wide named objects (CPMutex, CPSharedMemory): how a name becomes a
// file name, and opening such a file so that exactly one opener is its creator.
#ifndef PLATFORM_NAMEDOBJECT_H_
#define PLATFORM_NAMEDOBJECT_H_

#include <string>

// A file name (no directory) for an object name of any content. [A-Za-z0-9-_.] stand as they
// are, apart from leading dots; every other byte becomes %XX. So '/' and ".." cannot leave the
// directory, the result is never empty or hidden, and two different names never share a file.
// A very long result is cut and finished with a hash of the whole name to fit NAME_MAX.
std::string namedObjectFileName(const std::string& name);

// Opens path read-write, creating it with mode 0666 (whatever the umask) when absent.
// *pCreated is set to 1 for the one opener that created it. Returns the descriptor
// (close-on-exec) or -1 with errno set.
int openNamedObjectFile(const std::string& path, int* pCreated);

// Directories of the files: shared memory in /dev/shm, lock files in /tmp.
std::string sharedMemoryPath(const std::string& name);
std::string mutexLockPath(const std::string& name);

#endif  // PLATFORM_NAMEDOBJECT_H_
