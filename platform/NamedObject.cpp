// Named-object files. Object names come from callers' guids, so nothing in them is trusted.
#include "platform/NamedObject.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace {

constexpr size_t MAX_ENCODED = 200;  // leaves room for directory suffixes within NAME_MAX
constexpr size_t HASH_KEEP = MAX_ENCODED - 17;

bool keepsItsByte(unsigned char c, bool leading) {
    if (c == '.') return !leading;
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_';
}

uint64_t fnv1a64(const std::string& s) {
    uint64_t h = 1469598103934665603ull;
    for (char c : s) {
        h ^= static_cast<unsigned char>(c);
        h *= 1099511628211ull;
    }
    return h;
}

}  // namespace

std::string namedObjectFileName(const std::string& name) {
    static const char HEX[] = "0123456789ABCDEF";
    // "%" alone cannot come out of a non-empty name (every '%' there is followed by two digits).
    if (name.empty()) return "%";
    std::string out;
    out.reserve(name.size());
    bool leading = true;
    for (char ch : name) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (keepsItsByte(c, leading)) {
            out += ch;
            leading = false;
        } else {
            out += '%';
            out += HEX[c >> 4];
            out += HEX[c & 0x0F];
            if (c != '.') leading = false;
        }
    }
    if (out.size() > MAX_ENCODED) {
        // A cut name could collide with another cut name: the hash of the whole name keeps
        // them apart. '~' never appears in an uncut result.
        const uint64_t h = fnv1a64(name);
        out.resize(HASH_KEEP);
        out += '~';
        for (int shift = 60; shift >= 0; shift -= 4) out += HEX[(h >> shift) & 0x0F];
    }
    return out;
}

int openInSharedDir(const std::string& path, int flags, mode_t type) {
    // O_NOFOLLOW makes a link fail (ELOOP) instead of being opened, created or written
    // through; fstat on the descriptor checks the very file that was opened, so a name swapped
    // in between cannot slip past the check.
    const int fd = open(path.c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd < 0) {
        // open() itself refuses a directory for writing or creating; it is reported like any
        // other file of the wrong kind.
        if (errno == EISDIR) errno = EEXIST;
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || (st.st_mode & S_IFMT) != type) {
        close(fd);
        errno = EEXIST;  // the name is taken by something of another kind
        return -1;
    }
    return fd;
}

int openNamedObjectFile(const std::string& path, int* pCreated) {
    *pCreated = 0;
    // Non-blocking, so that a FIFO put in the file's place cannot hold the open up before it
    // is refused; a regular file ignores the flag.
    constexpr int FLAGS = O_RDWR | O_NONBLOCK;
    // Open first without O_CREAT: in a sticky world-writable directory the kernel may refuse
    // O_CREAT on another user's existing file. Then create exclusively, and on a lost race
    // open what the other process made.
    for (int attempt = 0; attempt < 100; ++attempt) {
        int fd = openInSharedDir(path, FLAGS, S_IFREG);
        if (fd >= 0) return fd;
        if (errno != ENOENT) return -1;
        fd = openInSharedDir(path, FLAGS | O_CREAT | O_EXCL, S_IFREG);
        if (fd >= 0) {
            fchmod(fd, 0666);  // the umask must not lock other users out
            *pCreated = 1;
            return fd;
        }
        if (errno != EEXIST) return -1;
    }
    errno = EAGAIN;
    return -1;
}

std::string sharedMemoryPath(const std::string& name) {
    return "/dev/shm/" + namedObjectFileName(name);
}

std::string mutexLockPath(const std::string& name) {
    return "/tmp/" + namedObjectFileName(name) + ".lock";
}
