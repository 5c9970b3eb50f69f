// The live endpoint that the transport fuzz targets feed: one in-process server (an echo loop)
// and one good client connected to it, created once and kept across inputs. After each input the
// good client must still get its probe answered byte for byte; every wait is bounded by a
// watchdog that aborts, so a hang shows as a crash.
#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "tests/support/IpcSupport.h"

namespace transportfuzz {

namespace {

using qvtest::RemoveGuidFiles;
using qvtest::WriteFull;
using Clock = std::chrono::steady_clock;
constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;
constexpr unsigned long EXT_SIZE = 48;
constexpr size_t REQUEST_HEADER = 72;
// A connect id no real endpoint of this process draws; its FIFOs are made and read by the
// harness, so that a fuzzed CONNECT is answered at once instead of waiting 20 s for a peer.
constexpr uint32_t FAKE_CONNECT_ID = 0x7FFFFFF0u;
constexpr uint32_t FAKE_PID = 1;
// A probe that is not answered in this time (reconnect included) is a hang.
constexpr auto PROBE_DEADLINE = std::chrono::seconds(30);

uint32_t Word(const uint8_t* p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

void SetWord(uint8_t* p, uint32_t v) { memcpy(p, &v, sizeof v); }

class Live {
public:
    Live()
        : m_guid("fuzztransport-" + std::to_string(getpid())),
          m_server("fuzz", m_guid, 1, 4, EXT_SIZE, NO_TIMEOUT),
          m_client("fuzz", m_guid, 0, 0, EXT_SIZE, NO_TIMEOUT) {
        m_watchdog = std::thread([this] { watch(); });
        makeFakeClient();
        if (m_server.initialize() != 0 || m_client.initialize() != 0) fail("initialize failed");
        m_serverLoop = std::thread([this] { serve(); });
        m_clientLoop = std::thread([this] { drainClientRequests(); });
        // The admin FIFO's fill level is read through a descriptor that never reads.
        m_adminProbe = open(path("-svr-admin").c_str(), O_RDONLY | O_NONBLOCK);
        probe();
        requestPath();  // learns the good client's connect id, which admin inputs must spare
    }

    ~Live() {
        m_client.finalize();
        m_server.finalize();
        m_stop.store(true);
        m_serverLoop.join();
        m_clientLoop.join();
        m_watchdog.join();
        for (int fd : {m_adminProbe, m_fakeResponse, m_fakeRequest}) {
            if (fd >= 0) close(fd);
        }
        RemoveGuidFiles(m_guid);
    }

    // Admin records: whole 72-byte records in one write; a trailing fragment is written alone
    // once the FIFO is empty, as only a writer that tears its own record can produce one (the
    // design does not resynchronise the admin FIFO). A CONNECT is pointed at the fake client
    // and a DISCONNECT of the good client at an unknown id: the rest of the record is kept.
    void feedAdmin(const uint8_t* data, size_t size) {
        std::vector<uint8_t> bytes(data, data + std::min<size_t>(size, 20 * REQUEST_HEADER));
        const size_t whole = bytes.size() / REQUEST_HEADER * REQUEST_HEADER;
        for (size_t pos = 0; pos < whole; pos += REQUEST_HEADER) {
            uint8_t* rec = bytes.data() + pos;
            if (Word(rec) == 1) {
                SetWord(rec + 8, FAKE_CONNECT_ID);
                SetWord(rec + 12, FAKE_PID);
            } else if (Word(rec) == 2 && Word(rec + 8) == m_clientConnectId) {
                SetWord(rec + 8, m_clientConnectId ^ 0x40000000u);
            }
        }
        arm("admin input");
        writeAdmin(bytes.data(), whole);
        waitAdminEmpty();
        if (whole < bytes.size()) {
            writeAdmin(bytes.data() + whole, bytes.size() - whole);
            waitAdminEmpty();
        }
        // Free the slot that a fuzzed CONNECT may have given the fake client.
        uint8_t disconnect[REQUEST_HEADER] = {0};
        SetWord(disconnect, 2);
        SetWord(disconnect + 8, FAKE_CONNECT_ID);
        SetWord(disconnect + 12, FAKE_PID);
        SetWord(disconnect + 20, 1);
        writeAdmin(disconnect, sizeof disconnect);
        waitAdminEmpty();
        drainFake();
        probe();
    }

    // Bytes written by a second writer into the good client's own request FIFO continue that
    // client's stream, so "still answered" means: every frame is read as the framing says, and
    // the next probe is answered, on the same connection when the bytes end on a frame
    // boundary, after a reconnect when they end in a torn header (a short header read breaks
    // the connection). To keep that decidable, body sizes of data frames are cut to the input's
    // size and a body the input leaves unfinished is completed with zeros; the whole is written
    // in one atomic write while the good client is idle.
    void feedRequest(const uint8_t* data, size_t size) {
        std::vector<uint8_t> bytes(data, data + std::min<size_t>(size, 1800));
        size_t pos = frameEnd(bytes);
        // A torn header costs a reconnect (two seconds of the design's pauses); only a tail of
        // exactly 24 bytes stays torn, any other is completed to a whole header.
        const size_t tail = bytes.size() - std::min(pos, bytes.size());
        if (tail != 0 && tail != 24) {
            bytes.resize(pos + REQUEST_HEADER, 0);
            pos = frameEnd(bytes);
        }
        if (pos > bytes.size()) bytes.resize(pos, 0);
        arm("request input");
        const int fd = open(requestPath().c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0) {
            // Blocking from here: the one write is atomic (below PIPE_BUF). The probe waits
            // until the server has read everything: written earlier, its header would complete
            // a torn one and be taken as part of the fuzzed stream.
            const int level = open(requestPath().c_str(), O_RDONLY | O_NONBLOCK);
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
            if (!bytes.empty() && !WriteFull(fd, bytes.data(), bytes.size())) fail("write failed");
            close(fd);
            if (level >= 0) {
                waitEmpty(level);
                close(level);
            }
        }
        probe();
    }

private:
    // Cuts the body sizes of data frames, marks their ids and returns where the last frame that
    // begins within the bytes ends (past their end when its body is unfinished).
    static size_t frameEnd(std::vector<uint8_t>& bytes) {
        size_t pos = 0;
        while (pos + REQUEST_HEADER <= bytes.size()) {
            uint8_t* rec = bytes.data() + pos;
            pos += REQUEST_HEADER;
            if (Word(rec) != 3) continue;  // unknown types: the header alone is consumed
            // Fuzzed frames carry ids that the good client never draws, so that their echoes
            // cannot be taken for the answer to its probe.
            SetWord(rec + 4, Word(rec + 4) | 0x80000000u);
            const uint32_t body = Word(rec + 16) % 1801u;
            SetWord(rec + 16, body);
            pos += body;
        }
        return pos;
    }

    std::string path(const std::string& role) const { return "/tmp/" + m_guid + role; }

    [[noreturn]] void fail(const char* what) const {
        fprintf(stderr, "transport fuzz: %s\n", what);
        abort();
    }

    void arm(const char* what) {
        m_what.store(what);
        m_deadline.store((Clock::now() + PROBE_DEADLINE).time_since_epoch().count());
    }

    void watch() {
        while (!m_stop.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            const auto deadline = m_deadline.load();
            if (deadline != 0 && Clock::now().time_since_epoch().count() > deadline) {
                fprintf(stderr, "transport fuzz: hang after %s\n", m_what.load());
                abort();
            }
        }
    }

    void makeFakeClient() {
        const std::string ids = std::to_string(FAKE_CONNECT_ID) + "-p" + std::to_string(FAKE_PID);
        for (const char* role : {"-svr-req-", "-svr-rsp-", "-cli-req-", "-cli-rsp-"}) {
            const std::string p = path(role) + ids;
            mkfifo(p.c_str(), 0666);
        }
        m_fakeResponse = open((path("-svr-rsp-") + ids).c_str(), O_RDONLY | O_NONBLOCK);
        m_fakeRequest = open((path("-cli-req-") + ids).c_str(), O_RDONLY | O_NONBLOCK);
        if (m_fakeResponse < 0 || m_fakeRequest < 0) fail("fake client FIFOs");
    }

    void drainFake() {
        uint8_t buf[4096];
        for (int fd : {m_fakeResponse, m_fakeRequest}) {
            while (read(fd, buf, sizeof buf) > 0) {
            }
        }
    }

    void writeAdmin(const uint8_t* data, size_t size) {
        if (size == 0) return;
        const int fd = open(path("-svr-admin").c_str(), O_WRONLY);
        if (fd < 0 || !WriteFull(fd, data, size)) fail("admin write failed");
        close(fd);
    }

    void waitAdminEmpty() { waitEmpty(m_adminProbe); }

    void waitEmpty(int fd) {
        for (;;) {
            int pending = 0;
            if (ioctl(fd, FIONREAD, &pending) != 0) fail("FIONREAD");
            if (pending == 0) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    // The good client's server-request FIFO: named after its connect id and this process.
    std::string requestPath() {
        if (m_requestPath.empty()) {
            const std::string prefix = m_guid + "-svr-req-";
            const std::string suffix = "-p" + std::to_string(getpid());
            DIR* d = opendir("/tmp");
            while (dirent* e = d != nullptr ? readdir(d) : nullptr) {
                const std::string name = e->d_name;
                if (name.compare(0, prefix.size(), prefix) == 0 && name.size() > suffix.size() &&
                    name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
                    m_requestPath = "/tmp/" + name;
                    m_clientConnectId =
                        static_cast<uint32_t>(strtoul(name.c_str() + prefix.size(), nullptr, 10));
                }
            }
            if (d != nullptr) closedir(d);
        }
        return m_requestPath;
    }

    // The request readers: the server's echoes every data request that it reads from a
    // client; the client's takes in the connect notifications (which clear its reconnect
    // throttle).
    void serve() { readRequests(m_server, true); }
    void drainClientRequests() { readRequests(m_client, false); }

    static void readRequests(CQVIPCLibrary& lib, bool echo) {
        for (;;) {
            unsigned long ipcid = 0, id = 0, len = 0;
            char* buf = nullptr;
            int type = 0;
            char ext[EXT_SIZE] = {0};
            const QVRESULT hr = lib.receiveRequest(&ipcid, &id, &buf, &len, &type, ext);
            if (echo && hr == 0 && ipcid != 0) lib.sendResponse(ipcid, id, buf, len, ext);
            delete[] buf;
            if (hr == QVIPC_E_SHUTDOWN) break;
            if (!echo && hr != 0 && hr != QVIPC_E_NEW_CONNECTION) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
    }

    // One round trip of the good client with a full extension; responses to other ids (echoes
    // of fuzzed frames) are skipped, a broken connection is waited out and the probe sent again.
    void probe() {
        arm("probe");
        ++m_probes;
        std::string body(static_cast<size_t>(m_probes % 97), '\0');
        for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 7 + m_probes);
        char ext[EXT_SIZE];
        for (size_t i = 0; i < EXT_SIZE; ++i) ext[i] = static_cast<char>(m_probes + i);
        for (;;) {
            unsigned long id = 0;
            if (m_client.sendRequest(0, body.data(), body.size(), &id, 7, ext) != 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                continue;
            }
            for (;;) {
                unsigned long ipcid = 0, rid = 0, len = 0;
                char* buf = nullptr;
                char rext[EXT_SIZE] = {0};
                const QVRESULT hr = m_client.receiveResponse(&ipcid, &buf, &len, &rid, rext);
                const bool mine = hr == 0 && rid == id;
                const bool same = mine && len == body.size() &&
                                  (len == 0 || memcmp(buf, body.data(), len) == 0) &&
                                  memcmp(rext, ext, EXT_SIZE) == 0;
                delete[] buf;
                if (mine && !same) fail("probe answered with other bytes");
                if (mine) {
                    m_deadline.store(0);
                    return;
                }
                if (hr != 0) break;  // connection broken: send again once reconnected
            }
        }
    }

    std::string m_guid;
    CQVIPCLibrary m_server;
    CQVIPCLibrary m_client;
    std::thread m_serverLoop;
    std::thread m_clientLoop;
    std::thread m_watchdog;
    std::atomic<bool> m_stop{false};
    std::atomic<Clock::rep> m_deadline{0};
    std::atomic<const char*> m_what{""};
    int m_adminProbe = -1;
    int m_fakeResponse = -1;
    int m_fakeRequest = -1;
    std::string m_requestPath;
    uint32_t m_clientConnectId = 0;
    unsigned m_probes = 0;
};

Live& TheLive() {
    // Built on first use and torn down at exit, so that its FIFOs leave /tmp.
    static Live live;
    return live;
}

}  // namespace

void FeedAdmin(const uint8_t* data, size_t size) { TheLive().feedAdmin(data, size); }

void FeedRequest(const uint8_t* data, size_t size) { TheLive().feedRequest(data, size); }

}  // namespace transportfuzz
