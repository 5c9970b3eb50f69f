// qvipc sweep: removes the FIFOs in /tmp that killed processes left behind (the library never
// removes them itself). A per-connection FIFO is named after its owning client's process id
// and goes when that process is gone; an admin FIFO goes only when no process has it open and
// no live client of its service remains. A FIFO that any process holds open is never removed.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tools/qvipc/Commands.h"
#include "tools/qvipc/Options.h"
#include "tools/qvipc/ToolSupport.h"

namespace {

const char HELP[] =
    "usage: qvipc sweep [--guid G] [--dry-run]\n"
    "\n"
    "Removes the service FIFOs in /tmp that nobody uses any more:\n"
    "  <guid>-{svr,cli}-{req,rsp}-<connectid>-p<pid>  when process <pid> is gone\n"
    "  <guid>-svr-admin                               when no process holds it open and no\n"
    "                                                 client of the service is alive\n"
    "A FIFO that any process holds open is kept. Prints one line per FIFO removed and a\n"
    "summary.\n"
    "\n"
    "  --guid G    only the FIFOs of the service G\n"
    "  --dry-run   say what would be removed, remove nothing\n";

const char TMP_DIR[] = "/tmp";

struct CFifoName {
    std::string guid;
    bool admin = false;
    long pid = 0;  // owner of a per-connection FIFO
};

bool AllDigits(const std::string& s, size_t from, size_t to) {
    if (from >= to) return false;
    for (size_t i = from; i < to; ++i) {
        if (!isdigit(static_cast<unsigned char>(s[i]))) return false;
    }
    return true;
}

// Recognises "<guid>-svr-admin" and "<guid>-(svr|cli)-(req|rsp)-<connectid>-p<pid>", where
// the connect id is a signed 32-bit number in decimal.
bool ParseFifoName(const std::string& name, CFifoName* out) {
    static const std::string ADMIN = "-svr-admin";
    if (name.size() > ADMIN.size() &&
        name.compare(name.size() - ADMIN.size(), ADMIN.size(), ADMIN) == 0) {
        out->guid = name.substr(0, name.size() - ADMIN.size());
        out->admin = true;
        return true;
    }
    const size_t p = name.rfind("-p");
    if (p == std::string::npos || !AllDigits(name, p + 2, name.size()) ||
        name.size() - (p + 2) > 10) {
        return false;
    }
    const long long pid = strtoll(name.c_str() + p + 2, nullptr, 10);
    // Process ids are positive ints; 0 and -1 would mean groups to kill().
    if (pid <= 0 || pid > INT_MAX) return false;
    size_t idStart = name.rfind('-', p - 1);
    if (idStart == std::string::npos || !AllDigits(name, idStart + 1, p)) return false;
    if (idStart > 0 && name[idStart - 1] == '-') --idStart;  // a negative connect id
    static const char* const KINDS[] = {"-svr-req", "-svr-rsp", "-cli-req", "-cli-rsp"};
    for (const char* kind : KINDS) {
        const size_t len = strlen(kind);
        if (idStart > len && name.compare(idStart - len, len, kind) == 0) {
            out->guid = name.substr(0, idStart - len);
            out->admin = false;
            out->pid = static_cast<long>(pid);
            return true;
        }
    }
    return false;
}

bool ProcessAlive(long pid) {
    // EPERM: it exists but belongs to someone else.
    return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

struct CCandidate {
    std::string path;
    CFifoName name;
    struct stat st;
};

}  // namespace

int RunSweep(int argc, char** argv, int first) {
    COptions opts("sweep", {{"guid", true}, {"dry-run", false}});
    int status = EXIT_OK;
    if (!opts.begin(argc, argv, first, HELP, 0, &status)) return status;
    const bool dryRun = opts.has("dry-run");
    if (opts.has("guid") && opts.value("guid", "").empty()) {
        return opts.usage("--guid must not be empty");
    }
    // The library lowers the guid and cuts it, so its FIFOs carry that form.
    const std::string guid = ServiceGuid(opts.value("guid", ""));

    DIR* tmp = opendir(TMP_DIR);
    if (tmp == nullptr) return opts.fail(std::string("cannot read /tmp: ") + strerror(errno));
    std::vector<CCandidate> candidates;
    while (dirent* e = readdir(tmp)) {
        CCandidate c;
        if (!ParseFifoName(e->d_name, &c.name)) continue;
        if (!guid.empty() && c.name.guid != guid) continue;
        c.path = std::string(TMP_DIR) + "/" + e->d_name;
        // lstat: a symbolic link or a plain file of the same name is not ours to remove.
        if (lstat(c.path.c_str(), &c.st) != 0 || !S_ISFIFO(c.st.st_mode)) continue;
        candidates.push_back(c);
    }
    closedir(tmp);
    std::sort(candidates.begin(), candidates.end(),
              [](const CCandidate& a, const CCandidate& b) { return a.path < b.path; });

    bool complete = false;
    const FileSet open = OpenFifos(&complete);
    std::set<std::string> liveServices;  // services that still have a live client
    for (const CCandidate& c : candidates) {
        if (!c.name.admin && ProcessAlive(c.name.pid)) liveServices.insert(c.name.guid);
    }

    int removed = 0;
    int kept = 0;
    int failures = 0;
    bool adminUnknown = false;
    for (const CCandidate& c : candidates) {
        bool remove = open.count(std::make_pair(c.st.st_dev, c.st.st_ino)) == 0;
        if (c.name.admin) {
            if (remove && !complete) adminUnknown = true;
            remove = remove && complete && liveServices.count(c.name.guid) == 0;
        } else {
            remove = remove && !ProcessAlive(c.name.pid);
        }
        if (!remove) {
            ++kept;
            continue;
        }
        if (dryRun) {
            printf("would remove %s\n", c.path.c_str());
        } else if (unlink(c.path.c_str()) == 0 || errno == ENOENT) {
            printf("removed %s\n", c.path.c_str());
        } else {
            const int err = errno;
            fprintf(stderr, "qvipc sweep: cannot remove %s: %s\n", c.path.c_str(), strerror(err));
            ++failures;
            continue;
        }
        ++removed;
    }
    if (adminUnknown) {
        fprintf(stderr,
                "qvipc sweep: admin FIFOs kept: the descriptors of some processes cannot be "
                "read\n");
    }
    printf("%d %s, %d kept\n", removed, dryRun ? "to remove" : "removed", kept);
    return failures == 0 ? EXIT_OK : EXIT_FAILED;
}
