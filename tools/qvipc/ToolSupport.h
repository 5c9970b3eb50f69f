// Helpers shared by the subcommands of qvipc: service names as the library spells them,
// serialised output lines, the known body contents that serve and ping check, the FIFOs that
// processes hold open, and the live connections read from an endpoint's dump.
#ifndef TOOLS_QVIPC_TOOLSUPPORT_H_
#define TOOLS_QVIPC_TOOLSUPPORT_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

class CQVIPCLibrary;

// The guid as the library uses it: lower-cased and cut to 63 characters.
std::string ServiceGuid(const std::string& guid);
std::string AdminFifoPath(const std::string& serviceGuid);

// Prints one line on stdout (a line end is added) and flushes it; lines from several threads
// never mix.
void OutLine(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Writes text as it stands on stdout, under the same lock, and flushes.
void OutText(const std::string& text);

// Known content: len bytes derived from seed, so that the receiver of an echo can check every
// byte without keeping a copy.
void FillPattern(char* buf, size_t len, uint32_t seed);
bool MatchesPattern(const char* buf, size_t len, uint32_t seed);

typedef std::set<std::pair<dev_t, ino_t>> FileSet;
// The FIFOs that some process holds open, by device and inode. *complete is false when the
// descriptors of some process could not be read (another user's, without privilege).
FileSet OpenFifos(bool* complete);
// True when path is a FIFO that no process holds open, as far as can be seen.
bool FifoUnused(const std::string& path);

// A connection that an endpoint's dump shows in use, in slot order.
struct CLiveConnection {
    std::string name;  // its server-request FIFO, which names the client endpoint
    long pid = 0;      // the peer's process id
};
std::vector<CLiveConnection> LiveConnections(CQVIPCLibrary& endpoint);

#endif  // TOOLS_QVIPC_TOOLSUPPORT_H_
