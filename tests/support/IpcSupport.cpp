// 64-bit directory offsets on i686 too (see TestSupport.cpp).
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include "tests/support/IpcSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "platform/QVLog.h"

namespace qvtest {

std::unique_ptr<CQVIPCLibrary> MakeServer(const std::string& guid, unsigned long clients,
                                          unsigned long ext, unsigned long sto) {
    return std::unique_ptr<CQVIPCLibrary>(new CQVIPCLibrary("server", guid, 1, clients, ext, sto));
}

std::unique_ptr<CQVIPCLibrary> MakeClient(const std::string& guid, unsigned long ext,
                                          unsigned long sto) {
    return std::unique_ptr<CQVIPCLibrary>(new CQVIPCLibrary("client", guid, 0, 0, ext, sto));
}

namespace {

template <typename Receive>
Received Collect(Received& r, unsigned long extSize, Receive receive) {
    char* buf = nullptr;
    unsigned long len = 0;
    char ext[qvframe::HEADER_EXT_AREA] = {0};
    r.hr = receive(&buf, &len, ext);
    r.bodyNull = buf == nullptr;
    if (buf != nullptr) r.body.assign(buf, len);
    delete[] buf;
    r.ext.assign(ext, extSize);
    return r;
}

void ForEachEntry(const std::string& dir, const std::function<void(const std::string&)>& f) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') f(e->d_name);
    }
    closedir(d);
}

bool StartsWith(const std::string& s, const std::string& head) {
    return s.compare(0, head.size(), head) == 0;
}

bool EndsWith(const std::string& s, const std::string& tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

int OpenWhenPossible(const std::string& path, int flags) {
    int fd = -1;
    WaitFor([&] { return (fd = open(path.c_str(), flags | O_NONBLOCK)) != -1; }, DEADLINE);
    return fd;
}

}  // namespace

Received ReceiveRequest(CQVIPCLibrary& lib, unsigned long extSize) {
    Received r;
    return Collect(r, extSize, [&](char** buf, unsigned long* len, char* ext) {
        return lib.receiveRequest(&r.ipcid, &r.id, buf, len, &r.type, ext);
    });
}

Received ReceiveResponse(CQVIPCLibrary& lib, unsigned long extSize) {
    Received r;
    return Collect(r, extSize, [&](char** buf, unsigned long* len, char* ext) {
        return lib.receiveResponse(&r.ipcid, buf, len, &r.id, ext);
    });
}

std::string Pattern(size_t n, uint32_t seed) {
    std::string s(n, '\0');
    uint32_t x = seed ^ (static_cast<uint32_t>(n) * 40503u);
    for (char& c : s) {
        x = x * 1103515245u + 12345u;  // an LCG; its high bits vary best
        c = static_cast<char>(x >> 23);
    }
    return s;
}

std::string Flip(const std::string& bytes) {
    std::string s(bytes);
    for (char& c : s) c = static_cast<char>(c ^ 0x5A);
    return s;
}

QVRESULT AnswerFlipped(CQVIPCLibrary& lib, const Received& request) {
    const std::string body = Flip(request.body);
    const std::string ext = Flip(request.ext);
    return lib.sendResponse(request.ipcid, request.id, body.data(), body.size(), ext.data());
}

QVRESULT SendWhenConnected(CQVIPCLibrary& lib, const std::string& body, int type,
                           unsigned long ipcid, unsigned long* pId) {
    QVRESULT hr = 0;
    unsigned long id = 0;
    WaitFor(
        [&] {
            hr = lib.sendRequest(ipcid, body.data(), body.size(), &id, type, nullptr);
            return hr != QVIPC_E_NO_PIPE;
        },
        DEADLINE);
    if (pId != nullptr) *pId = id;
    return hr;
}

void ExpectRoundTrip(CQVIPCLibrary& client, const std::string& body) {
    unsigned long id = 0;
    ASSERT_EQ(S_OK, SendWhenConnected(client, body, 1, 0, &id));
    const Received r = ReceiveResponse(client);
    EXPECT_EQ(S_OK, r.hr);
    EXPECT_EQ(id, r.id);
    EXPECT_EQ(body, r.body);
}

RequestLoop::RequestLoop(CQVIPCLibrary& lib, unsigned long extSize, bool echo)
    : m_lib(lib), m_extSize(extSize), m_echo(echo), m_thread([this] {
          for (;;) {
              Received r = ReceiveRequest(m_lib, m_extSize);
              if (r.hr == 0 && m_echo && r.type != 0) {
                  m_lib.sendResponse(r.ipcid, r.id, r.body.data(), r.body.size(), r.ext.data());
              }
              const bool stop = r.hr == QVIPC_E_SHUTDOWN;
              std::lock_guard<std::mutex> lock(m_mutex);
              m_results.push_back(std::move(r));
              if (stop) break;
          }
      }) {}

// Finalizes first, so that a test that stops early ends its loop instead of waiting for ever.
RequestLoop::~RequestLoop() {
    m_lib.finalize();
    join();
}

void RequestLoop::join() {
    if (m_thread.joinable()) m_thread.join();
}

std::vector<Received> RequestLoop::results() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_results;
}

std::vector<unsigned long> RequestLoop::connections() {
    std::vector<unsigned long> slots;
    for (const Received& r : results()) {
        if (r.hr == QVIPC_E_NEW_CONNECTION) slots.push_back(r.ipcid);
    }
    return slots;
}

size_t RequestLoop::count(QVRESULT hr, long ipcid) {
    size_t n = 0;
    for (const Received& r : results()) {
        n += r.hr == hr && (ipcid < 0 || r.ipcid == static_cast<unsigned long>(ipcid)) ? 1 : 0;
    }
    return n;
}

bool RequestLoop::waitConnections(size_t n) { return waitResult(QVIPC_E_NEW_CONNECTION, n); }

bool RequestLoop::waitResult(QVRESULT hr, size_t n, long ipcid) {
    return WaitFor([&] { return count(hr, ipcid) >= n; }, DEADLINE);
}

ConnectedPair::ConnectedPair(const std::string& guid, unsigned long clients, unsigned long ext,
                             bool echo)
    : server(MakeServer(guid, clients, ext)), client(MakeClient(guid, ext)) {
    if (server->initialize() != 0 || client->initialize() != 0) return;
    serverLoop.reset(new RequestLoop(*server, ext, echo));
    clientLoop.reset(new RequestLoop(*client, ext, echo));
    ok = serverLoop->waitConnections(1) && clientLoop->waitConnections(1);
}

ConnectedPair::~ConnectedPair() {
    client->finalize();
    server->finalize();
}

std::vector<std::string> GuidFiles(const std::string& guid) {
    std::vector<std::string> files;
    ForEachEntry("/tmp", [&](const std::string& name) {
        if (StartsWith(name, guid) && name.find("IDGEN") == std::string::npos) {
            files.push_back(name);
        }
    });
    return files;
}

int CountFds(pid_t pid) {
    int n = 0;
    ForEachEntry("/proc/" + std::to_string(pid) + "/fd", [&](const std::string&) { ++n; });
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

long long ClientConnectId(const std::string& guid, pid_t pid) {
    const std::string head = guid + "-svr-req-";
    long long id = -1;
    ForEachEntry("/tmp", [&](const std::string& name) {
        if (StartsWith(name, head) && EndsWith(name, "-p" + std::to_string(pid))) {
            id = strtoll(name.c_str() + head.size(), nullptr, 10);
        }
    });
    return id;
}

void RemoveClientFifos(const std::string& guid, pid_t pid) {
    ForEachEntry("/tmp", [&](const std::string& name) {
        if (StartsWith(name, guid + "-") && EndsWith(name, "-p" + std::to_string(pid))) {
            unlink(("/tmp/" + name).c_str());
        }
    });
}

bool ReadFull(int fd, void* buf, size_t len) {
    char* p = static_cast<char*>(buf);
    while (len > 0) {
        const ssize_t n = read(fd, p, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool WriteFull(int fd, const void* buf, size_t len) {
    const char* p = static_cast<const char*>(buf);
    while (len > 0) {
        const ssize_t n = write(fd, p, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool WaitFifoDrained(const std::string& path) {
    // A read end that never reads: it only looks at how much is waiting.
    const int probe = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (probe == -1) return false;
    const bool drained = WaitFor(
        [&] {
            int n = -1;
            return ioctl(probe, FIONREAD, &n) == 0 && n == 0;
        },
        DEADLINE);
    close(probe);
    return drained;
}

std::string Frame(uint32_t type, uint32_t requestId, uint32_t bodySize, int32_t requestType) {
    qvframe::RequestHeader h;
    h.type = type;
    h.requestId = requestId;
    h.bodySize = bodySize;
    h.requestType = requestType;
    qvframe::RequestFrame frame;
    qvframe::buildRequest(frame, h, nullptr, 0);
    return std::string(reinterpret_cast<const char*>(frame), sizeof frame);
}

std::string Record(uint32_t type, uint32_t connectId, uint32_t pid, int32_t requestType) {
    qvframe::RequestFrame frame;
    qvframe::buildAdminRecord(frame, type, connectId, pid, requestType);
    return std::string(reinterpret_cast<const char*>(frame), sizeof frame);
}

bool WriteAdmin(const std::string& guid, const std::string& bytes) {
    const int fd = OpenWhenPossible("/tmp/" + guid + "-svr-admin", O_WRONLY);
    if (fd == -1) return false;
    const bool ok = write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    close(fd);
    return ok;
}

RawClient::RawClient(const std::string& guid, uint32_t connectId)
    : m_guid(guid), m_connectId(connectId) {}

std::string RawClient::path(const char* role) const {
    return "/tmp/" + m_guid + "-" + role + "-" + std::to_string(m_connectId) + "-p" +
           std::to_string(getpid());
}

void RawClient::makeFifos() const {
    for (const char* role : {"svr-req", "svr-rsp", "cli-req", "cli-rsp"}) {
        mknod(path(role).c_str(), S_IFIFO | 0666, 0);
    }
}

bool RawClient::connectWithoutReader() {
    makeFifos();
    return WriteAdmin(m_guid,
                      Record(qvframe::TYPE_CONNECT, m_connectId, static_cast<uint32_t>(getpid())));
}

uint32_t RawClient::connect() {
    // The read ends first: the server opens their write ends as soon as it takes the CONNECT.
    makeFifos();
    openReadEnds();
    return connectWithoutReader() ? answerConnect() : ~0u;
}

void RawClient::openReadEnds() {
    m_fds[0] = open(path("cli-req").c_str(), O_RDONLY | O_NONBLOCK);
    m_fds[1] = open(path("svr-rsp").c_str(), O_RDONLY | O_NONBLOCK);
}

uint32_t RawClient::answerConnect() {
    if (m_fds[1] == -1) openReadEnds();
    qvframe::ResponseFrame reply;
    const bool got = WaitFor(
        [&] { return read(m_fds[1], reply, sizeof reply) == static_cast<ssize_t>(sizeof reply); },
        DEADLINE);
    if (!got) return ~0u;
    const uint32_t result = qvframe::parseResponse(reply).result;
    if (result == 0) {
        m_fds[2] = OpenWhenPossible(path("svr-req"), O_WRONLY);
        m_fds[3] = OpenWhenPossible(path("cli-rsp"), O_WRONLY);
    }
    return result;
}

bool RawClient::send(const std::string& bytes, bool closeAfter) {
    const bool ok = WriteFull(m_fds[2], bytes.data(), bytes.size());
    if (closeAfter) {
        close(m_fds[2]);
        m_fds[2] = -1;
    }
    return ok;
}

void RawClient::closeAll() {
    for (int& fd : m_fds) {
        if (fd != -1) close(fd);
        fd = -1;
    }
}

LineCapture::LineCapture() { QVSetLogCallback(&LineCapture::callback, this); }
LineCapture::~LineCapture() { QVSetLogCallback(nullptr, nullptr); }

void LineCapture::callback(void* ctx, int kind, int traceClass, int priority, const char* text) {
    LineCapture* self = static_cast<LineCapture*>(ctx);
    char head[64];
    snprintf(head, sizeof head, "%s/%d/%d ", kind == QV_LINE_TRACE ? "T" : "L", traceClass,
             priority);
    std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_lines.push_back(head + std::string(text));
}

std::vector<std::string> LineCapture::lines() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

size_t LineCapture::count(const std::string& text) {
    size_t n = 0;
    for (const std::string& line : lines()) n += line.find(text) != std::string::npos ? 1 : 0;
    return n;
}

bool LineCapture::wait(const std::string& text, size_t n) {
    return WaitFor([&] { return count(text) >= n; }, DEADLINE);
}

Peer::Peer(const std::string& role, const std::string& guid) {
    // Everything the child needs is made before fork: a threaded process may only exec.
    std::vector<std::string> args;
    if (Emulator()[0] != '\0') args.push_back(Emulator());
    args.push_back(SelfExe());
    args.push_back("--peer=" + role + "," + guid);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
        execv(argv[0], argv.data());
        _exit(127);
    }
}

void Peer::kill() {
    if (m_pid <= 0) return;
    ::kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

int Peer::wait() {
    int status = 0;
    const bool reaped = m_pid > 0 && waitpid(m_pid, &status, 0) == m_pid;
    m_pid = -1;
    return reaped && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int PeerMain(int argc, char** argv, const std::vector<PeerRole>& roles) {
    const std::string flag = "--peer=";
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const size_t comma = arg.find(',');
        if (!StartsWith(arg, flag) || comma == std::string::npos) continue;
        for (const PeerRole& role : roles) {
            if (arg.substr(flag.size(), comma - flag.size()) == role.name) {
                return role.run(arg.substr(comma + 1));
            }
        }
        return 2;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

void EndpointTest::SetUp() {
    m_guid = TestGuid();
    m_fdsBefore = CountOpenFds();
}

void EndpointTest::TearDown() {
    m_peers.clear();
    m_moreGuids.push_back(m_guid);
    for (const std::string& guid : m_moreGuids) RemoveGuidFiles(guid);
    // Endpoints close the last descriptors on their own threads' way out.
    EXPECT_TRUE(WaitFor([&] { return CountOpenFds() == m_fdsBefore; }, DEADLINE))
        << CountOpenFds() << " descriptors open, " << m_fdsBefore << " before the test";
}

Peer& EndpointTest::startPeer(const std::string& role) {
    m_peers.emplace_back(new Peer(role, m_guid));
    return *m_peers.back();
}

}  // namespace qvtest
