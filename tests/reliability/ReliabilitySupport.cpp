#include "tests/reliability/ReliabilitySupport.h"

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace rel {

std::string Pattern(size_t n, uint32_t seed) {
    std::string s(n, '\0');
    uint32_t x = seed ^ static_cast<uint32_t>(n * 40503u);
    for (size_t i = 0; i < n; ++i) {
        x = x * 1103515245u + 12345u;  // an LCG; the high bits vary best
        s[i] = static_cast<char>(x >> 23);
    }
    return s;
}

std::string Answer(const std::string& bytes) {
    std::string s(bytes);
    for (char& c : s) c = static_cast<char>(c ^ 0x5A);
    return s;
}

namespace {

template <typename F>
void ForEachEntry(const char* dir, F f) {
    DIR* d = opendir(dir);
    if (d == nullptr) return;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') f(std::string(e->d_name));
    }
    closedir(d);
}

bool StartsWith(const std::string& s, const std::string& prefix) {
    return s.compare(0, prefix.size(), prefix) == 0;
}

bool EndsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() &&
           s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

long long ClientConnectId(const std::string& guid, pid_t pid) {
    const std::string prefix = guid + "-svr-req-";
    const std::string suffix = "-p" + std::to_string(pid);
    long long id = -1;
    ForEachEntry("/tmp", [&](const std::string& name) {
        if (StartsWith(name, prefix) && EndsWith(name, suffix)) {
            id = strtoll(name.c_str() + prefix.size(), nullptr, 10);
        }
    });
    return id;
}

int CountGuidFiles(const std::string& guid) {
    int n = 0;
    ForEachEntry("/tmp", [&](const std::string& name) {
        if (StartsWith(name, guid)) ++n;
    });
    return n;
}

void RemoveClientFifos(const std::string& guid, pid_t pid) {
    const std::string suffix = "-p" + std::to_string(pid);
    ForEachEntry("/tmp", [&](const std::string& name) {
        if (StartsWith(name, guid + "-") && EndsWith(name, suffix) &&
            name.find("-svr-admin") == std::string::npos) {
            unlink(("/tmp/" + name).c_str());
        }
    });
}

void RemoveGuidFiles(const std::string& guid) {
    for (const char* dir : {"/tmp", "/dev/shm"}) {
        ForEachEntry(dir, [&](const std::string& name) {
            if (name.find(guid) != std::string::npos) {
                unlink((std::string(dir) + "/" + name).c_str());
            }
        });
    }
}

int CountFds(pid_t pid) {
    int n = 0;
    ForEachEntry(("/proc/" + std::to_string(pid) + "/fd").c_str(),
                 [&](const std::string&) { ++n; });
    return n;
}

long ResidentKiB(pid_t pid) {
    FILE* f = fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
    if (f == nullptr) return -1;
    char line[256];
    long kib = -1;
    while (fgets(line, sizeof line, f) != nullptr) {
        if (strncmp(line, "VmRSS:", 6) == 0) kib = strtol(line + 6, nullptr, 10);
    }
    fclose(f);
    return kib;
}

namespace {

// One receive call through receive(&buf, &len, ext), whose other outputs land in g; the body
// is copied into g and freed.
template <typename Receive>
Got Collect(Got& g, Receive receive) {
    char* buf = nullptr;
    unsigned long len = 0;
    char ext[EXT_SIZE] = {0};
    g.hr = receive(&buf, &len, ext);
    if (buf != nullptr) g.body.assign(buf, len);
    delete[] buf;
    g.ext.assign(ext, EXT_SIZE);
    return g;
}

}  // namespace

Got ReceiveRequest(CQVIPCLibrary& lib) {
    Got g;
    return Collect(g, [&](char** buf, unsigned long* len, char* ext) {
        return lib.receiveRequest(&g.ipcid, &g.id, buf, len, &g.type, ext);
    });
}

Got ReceiveResponse(CQVIPCLibrary& lib) {
    Got g;
    return Collect(g, [&](char** buf, unsigned long* len, char* ext) {
        return lib.receiveResponse(&g.ipcid, buf, len, &g.id, ext);
    });
}

QVRESULT AnswerRequest(CQVIPCLibrary& lib, const Got& request) {
    const std::string body = Answer(request.body);
    const std::string ext = Answer(request.ext);
    return lib.sendResponse(request.ipcid, request.id, body.data(), body.size(), ext.data());
}

uint64_t NowMs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

}  // namespace rel
