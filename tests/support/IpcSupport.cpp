#include "tests/support/IpcSupport.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fstream>

namespace qvtest {

namespace {

template <typename Receive>
Received Collect(unsigned long extSize, Receive receive) {
    Received r;
    char* buf = nullptr;
    unsigned long len = 0;
    char ext[qvframe::HEADER_EXT_AREA] = {0};
    r.hr = receive(r, &buf, &len, ext);
    r.bodyNull = buf == nullptr;
    if (buf != nullptr) r.body.assign(buf, len);
    delete[] buf;
    r.ext.assign(ext, extSize);
    return r;
}

void CloseFd(int& fd) {
    if (fd != -1) close(fd);
    fd = -1;
}

int OpenWhenPossible(const std::string& path, int flags) {
    int fd = -1;
    WaitFor([&] { return (fd = open(path.c_str(), flags | O_NONBLOCK)) != -1; }, DEADLINE);
    return fd;
}

template <typename Io, typename Byte>
bool Transfer(Io io, int fd, Byte* p, size_t len) {
    while (len > 0) {
        const ssize_t n = io(fd, p, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

Received ReceiveRequest(CQVIPCLibrary& lib, unsigned long extSize) {
    return Collect(extSize, [&](Received& r, char** buf, unsigned long* len, char* ext) {
        return lib.receiveRequest(&r.ipcid, &r.id, buf, len, &r.type, ext);
    });
}

Received ReceiveResponse(CQVIPCLibrary& lib, unsigned long extSize) {
    return Collect(extSize, [&](Received& r, char** buf, unsigned long* len, char* ext) {
        return lib.receiveResponse(&r.ipcid, buf, len, &r.id, ext);
    });
}

std::string Pattern(size_t n, uint32_t seed) {
    std::string s(n, '\0');
    uint32_t x = seed ^ (static_cast<uint32_t>(n) * 40503u);
    // An LCG; its high bits vary best.
    for (char& c : s) c = static_cast<char>((x = x * 1103515245u + 12345u) >> 23);
    return s;
}

std::string Flip(const std::string& bytes) {
    std::string s(bytes);
    for (char& c : s) c = static_cast<char>(c ^ 0x5A);
    return s;
}

QVRESULT AnswerFlipped(CQVIPCLibrary& lib, const Received& request) {
    const std::string body = Flip(request.body);
    return lib.sendResponse(request.ipcid, request.id, body.data(), body.size(),
                            Flip(request.ext).data());
}

QVRESULT SendWhenConnected(CQVIPCLibrary& lib, const std::string& body, int type,
                           unsigned long ipcid, unsigned long* pId) {
    QVRESULT hr = 0;
    unsigned long id = 0;
    const auto sent = [&] {
        return (hr = lib.sendRequest(ipcid, body.data(), body.size(), &id, type, nullptr)) !=
               QVIPC_E_NO_PIPE;
    };
    WaitFor(sent, DEADLINE);
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
    : m_lib(lib), m_thread([this, extSize, echo] {
          for (bool stop = false; !stop;) {
              Received r = ReceiveRequest(m_lib, extSize);
              if (r.hr == 0 && echo && r.type != 0) {
                  m_lib.sendResponse(r.ipcid, r.id, r.body.data(), r.body.size(), r.ext.data());
              }
              stop = r.hr == QVIPC_E_SHUTDOWN;
              std::lock_guard<std::mutex> lock(m_mutex);
              m_results.push_back(std::move(r));
          }
      }) {}

RequestLoop::~RequestLoop() {  // finalizes first: a loop of a test that stops early ends
    m_lib.finalize();
    join();
}

std::vector<unsigned long> RequestLoop::connections() {
    std::vector<unsigned long> slots;
    for (const Received& r : results()) {
        if (r.hr == QVIPC_E_NEW_CONNECTION) slots.push_back(r.ipcid);
    }
    return slots;
}

size_t RequestLoop::count(QVRESULT hr, long ipcid) {
    const std::vector<Received> all = results();
    return std::count_if(all.begin(), all.end(), [&](const Received& r) {
        return r.hr == hr && (ipcid < 0 || r.ipcid == static_cast<unsigned long>(ipcid));
    });
}

ConnectedPair::ConnectedPair(const std::string& guid, unsigned long clients, unsigned long ext,
                             bool echo)
    : server(MakeServer(guid, clients, ext)), client(MakeClient(guid, ext)) {
    if (server->initialize() != 0 || client->initialize() != 0) return;
    serverLoop.reset(new RequestLoop(*server, ext, echo));
    clientLoop.reset(new RequestLoop(*client, ext, echo));
    ok = serverLoop->waitConnections(1) && clientLoop->waitConnections(1);
}

std::vector<std::string> GuidFiles(const std::string& guid) {
    std::vector<std::string> files;
    ForEachEntry("/tmp", [&](const std::string& name) {
        if (name.rfind(guid, 0) == 0 && name.find("IDGEN") == std::string::npos)
            files.push_back(name);
    });
    return files;
}

long ResidentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string word;
    long kib = -1;
    while (status >> word && word != "VmRSS:") continue;
    status >> kib;
    return kib;
}

long long ClientConnectId(const std::string& guid, pid_t pid) {
    const std::string head = guid + "-svr-req-";
    long long id = -1;
    ForEachEntry("/tmp", [&](const std::string& name) {
        long long n = -1;
        int p = 0;
        const bool ours = name.compare(0, head.size(), head) == 0 &&
                          sscanf(name.c_str() + head.size(), "%lld-p%d", &n, &p) == 2 && p == pid;
        id = ours ? n : id;
    });
    return id;
}

void RemoveClientFifos(const std::string& guid, pid_t pid) {
    const std::string tail =
        "-" + std::to_string(ClientConnectId(guid, pid)) + "-p" + std::to_string(pid);
    for (const char* role : {"-svr-req", "-svr-rsp", "-cli-req", "-cli-rsp"}) {
        unlink(("/tmp/" + guid + role + tail).c_str());
    }
}

bool ReadFull(int fd, void* buf, size_t len) {
    return Transfer(::read, fd, static_cast<char*>(buf), len);
}

bool WriteFull(int fd, const void* buf, size_t len) {
    return Transfer(::write, fd, static_cast<const char*>(buf), len);
}

bool WaitFifoDrained(const std::string& path) {
    const int probe = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (probe == -1) return false;
    int n = -1;
    const bool drained =
        WaitFor([&] { return ioctl(probe, FIONREAD, &n) == 0 && n == 0; }, DEADLINE);
    close(probe);
    return drained;
}

std::string Frame(uint32_t type, uint32_t requestId, uint32_t bodySize, int32_t requestType) {
    qvframe::RequestFrame frame;
    qvframe::buildRequest(frame, {type, requestId, 0, 0, bodySize, requestType}, nullptr, 0);
    return std::string(reinterpret_cast<const char*>(frame), sizeof frame);
}

std::string Record(uint32_t type, uint32_t connectId, uint32_t pid, int32_t requestType) {
    qvframe::RequestFrame frame;
    qvframe::buildAdminRecord(frame, type, connectId, pid, requestType);
    return std::string(reinterpret_cast<const char*>(frame), sizeof frame);
}

std::string ResponseBytes(uint32_t type, uint32_t requestId, uint32_t result, uint32_t bodySize,
                          uint32_t pid) {
    qvframe::ResponseFrame frame;
    qvframe::buildResponse(frame, {type, requestId, result, pid, bodySize}, nullptr, 0);
    return std::string(reinterpret_cast<const char*>(frame), sizeof frame);
}

bool WriteFifo(const std::string& path, const std::string& bytes) {
    const int fd = OpenWhenPossible(path, O_WRONLY);
    const bool ok =
        fd != -1 && write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    if (fd != -1) close(fd);
    return ok;
}

std::string RawClient::path(const char* role) const {
    return "/tmp/" + m_guid + "-" + role + "-" + std::to_string(m_id) + "-p" +
           std::to_string(getpid());
}

bool RawClient::connectWithoutReader() {
    for (const char* role : {"svr-req", "svr-rsp", "cli-req", "cli-rsp"}) {
        mknod(path(role).c_str(), S_IFIFO | 0666, 0);
    }
    return WriteAdmin(m_guid, Record(qvframe::TYPE_CONNECT, m_id, static_cast<uint32_t>(getpid())));
}

void RawClient::openReadEnds() {
    for (int i = 0; i < 2; ++i) {
        const std::string fifo = path(i == 0 ? "cli-req" : "svr-rsp");
        mknod(fifo.c_str(), S_IFIFO | 0666, 0);
        m_fds[i] = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    }
}

uint32_t RawClient::connect() {
    openReadEnds();  // first: the server opens their write ends as soon as it takes the CONNECT
    return connectWithoutReader() ? answerConnect() : ~0u;
}

uint32_t RawClient::answerConnect() {
    if (m_fds[1] == -1) openReadEnds();
    qvframe::ResponseFrame reply;
    const auto got = [&] {
        return read(m_fds[1], reply, sizeof reply) == static_cast<ssize_t>(sizeof reply);
    };
    if (!WaitFor(got, DEADLINE)) return ~0u;
    const uint32_t result = qvframe::parseResponse(reply).result;
    if (result == 0) {
        m_fds[2] = OpenWhenPossible(path("svr-req"), O_WRONLY);
        m_fds[3] = OpenWhenPossible(path("cli-rsp"), O_WRONLY);
    }
    return result;
}

bool RawClient::send(const std::string& bytes, bool closeAfter) {
    const bool ok = WriteFull(m_fds[2], bytes.data(), bytes.size());
    if (closeAfter) CloseFd(m_fds[2]);
    return ok;
}

void RawClient::closeAll() {
    for (int& fd : m_fds) CloseFd(fd);
}

LineCapture::LineCapture() {
    QVSetLogCallback(
        [](void* ctx, int kind, int traceClass, int priority, const char* text) {
            LineCapture* self = static_cast<LineCapture*>(ctx);
            char head[64];
            snprintf(head, sizeof head, "%s/%d/%d ", kind == QV_LINE_TRACE ? "T" : "L", traceClass,
                     priority);
            std::lock_guard<std::mutex> lock(self->m_mutex);
            self->m_lines.push_back(head + std::string(text));
        },
        this);
}

size_t LineCapture::count(const std::string& text) {
    size_t n = 0;
    for (const std::string& line : lines()) n += line.find(text) != std::string::npos ? 1 : 0;
    return n;
}

Peer::Peer(const std::string& role, const std::string& guid) {
    char self[PATH_MAX] = {0};
    if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return;
    std::string flag = "--peer=" + role + "," + guid;
    std::string emulator = Emulator();
    std::vector<char*> argv{&emulator[0], self, &flag[0], nullptr};
    char** args = emulator.empty() ? &argv[1] : &argv[0];
    m_pid = fork();
    if (m_pid == 0) {
        execv(args[0], args);
        _exit(127);
    }
}

int Peer::wait() {
    int status = 0;
    const bool reaped = m_pid > 0 && waitpid(m_pid, &status, 0) == m_pid;
    m_pid = -1;
    return reaped && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int PeerMain(int argc, char** argv, const std::vector<PeerRole>& roles) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const size_t comma = arg.find(',');
        if (arg.compare(0, 7, "--peer=") != 0 || comma == std::string::npos) continue;
        for (const PeerRole& role : roles) {
            if (arg.substr(7, comma - 7) == role.name) return role.run(arg.substr(comma + 1));
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
    EXPECT_TRUE(WaitFor([&] { return CountOpenFds() == m_fdsBefore; }, DEADLINE))
        << CountOpenFds() << " descriptors open, " << m_fdsBefore << " before the test";
}

}  // namespace qvtest
