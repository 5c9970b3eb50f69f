#include "tests/integration/IntegrationSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "tests/integration/ReadmeExample.h"
#include "tests/support/TestSupport.h"

namespace itest {

std::unique_ptr<CQVIPCLibrary> MakeServer(const std::string& guid, unsigned long clients,
                                          unsigned long ext, unsigned long sto) {
    return std::unique_ptr<CQVIPCLibrary>(new CQVIPCLibrary("server", guid, 1, clients, ext, sto));
}

std::unique_ptr<CQVIPCLibrary> MakeClient(const std::string& guid, unsigned long ext,
                                          unsigned long sto) {
    return std::unique_ptr<CQVIPCLibrary>(new CQVIPCLibrary("client", guid, 0, 0, ext, sto));
}

Received ReceiveRequest(CQVIPCLibrary& lib, unsigned long extSize) {
    Received r;
    char* buf = nullptr;
    unsigned long len = 0;
    char ext[48] = {0};
    r.hr = lib.receiveRequest(&r.ipcid, &r.requestId, &buf, &len, &r.requestType, ext);
    r.bodyNull = buf == nullptr;
    if (buf != nullptr) r.body.assign(buf, len);
    delete[] buf;
    r.ext.assign(ext, extSize);
    return r;
}

Received ReceiveResponse(CQVIPCLibrary& lib, unsigned long extSize) {
    Received r;
    char* buf = nullptr;
    unsigned long len = 0;
    char ext[48] = {0};
    r.hr = lib.receiveResponse(&r.ipcid, &buf, &len, &r.requestId, ext);
    r.bodyNull = buf == nullptr;
    if (buf != nullptr) r.body.assign(buf, len);
    delete[] buf;
    r.ext.assign(ext, extSize);
    return r;
}

RequestLoop::RequestLoop(CQVIPCLibrary& lib, unsigned long extSize, bool echo)
    : m_lib(lib), m_extSize(extSize), m_echo(echo), m_thread([this] { run(); }) {}

// Finalizes first, so that a test that stops early (a failed ASSERT) ends its loop instead of
// waiting for ever; finalize is safe to repeat.
RequestLoop::~RequestLoop() {
    m_lib.finalize();
    join();
}

void RequestLoop::join() {
    if (m_thread.joinable()) m_thread.join();
}

void RequestLoop::run() {
    for (;;) {
        Received r = ReceiveRequest(m_lib, m_extSize);
        if (r.hr == 0 && m_echo && r.requestType != 0) {
            m_lib.sendResponse(r.ipcid, r.requestId, r.body.data(), r.body.size(),
                               r.ext.empty() ? nullptr : r.ext.data());
        }
        const bool stop = r.hr == QVIPC_E_SHUTDOWN;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_results.push_back(std::move(r));
        }
        if (stop) break;
    }
    m_finished.store(true);
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

bool RequestLoop::waitConnections(size_t n) {
    return qvtest::WaitFor([&] { return connections().size() >= n; }, DEADLINE);
}

bool RequestLoop::waitResult(QVRESULT hr, size_t n) {
    return qvtest::WaitFor(
        [&] {
            size_t count = 0;
            for (const Received& r : results()) count += r.hr == hr ? 1 : 0;
            return count >= n;
        },
        DEADLINE);
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
    clientLoop.reset();
    serverLoop.reset();
}

void ExpectRoundTrip(CQVIPCLibrary& client, const std::string& body) {
    unsigned long id = 0;
    QVRESULT hr = S_OK;
    ASSERT_TRUE(qvtest::WaitFor(
        [&] {
            hr = client.sendRequest(0, body.data(), body.size(), &id, 1, nullptr);
            return hr != QVIPC_E_NO_PIPE;
        },
        DEADLINE));
    ASSERT_EQ(S_OK, hr);
    const Received r = ReceiveResponse(client, 48);
    EXPECT_EQ(S_OK, r.hr);
    EXPECT_EQ(id, r.requestId);
    EXPECT_TRUE(r.body == body);
}

std::string Pattern(size_t n, unsigned seed) {
    std::string s(n, '\0');
    uint32_t x = seed * 2654435761u + static_cast<uint32_t>(n) + 1u;
    for (size_t i = 0; i < n; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        s[i] = static_cast<char>(x);
    }
    return s;
}

std::string AddressOf(ipctest::LineCapture& capture, const std::string& guid, int isServer,
                      bool last) {
    const std::string head = "T/16/2 CQVIPCLibraryImpl::CQVIPCLibraryImpl (";
    const std::string tail = "), guid " + guid + ", isServer " + std::to_string(isServer) + ",";
    std::string found = "0x????????";
    for (const std::string& line : capture.lines()) {
        if (line.compare(0, head.size(), head) == 0 && line.find(tail) == head.size() + 10) {
            found = line.substr(head.size(), 10);
            if (!last) break;
        }
    }
    return found;
}

size_t CountLines(ipctest::LineCapture& capture, const std::string& line) {
    size_t n = 0;
    for (const std::string& l : capture.lines()) n += l == line ? 1 : 0;
    return n;
}

bool WaitLine(ipctest::LineCapture& capture, const std::string& line, size_t n) {
    return qvtest::WaitFor([&] { return CountLines(capture, line) >= n; }, DEADLINE);
}

std::vector<std::string> GuidFiles(const std::string& guid) {
    std::vector<std::string> files;
    if (DIR* d = opendir("/tmp")) {
        // readdir64: a 32-bit readdir stops early (EOVERFLOW) at a 64-bit inode number.
        while (dirent64* e = readdir64(d)) {
            const std::string name = e->d_name;
            // FIFOs only: the id generator's lock file is not the transport's.
            if (name.compare(0, guid.size(), guid) == 0 &&
                name.find("IDGEN") == std::string::npos) {
                files.push_back(name);
            }
        }
        closedir(d);
    }
    return files;
}

namespace {

void put32(std::string& s, size_t offset, uint32_t v) { std::memcpy(&s[offset], &v, 4); }

bool waitReadable(int fd, std::chrono::milliseconds deadline) {
    return qvtest::WaitFor(
        [&] {
            pollfd p{fd, POLLIN, 0};
            return poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0;
        },
        deadline);
}

int openWriteEnd(const std::string& path) {
    int fd = -1;
    qvtest::WaitFor(
        [&] {
            fd = open(path.c_str(), O_WRONLY | O_NONBLOCK);
            return fd != -1;
        },
        DEADLINE);
    return fd;
}

}  // namespace

std::string RequestRecord(uint32_t type, uint32_t requestId, uint32_t connectId, uint32_t pid,
                          uint32_t bodySize, int32_t requestType) {
    std::string s(72, '\0');
    put32(s, 0, type);
    put32(s, 4, requestId);
    put32(s, 8, connectId);
    put32(s, 12, pid);
    put32(s, 16, bodySize);
    put32(s, 20, static_cast<uint32_t>(requestType));
    return s;
}

std::string ResponseRecord(uint32_t type, uint32_t requestId, uint32_t result, uint32_t pid,
                           uint32_t bodySize) {
    std::string s(68, '\0');
    put32(s, 0, type);
    put32(s, 4, requestId);
    put32(s, 8, result);
    put32(s, 12, pid);
    put32(s, 16, bodySize);
    return s;
}

bool WriteAdmin(const std::string& guid, const std::string& bytes) {
    const int fd = openWriteEnd("/tmp/" + guid + "-svr-admin");
    if (fd == -1) return false;
    const bool ok = write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    close(fd);
    return ok;
}

RawClient::RawClient(const std::string& guid, uint32_t connectId)
    : m_guid(guid), m_connectId(connectId) {}

RawClient::~RawClient() { closeAll(); }

std::string RawClient::path(const char* role) const {
    return "/tmp/" + m_guid + "-" + role + "-" + std::to_string(m_connectId) + "-p" +
           std::to_string(getpid());
}

std::string RawClient::adminPath() const { return "/tmp/" + m_guid + "-svr-admin"; }

void RawClient::makeFifos() const {
    for (const char* role : {"svr-req", "svr-rsp", "cli-req", "cli-rsp"}) {
        mknod(path(role).c_str(), S_IFIFO | 0666, 0);
    }
}

bool RawClient::writeConnect() const {
    return WriteAdmin(m_guid,
                      RequestRecord(1, 0, m_connectId, static_cast<uint32_t>(getpid()), 0, 0));
}

bool RawClient::connectWithoutReader() {
    makeFifos();
    return writeConnect();
}

// The request FIFO first: the server opens its write end once, right after the reply FIFO.
void RawClient::openReadEnds() {
    m_recvRequest = open(path("cli-req").c_str(), O_RDONLY | O_NONBLOCK);
    m_recvResponse = open(path("svr-rsp").c_str(), O_RDONLY | O_NONBLOCK);
}

uint32_t RawClient::connect() {
    makeFifos();
    openReadEnds();
    if (!writeConnect()) return ~0u;
    return answerConnect();
}

uint32_t RawClient::answerConnect() {
    if (m_recvResponse == -1) openReadEnds();
    if (!waitReadable(m_recvResponse, DEADLINE)) return ~0u;
    char reply[68];
    if (read(m_recvResponse, reply, sizeof reply) != 68) return ~0u;
    uint32_t result;
    std::memcpy(&result, reply + 8, 4);
    if (result == 0) {
        m_sendRequest = openWriteEnd(path("svr-req"));
        m_sendResponse = openWriteEnd(path("cli-rsp"));
    }
    return result;
}

bool RawClient::sendRaw(const std::string& bytes, bool closeAfter) {
    const bool ok =
        write(m_sendRequest, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    if (closeAfter) {
        close(m_sendRequest);
        m_sendRequest = -1;
    }
    return ok;
}

void RawClient::closeAll() {
    for (int* fd : {&m_recvResponse, &m_recvRequest, &m_sendRequest, &m_sendResponse}) {
        if (*fd != -1) close(*fd);
        *fd = -1;
    }
}

Peer::Peer(const std::string& role, const std::string& guid) {
    // Everything the child needs is built before fork: a threaded process may only exec.
    const std::string exe = qvtest::SelfExe();
    const std::string emulator = qvtest::Emulator();
    const std::string arg = "--peer=" + role + "," + guid;
    std::vector<std::string> args;
    if (!emulator.empty()) args.push_back(emulator);
    args.push_back(exe);
    args.push_back(arg);
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
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = -1;
}

int Peer::wait() {
    if (m_pid <= 0) return -1;
    int status = 0;
    const pid_t pid = waitpid(m_pid, &status, 0);
    m_pid = -1;
    return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunPeer(const std::string& argument) {
    const size_t comma = argument.find(',');
    if (comma == std::string::npos) return 2;
    const std::string role = argument.substr(0, comma);
    const std::string guid = argument.substr(comma + 1);
    if (role == "server") {
        std::unique_ptr<CQVIPCLibrary> server = MakeServer(guid, 8);
        if (server->initialize() != 0) return 3;
        for (;;) {
            Received r = ReceiveRequest(*server, 48);
            if (r.hr == 0 && r.requestType != 0) {
                server->sendResponse(r.ipcid, r.requestId, r.body.data(), r.body.size(),
                                     r.ext.data());
            }
        }
    }
    if (role == "client") {
        std::unique_ptr<CQVIPCLibrary> client = MakeClient(guid);
        if (client->initialize() != 0) return 3;
        const std::string body = Pattern(100, 7);
        for (;;) {
            unsigned long id = 0;
            if (client->sendRequest(0, body.data(), body.size(), &id, 5, nullptr) == 0) {
                ReceiveResponse(*client, 48);
            } else {
                usleep(10000);
            }
        }
    }
    if (role == "swallow-connect") {
        // Takes the first admin record from the service's admin FIFO and dies, as a server
        // killed right after it read a CONNECT.
        const std::string admin = "/tmp/" + guid + "-svr-admin";
        mknod(admin.c_str(), S_IFIFO | 0666, 0);
        const int fd = open(admin.c_str(), O_RDONLY | O_NONBLOCK);
        if (fd == -1) return 3;
        char record[72];
        while (!waitReadable(fd, DEADLINE) || read(fd, record, sizeof record) != 72) {
        }
        uint32_t type = 0;
        std::memcpy(&type, record, 4);
        return type == 1 ? 0 : 4;
    }
    if (role == "readme-server") {
        readme::Server(guid);
        return 0;
    }
    if (role == "exit-client") {
        // Left undestroyed on purpose: only the process's pipe-name registry cleans up. Held by
        // a static, so that a leak checker at exit sees it as reachable.
        static CQVIPCLibrary* client = nullptr;
        client = MakeClient(guid).release();
        if (client->initialize() != 0) return 3;
        const Received r = ReceiveRequest(*client, 48);
        return r.hr == QVIPC_E_NEW_CONNECTION ? 0 : 4;
    }
    return 2;
}

}  // namespace itest
