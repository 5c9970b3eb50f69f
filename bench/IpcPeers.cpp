#include "bench/IpcPeers.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "bench/BenchSupport.h"

#ifdef QVBENCH_HAVE_ZMQ
#include <zmq.h>
#endif

namespace qvbench {
namespace {

void Put32(unsigned char* frame, size_t offset, uint32_t value) {
    std::memcpy(frame + offset, &value, sizeof value);
}

uint32_t Get32(const unsigned char* frame, size_t offset) {
    uint32_t value;
    std::memcpy(&value, frame + offset, sizeof value);
    return value;
}

bool WritevFull(int fd, iovec* iov, int count) {
    while (count > 0) {
        const ssize_t n = writev(fd, iov, count);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        size_t done = static_cast<size_t>(n);
        while (count > 0 && done >= iov->iov_len) {
            done -= iov->iov_len;
            ++iov;
            --count;
        }
        if (count > 0) {
            iov->iov_base = static_cast<char*>(iov->iov_base) + done;
            iov->iov_len -= done;
        }
    }
    return true;
}

bool RawSendResponse(int fd, uint32_t id, const char* body, uint32_t len) {
    unsigned char header[RESPONSE_HEADER] = {};
    Put32(header, 0, 3);
    Put32(header, 4, id);
    Put32(header, 16, len);
    iovec iov[2] = {{header, sizeof header}, {const_cast<char*>(body), len}};
    return WritevFull(fd, iov, len != 0 ? 2 : 1);
}

// Reads one request; false at end of file.
bool RawReadRequest(int fd, uint32_t* id, int32_t* op, std::unique_ptr<char[]>* body,
                    uint32_t* len) {
    unsigned char header[REQUEST_HEADER];
    if (!ReadFull(fd, header, sizeof header)) return false;
    *id = Get32(header, 4);
    *len = Get32(header, 16);
    *op = static_cast<int32_t>(Get32(header, 20));
    // The previous body goes first, as a caller of the library frees each body before the next
    // receive: allocating before freeing would fault fresh pages in for every large body.
    body->reset();
    body->reset(*len != 0 ? new char[*len] : nullptr);
    return *len == 0 || ReadFull(fd, body->get(), *len);
}

// Answers one request; false when the server should stop.
bool RawAnswer(int wfd, uint32_t id, int32_t op, const char* body, uint32_t len) {
    switch (op) {
        case OP_ECHO:
            return RawSendResponse(wfd, id, body, len);
        case OP_FLUSH:
            return RawSendResponse(wfd, id, nullptr, 0);
        case OP_ONE_WAY:
            return true;
        default:
            return false;
    }
}

int OpenOrDie(const char* path, int flags) {
    const int fd = open(path, flags);
    if (fd < 0) _exit(2);
    return fd;
}

// A raw FIFO server for many clients, the classic shape: one select() over every request FIFO.
int SelectServer(const std::string& prefix, int n) {
    std::vector<int> req(n), rsp(n);
    for (int i = 0; i < n; ++i) {
        req[i] = OpenOrDie((prefix + "-req-" + std::to_string(i)).c_str(), O_RDONLY | O_NONBLOCK);
        fcntl(req[i], F_SETFL, 0);
    }
    for (int i = 0; i < n; ++i)
        rsp[i] = OpenOrDie((prefix + "-rsp-" + std::to_string(i)).c_str(), O_WRONLY);
    int open = n;
    std::unique_ptr<char[]> body;
    while (open > 0) {
        fd_set set;
        FD_ZERO(&set);
        int maxFd = -1;
        for (int i = 0; i < n; ++i) {
            if (req[i] < 0) continue;
            FD_SET(req[i], &set);
            if (req[i] > maxFd) maxFd = req[i];
        }
        if (select(maxFd + 1, &set, nullptr, nullptr, nullptr) < 0) {
            if (errno == EINTR) continue;
            return 3;
        }
        for (int i = 0; i < n; ++i) {
            if (req[i] < 0 || !FD_ISSET(req[i], &set)) continue;
            uint32_t id = 0, len = 0;
            int32_t op = 0;
            if (!RawReadRequest(req[i], &id, &op, &body, &len) ||
                !RawAnswer(rsp[i], id, op, body.get(), len)) {
                close(req[i]);
                close(rsp[i]);
                req[i] = -1;
                --open;
            }
        }
    }
    return 0;
}

// The library's server: echoes, swallows or acknowledges as the request type says.
int QvServer(const std::string& guid, unsigned long maxConnections, int readyFd) {
    CQVIPCLibrary server("bench server", guid, 1, maxConnections, BENCH_EXT_SIZE,
                         BENCH_SEND_TIMEOUT);
    if (server.initialize() != S_OK) return 2;
    const char ready = 'r';
    WriteFull(readyFd, &ready, 1);
    for (;;) {
        unsigned long ipcid = 0, id = 0, len = 0;
        char* body = nullptr;
        int type = 0;
        const QVRESULT rc = server.receiveRequest(&ipcid, &id, &body, &len, &type, nullptr);
        std::unique_ptr<char[]> owned(body);
        if (rc == QVIPC_E_SHUTDOWN) break;
        if (rc != S_OK) continue;
        if (type == OP_ECHO) {
            server.sendResponse(ipcid, id, body, len, nullptr);
        } else if (type == OP_FLUSH) {
            server.sendResponse(ipcid, id, nullptr, 0, nullptr);
        } else if (type == OP_STOP) {
            break;
        }
    }
    server.finalize();
    return 0;
}

// Sends how many round trips were done, as one 4-byte write (atomic on a pipe).
void ReportCount(int fd, uint32_t count) { WriteFull(fd, &count, sizeof count); }

// One of many clients: connects, says it is ready, waits for the start, does round trips of
// 100 bytes for the given milliseconds and reports their count.
int ManyClient(const std::string& kind, const std::string& a, const std::string& b, int ms,
               int readyFd, int startFd) {
    const auto duration = std::chrono::milliseconds(ms);
    const std::string body(100, 'c');
    char token = 'r';
    if (kind == "fifo") {
        const int wfd = OpenOrDie(a.c_str(), O_WRONLY);
        const int rfd = OpenOrDie(b.c_str(), O_RDONLY);
        WriteFull(readyFd, &token, 1);
        if (!ReadFull(startFd, &token, 1)) return 2;
        std::unique_ptr<char[]> reply;
        uint32_t len = 0;
        uint32_t done = 0;
        for (const Clock::time_point t0 = Clock::now(); Clock::now() - t0 < duration; ++done) {
            if (!RawSendRequest(wfd, done, OP_ECHO, body.data(), 100) ||
                !RawReadResponse(rfd, &reply, &len)) {
                return 3;
            }
        }
        ReportCount(readyFd, done);
        close(wfd);
        close(rfd);
        return 0;
    }
    CQVIPCLibrary client("bench client", a, 0, 0, BENCH_EXT_SIZE, BENCH_SEND_TIMEOUT);
    if (client.initialize() != S_OK) return 2;
    for (;;) {
        unsigned long ipcid = 0, id = 0, len = 0;
        char* got = nullptr;
        int type = 0;
        const QVRESULT rc = client.receiveRequest(&ipcid, &id, &got, &len, &type, nullptr);
        delete[] got;
        if (rc == QVIPC_E_NEW_CONNECTION) break;
        if (rc == QVIPC_E_SHUTDOWN) return 2;
    }
    WriteFull(readyFd, &token, 1);
    if (!ReadFull(startFd, &token, 1)) return 2;
    uint32_t done = 0;
    for (const Clock::time_point t0 = Clock::now(); Clock::now() - t0 < duration; ++done) {
        unsigned long id = 0;
        if (client.sendRequest(0, body.data(), 100, &id, OP_ECHO, nullptr) != S_OK) return 3;
        for (;;) {
            unsigned long ipcid = 0, len = 0, rid = 0;
            char* reply = nullptr;
            const QVRESULT rc = client.receiveResponse(&ipcid, &reply, &len, &rid, nullptr);
            delete[] reply;
            if (rc != S_OK) return 3;
            if (rid == id) break;
        }
    }
    ReportCount(readyFd, done);
    client.finalize();
    return 0;
}

#ifdef QVBENCH_HAVE_ZMQ
// REP (echo) or PULL (one-way, acknowledging a flush on ackFd) bound to endpoint.
int ZmqServer(bool pull, const std::string& endpoint, int ackFd) {
    void* ctx = zmq_ctx_new();
    void* sock = zmq_socket(ctx, pull ? ZMQ_PULL : ZMQ_REP);
    if (zmq_bind(sock, endpoint.c_str()) != 0) return 2;
    const char ready = 'r';
    WriteFull(ackFd, &ready, 1);
    bool running = true;
    while (running) {
        zmq_msg_t header, body;
        zmq_msg_init(&header);
        zmq_msg_init(&body);
        if (zmq_msg_recv(&header, sock, 0) < 0) break;
        if (zmq_msg_more(&header)) zmq_msg_recv(&body, sock, 0);
        const unsigned char* h = static_cast<const unsigned char*>(zmq_msg_data(&header));
        const int32_t op = zmq_msg_size(&header) >= REQUEST_HEADER
                               ? static_cast<int32_t>(Get32(h, 20))
                               : static_cast<int32_t>(OP_STOP);
        if (op == OP_STOP) running = false;
        if (pull) {
            if (op == OP_FLUSH) WriteFull(ackFd, &ready, 1);
        } else {
            unsigned char reply[RESPONSE_HEADER] = {};
            Put32(reply, 0, 3);
            Put32(reply, 4, Get32(h, 4));
            const size_t len = op == OP_ECHO ? zmq_msg_size(&body) : 0;
            Put32(reply, 16, static_cast<uint32_t>(len));
            zmq_send(sock, reply, sizeof reply, len != 0 ? ZMQ_SNDMORE : 0);
            if (len != 0) zmq_send(sock, zmq_msg_data(&body), len, 0);
        }
        zmq_msg_close(&header);
        zmq_msg_close(&body);
    }
    zmq_close(sock);
    zmq_ctx_term(ctx);
    return 0;
}
#endif

}  // namespace

bool RawSendRequest(int fd, uint32_t id, int32_t op, const char* body, uint32_t len) {
    unsigned char header[REQUEST_HEADER] = {};
    Put32(header, 0, 3);
    Put32(header, 4, id);
    Put32(header, 16, len);
    Put32(header, 20, static_cast<uint32_t>(op));
    iovec iov[2] = {{header, sizeof header}, {const_cast<char*>(body), len}};
    return WritevFull(fd, iov, len != 0 ? 2 : 1);
}

bool RawReadResponse(int fd, std::unique_ptr<char[]>* body, uint32_t* len) {
    unsigned char header[RESPONSE_HEADER];
    if (!ReadFull(fd, header, sizeof header)) return false;
    *len = Get32(header, 16);
    // The previous body goes first, as a caller of the library frees each body before the next
    // receive: allocating before freeing would fault fresh pages in for every large body.
    body->reset();
    body->reset(*len != 0 ? new char[*len] : nullptr);
    return *len == 0 || ReadFull(fd, body->get(), *len);
}

void RawServe(int rfd, int wfd, bool libraryCalls) {
    std::unique_ptr<char[]> body;
    for (;;) {
        if (libraryCalls) {
            // What the library's server adds per message: a select() before the read, a
            // zero-time poll() of the slot, and getpid() for the response header.
            fd_set set;
            FD_ZERO(&set);
            FD_SET(rfd, &set);
            if (select(rfd + 1, &set, nullptr, nullptr, nullptr) < 0 && errno != EINTR) return;
            pollfd p = {rfd, POLLIN, 0};
            poll(&p, 1, 0);
        }
        uint32_t id = 0, len = 0;
        int32_t op = 0;
        if (!RawReadRequest(rfd, &id, &op, &body, &len)) return;
        if (libraryCalls) benchmark::DoNotOptimize(getpid());
        if (!RawAnswer(wfd, id, op, body.get(), len)) return;
    }
}

int RunPeer(int argc, char** argv) {
    // argv: program "--peer" MODE ARGS...
    if (argc < 3) return 1;
    const std::string mode = argv[2];
    auto arg = [&](int i) { return std::string(i + 3 < argc ? argv[i + 3] : ""); };
    auto num = [&](int i) { return std::atoi(arg(i).c_str()); };
    if (mode == "fifo-echo") {
        const int rfd = OpenOrDie(arg(0).c_str(), O_RDONLY);
        const int wfd = OpenOrDie(arg(1).c_str(), O_WRONLY);
        RawServe(rfd, wfd, arg(2) == "library-calls");
        return 0;
    }
    if (mode == "socket-echo") {
        RawServe(num(0), num(0), false);
        return 0;
    }
    if (mode == "select-server") return SelectServer(arg(0), num(1));
    if (mode == "qvipc-server") return QvServer(arg(0), static_cast<unsigned long>(num(1)), num(2));
    if (mode == "many-client") return ManyClient(arg(0), arg(1), arg(2), num(3), num(4), num(5));
#ifdef QVBENCH_HAVE_ZMQ
    if (mode == "zmq-rep") return ZmqServer(false, arg(0), num(1));
    if (mode == "zmq-pull") return ZmqServer(true, arg(0), num(1));
#endif
    return 1;
}

}  // namespace qvbench
