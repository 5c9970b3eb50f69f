#include "tools/qvipc/ToolSupport.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "json/JSONMessage.h"
#include "json/JSONSerialize.h"

namespace {

std::mutex g_outMutex;

constexpr size_t GUID_MAX = 63;

bool AllDigits(const char* s) {
    if (*s == '\0') return false;
    for (; *s != '\0'; ++s) {
        if (!isdigit(static_cast<unsigned char>(*s))) return false;
    }
    return true;
}

std::string Text(const JSON::JSONValue& v) {
    if (v.m_type != JSON::TypeString || v.m_pText == nullptr) return std::string();
    return std::string(v.m_pText, static_cast<size_t>(v.m_nLength));
}

}  // namespace

std::string ServiceGuid(const std::string& guid) {
    std::string lowered = guid.substr(0, GUID_MAX);
    for (char& c : lowered) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return lowered;
}

std::string AdminFifoPath(const std::string& serviceGuid) {
    return "/tmp/" + serviceGuid + "-svr-admin";
}

void OutLine(const char* fmt, ...) {
    std::lock_guard<std::mutex> lock(g_outMutex);
    va_list args;
    va_start(args, fmt);
    vfprintf(stdout, fmt, args);
    va_end(args);
    fputc('\n', stdout);
    fflush(stdout);
}

void OutText(const std::string& text) {
    std::lock_guard<std::mutex> lock(g_outMutex);
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
}

void FillPattern(char* buf, size_t len, uint32_t seed) {
    // A 32-bit xorshift stream: every byte depends on the seed and its position.
    uint32_t x = seed * 2654435761u + 0x9E3779B9u;
    for (size_t i = 0; i < len; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        buf[i] = static_cast<char>(x & 0xFF);
    }
}

bool MatchesPattern(const char* buf, size_t len, uint32_t seed) {
    std::string expected(len, '\0');
    FillPattern(&expected[0], len, seed);
    return len == 0 || expected.compare(0, len, buf, len) == 0;
}

FileSet OpenFifos(bool* complete) {
    FileSet open;
    *complete = true;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        *complete = false;
        return open;
    }
    while (dirent* e = readdir(proc)) {
        if (!AllDigits(e->d_name)) continue;
        const std::string fdDir = std::string("/proc/") + e->d_name + "/fd";
        DIR* fds = opendir(fdDir.c_str());
        if (fds == nullptr) {
            if (errno != ENOENT && errno != ESRCH) *complete = false;  // ENOENT: it just ended
            continue;
        }
        while (dirent* f = readdir(fds)) {
            if (f->d_name[0] == '.') continue;
            struct stat st;
            if (stat((fdDir + "/" + f->d_name).c_str(), &st) == 0 && S_ISFIFO(st.st_mode)) {
                open.insert(std::make_pair(st.st_dev, st.st_ino));
            }
        }
        closedir(fds);
    }
    closedir(proc);
    return open;
}

bool FifoUnused(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || !S_ISFIFO(st.st_mode)) return false;
    bool complete = false;
    const FileSet open = OpenFifos(&complete);
    return complete && open.count(std::make_pair(st.st_dev, st.st_ino)) == 0;
}

std::vector<CLiveConnection> LiveConnections(CQVIPCLibrary& endpoint) {
    JSON::Serialize writer;
    endpoint.dumpToJSONBuffer(writer);
    JSON::Message doc;
    std::vector<CLiveConnection> live;
    if (writer.m_error || !doc.Parse(writer.String().c_str())) return live;
    const JSON::JSONValue& connections = doc["connection-array"];
    for (int i = 0; i < connections.Size(); ++i) {
        const JSON::JSONValue& c = connections[i];
        // A slot is in use exactly while it has a response reader; a freed slot keeps its
        // peer's pid and names in the dump but loses its handles.
        if (c["pipe-handle-recv-rsp"].m_type == JSON::TypeNone) continue;
        CLiveConnection conn;
        conn.name = Text(c["pipe-name-recv-req"]);
        conn.pid = c["pid"].AsInt();
        live.push_back(conn);
    }
    return live;
}
