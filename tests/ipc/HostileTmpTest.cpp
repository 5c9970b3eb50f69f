// Names of the service in /tmp and /dev/shm that someone else took first: a symbolic link, a
// regular file, a directory or a FIFO where another kind belongs. The endpoint must fail with
// its designed code and never act through the link; the right kind left over from an earlier
// run is reused.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "QVIPC/Library-Linux/Framing.h"
#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "platform/NamedObject.h"
#include "tests/ipc/IpcTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;
constexpr std::chrono::milliseconds DEADLINE(10000);
const char PRECIOUS[] = "precious\n";

enum class Kind { LinkToFifo, LinkToFile, DanglingLink, RegularFile, Directory, Fifo };

const char* kindName(Kind k) {
    static const char* const NAMES[] = {"link to a FIFO", "link to a file", "dangling link",
                                        "regular file",   "directory",      "FIFO"};
    return NAMES[static_cast<int>(k)];
}

// What the refusal reports: O_NOFOLLOW's ELOOP for a link, EEXIST for a file of another kind.
int refusalErrno(Kind k) {
    return k == Kind::LinkToFifo || k == Kind::LinkToFile || k == Kind::DanglingLink ? ELOOP
                                                                                     : EEXIST;
}

const Kind NOT_A_FIFO[] = {Kind::LinkToFifo, Kind::LinkToFile, Kind::DanglingLink,
                           Kind::RegularFile, Kind::Directory};

mode_t modeOf(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

std::string contentOf(const std::string& path) {
    std::string s;
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) return s;
    char buf[256];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) s.append(buf, static_cast<size_t>(n));
    close(fd);
    return s;
}

bool hasLine(ipctest::LineCapture& capture, const std::string& line) {
    const std::vector<std::string> lines = capture.lines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

class HostileTmpTest : public testing::Test {
protected:
    void SetUp() override {
        guid_ = newGuid();
        fileTarget_ = "/tmp/" + guid_ + "-target-file";
        fifoTarget_ = "/tmp/" + guid_ + "-target-fifo";
        missingTarget_ = "/tmp/" + guid_ + "-target-missing";
        const int fd = open(fileTarget_.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(static_cast<ssize_t>(sizeof PRECIOUS - 1),
                  write(fd, PRECIOUS, sizeof PRECIOUS - 1));
        close(fd);
        ASSERT_EQ(0, mknod(fifoTarget_.c_str(), S_IFIFO | 0600, 0));
        ASSERT_EQ(0, chmod(fifoTarget_.c_str(), 0600));
    }

    void TearDown() override {
        for (const std::string& p : planted_) rmdir(p.c_str());
        for (const std::string& g : guids_) qvtest::RemoveGuidFiles(g);
    }

    std::string newGuid() {
        guids_.push_back(qvtest::TestGuid());
        return guids_.back();
    }

    void plant(const std::string& path, Kind kind) {
        planted_.push_back(path);
        int rc = 0;
        switch (kind) {
            case Kind::LinkToFifo:
                rc = symlink(fifoTarget_.c_str(), path.c_str());
                break;
            case Kind::LinkToFile:
                rc = symlink(fileTarget_.c_str(), path.c_str());
                break;
            case Kind::DanglingLink:
                rc = symlink(missingTarget_.c_str(), path.c_str());
                break;
            case Kind::RegularFile:
                rc = close(open(path.c_str(), O_WRONLY | O_CREAT, 0666));
                break;
            case Kind::Directory:
                rc = mkdir(path.c_str(), 0777);
                break;
            case Kind::Fifo:
                rc = mknod(path.c_str(), S_IFIFO | 0666, 0);
                break;
        }
        ASSERT_EQ(0, rc) << path;
    }

    // Nothing reached the targets: no chmod, no write, no file created through a link.
    void expectTargetsUntouched() {
        EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0600), modeOf(fileTarget_));
        EXPECT_EQ(PRECIOUS, contentOf(fileTarget_));
        EXPECT_EQ(static_cast<mode_t>(S_IFIFO | 0600), modeOf(fifoTarget_));
        EXPECT_EQ(0u, modeOf(missingTarget_));
    }

    std::string guid_;
    std::vector<std::string> guids_;
    std::vector<std::string> planted_;
    std::string fileTarget_, fifoTarget_, missingTarget_;
};

TEST_F(HostileTmpTest, AdminNameOfAnotherKindFailsServerAndClientStartUp) {
    for (const int isServer : {1, 0}) {
        for (const Kind kind : NOT_A_FIFO) {
            SCOPED_TRACE(std::string(isServer ? "server, " : "client, ") + kindName(kind));
            ipctest::LineCapture capture;
            CQVIPCLibraryImpl impl("t", newGuid(), isServer, 2, 0, NO_TIMEOUT);
            const std::string admin = impl.pipenameServerAdmin();
            plant(admin, kind);
            EXPECT_EQ(QVIPC_E_CREATE_PIPE, impl.initialize());
            EXPECT_TRUE(hasLine(capture,
                                "L/0/64 (Error) CQVIPCLibraryImpl::initialize, can't mknod "
                                "fifo " +
                                    admin + ", errno " + std::to_string(refusalErrno(kind))));
            // A client tries none of its own FIFOs after the admin FIFO failed.
            EXPECT_EQ(0u, modeOf(impl.pipenameServerRequest(impl.m_strConnectId, impl.m_strPid)));
            expectTargetsUntouched();
        }
    }
}

TEST_F(HostileTmpTest, ClientFifoNameOfAnotherKindFailsStartUpWithThatFifosCode) {
    using PathFn = std::string (CQVIPCLibraryImpl::*)(const std::string&, const std::string&) const;
    struct Fifo {
        PathFn path;
        QVRESULT code;
    };
    const Fifo fifos[] = {{&CQVIPCLibraryImpl::pipenameServerRequest, QVIPC_E_MKNOD},
                          {&CQVIPCLibraryImpl::pipenameServerResponse, QVIPC_E_CREATE_PIPE},
                          {&CQVIPCLibraryImpl::pipenameClientRequest, QVIPC_E_CREATE_PIPE},
                          {&CQVIPCLibraryImpl::pipenameClientResponse, QVIPC_E_MKNOD}};
    for (const Fifo& fifo : fifos) {
        for (const Kind kind : NOT_A_FIFO) {
            ipctest::LineCapture capture;
            CQVIPCLibraryImpl impl("t", newGuid(), 0, 0, 0, NO_TIMEOUT);
            const std::string path = (impl.*fifo.path)(impl.m_strConnectId, impl.m_strPid);
            SCOPED_TRACE(path + ", " + kindName(kind));
            plant(path, kind);
            EXPECT_EQ(fifo.code, impl.initialize());
            EXPECT_TRUE(hasLine(capture,
                                "L/0/64 (Error) CQVIPCLibraryImpl::initialize, can't mknod "
                                "fifo " +
                                    path + ", errno " + std::to_string(refusalErrno(kind))));
            EXPECT_EQ(0, impl.m_connectThreadRunning.load());
            expectTargetsUntouched();
        }
    }
}

// A fake client that has made its FIFOs, with one name taken by something else, sends a
// CONNECT; the server refuses and tells it so in the reply.
TEST_F(HostileTmpTest, ServerAnswersAConnectWhoseFifoIsOfAnotherKindWithTheDesignedCode) {
    enum Place { SERVER_REQUEST, CLIENT_RESPONSE, CLIENT_REQUEST };
    ipctest::LineCapture capture;
    CQVIPCLibraryImpl server("t", newGuid(), 1, 2, 0, NO_TIMEOUT);
    ASSERT_EQ(S_OK, server.initialize());
    const std::string addr = ipctest::addressText(&server);
    const int adminFd = open(server.pipenameServerAdmin().c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(adminFd, 0);
    const std::string pid = std::to_string(getpid());
    uint32_t connectId = 1000;
    for (const Place place : {SERVER_REQUEST, CLIENT_RESPONSE, CLIENT_REQUEST}) {
        for (const Kind kind : NOT_A_FIFO) {
            const std::string id = std::to_string(++connectId);
            const std::string paths[] = {server.pipenameServerRequest(id, pid),
                                         server.pipenameClientResponse(id, pid),
                                         server.pipenameClientRequest(id, pid)};
            SCOPED_TRACE(paths[place] + ", " + kindName(kind));
            const std::string replyPath = server.pipenameServerResponse(id, pid);
            ASSERT_EQ(0, mknod(replyPath.c_str(), S_IFIFO | 0666, 0));
            const int replyFd = open(replyPath.c_str(), O_RDONLY | O_NONBLOCK);
            int requestFd = -1;  // the client's own read end of its request FIFO
            for (int p = SERVER_REQUEST; p <= CLIENT_REQUEST; ++p) {
                if (p == place) {
                    plant(paths[p], kind);
                } else {
                    ASSERT_EQ(0, mknod(paths[p].c_str(), S_IFIFO | 0666, 0));
                }
            }
            if (place != CLIENT_REQUEST) {
                requestFd = open(paths[CLIENT_REQUEST].c_str(), O_RDONLY | O_NONBLOCK);
            }

            qvframe::RequestFrame connect;
            qvframe::RequestHeader h;
            h.type = QVIPC_REQUEST_CONNECT;
            h.connectId = connectId;
            h.pid = static_cast<uint32_t>(getpid());
            qvframe::buildRequest(connect, h, nullptr, 0);
            ASSERT_EQ(static_cast<ssize_t>(sizeof connect),
                      write(adminFd, connect, sizeof connect));
            unsigned long slot = 0;
            const QVRESULT expected =
                place == CLIENT_REQUEST ? QVIPC_E_OPEN_TIMEOUT : QVIPC_E_CREATE_PIPE;
            EXPECT_EQ(expected, server.receiveRequestOnAdminPipe(&slot));

            qvframe::ResponseFrame reply;
            ASSERT_EQ(static_cast<ssize_t>(sizeof reply), read(replyFd, reply, sizeof reply));
            uint32_t replied = 0;
            memcpy(&replied, reply + qvframe::RSP_RESULT, sizeof replied);
            EXPECT_EQ(expected, replied);
            const std::string err = std::to_string(refusalErrno(kind));
            EXPECT_TRUE(hasLine(
                capture, place == CLIENT_REQUEST
                             ? "L/0/64 (Error)CQVIPCLibraryImpl::receiveRequestOnAdminPipe (" +
                                   addr + "), opening " + paths[place] + ", " + err
                             : "L/0/64 (Error) CQVIPCLibraryImpl::receiveRequestOnAdminPipe (" +
                                   addr + "), creating " + paths[place] + ", " + err));
            EXPECT_EQ(-1, server.m_fdsRecvResponse[1]);
            if (kind == Kind::RegularFile) {
                EXPECT_EQ("", contentOf(paths[place]));
            }
            expectTargetsUntouched();
            close(replyFd);
            if (requestFd != -1) close(requestFd);
        }
    }
    close(adminFd);
}

TEST_F(HostileTmpTest, ClientConnectThreadNeitherOpensNorWritesThroughAnotherKind) {
    // The read ends that the thread makes: refused, the attempt not begun. (The reply FIFO is
    // made anew by every attempt; the request FIFO is used as found.)
    for (const Kind kind : NOT_A_FIFO) {
        ipctest::LineCapture capture;
        CQVIPCLibraryImpl client("t", newGuid(), 0, 0, 0, NO_TIMEOUT);
        const std::string& cid = client.m_strConnectId;
        const std::string& pid = client.m_strPid;
        ASSERT_EQ(0, mknod(client.pipenameServerResponse(cid, pid).c_str(), S_IFIFO | 0666, 0));
        const std::string path = client.pipenameClientRequest(cid, pid);
        SCOPED_TRACE(path + ", " + kindName(kind));
        plant(path, kind);
        EXPECT_FALSE(client.makeClientReadEnds());
        EXPECT_TRUE(hasLine(capture,
                            "L/0/64 (Error) CQVIPCLibraryImpl::connectThreadFunc, can't "
                            "create recv pipe " +
                                path + ", errno " + std::to_string(refusalErrno(kind))));
        expectTargetsUntouched();
    }
    // The admin FIFO swapped after start-up: the thread keeps trying, as when no server runs,
    // and its CONNECT never lands in the file.
    for (const Kind kind : {Kind::LinkToFile, Kind::RegularFile}) {
        SCOPED_TRACE(kindName(kind));
        ipctest::LineCapture capture;
        CQVIPCLibraryImpl client("t", newGuid(), 0, 0, 0, NO_TIMEOUT);
        const std::string admin = client.pipenameServerAdmin();
        ASSERT_EQ(S_OK, client.initialize());
        ASSERT_EQ(0, unlink(admin.c_str()));
        plant(admin, kind);
        const std::string line =
            "T/16/64 (Error) CQVIPCLibraryImpl::connectThreadFunc, can't open "
            "fdSendAdmin " +
            admin + ", errno " + std::to_string(refusalErrno(kind));
        EXPECT_TRUE(qvtest::WaitFor([&] { return hasLine(capture, line); }, DEADLINE));
        client.finalize();
        if (kind == Kind::RegularFile) {
            EXPECT_EQ("", contentOf(admin));
        }
        expectTargetsUntouched();
    }
}

TEST_F(HostileTmpTest, LeftoverFifosOfTheRightKindAreReusedWithModeRestored) {
    const std::string guid = newGuid();
    CQVIPCLibraryImpl server("t", guid, 1, 2, 0, NO_TIMEOUT);
    CQVIPCLibraryImpl client("t", guid, 0, 0, 0, NO_TIMEOUT);
    const std::string& cid = client.m_strConnectId;
    const std::string& pid = client.m_strPid;
    const std::string leftovers[] = {
        server.pipenameServerAdmin(), client.pipenameServerRequest(cid, pid),
        client.pipenameServerResponse(cid, pid), client.pipenameClientRequest(cid, pid),
        client.pipenameClientResponse(cid, pid)};
    for (const std::string& path : leftovers) {
        ASSERT_EQ(0, mknod(path.c_str(), S_IFIFO | 0600, 0));
        ASSERT_EQ(0, chmod(path.c_str(), 0600));
    }
    ASSERT_EQ(S_OK, server.initialize());
    ASSERT_EQ(S_OK, client.initialize());

    // The whole connection runs over them: connect and one request.
    std::atomic<QVRESULT> connectResult{S_OK};
    std::thread serverThread([&] {
        unsigned long ipcid = 0, requestId = 0, len = 0;
        char* body = nullptr;
        int type = 0;
        connectResult =
            server.receiveRequestPrimaryServer(&ipcid, &requestId, &body, &len, &type, nullptr);
        delete[] body;
    });
    const bool connected =
        qvtest::WaitFor([&] { return client.m_connected.load() != 0; }, DEADLINE);
    if (!connected) server.finalize();
    serverThread.join();
    ASSERT_TRUE(connected);
    EXPECT_EQ(QVIPC_E_NEW_CONNECTION, connectResult.load());
    // Looked at once connected: the connect thread makes the reply FIFO anew meanwhile.
    for (const std::string& path : leftovers) {
        EXPECT_EQ(static_cast<mode_t>(S_IFIFO | 0666), modeOf(path)) << path;
    }
    unsigned long sentId = 0;
    ASSERT_EQ(S_OK, client.sendRequest(0, "hi", 2, &sentId, 7, nullptr));
    unsigned long ipcid = 0, requestId = 0, len = 0;
    char* body = nullptr;
    int type = 0;
    EXPECT_EQ(S_OK,
              server.receiveRequestPrimaryServer(&ipcid, &requestId, &body, &len, &type, nullptr));
    EXPECT_EQ("hi", std::string(body, len));
    EXPECT_EQ(sentId, requestId);
    delete[] body;
    client.finalize();
    server.finalize();
}

// The id generator's lock file and shared block: a name of another kind makes the endpoint's
// constructor throw E_FAIL, as for any named object that cannot be made.
TEST_F(HostileTmpTest, LockOrSharedMemoryNameOfAnotherKindFailsConstruction) {
    const Kind kinds[] = {Kind::LinkToFile, Kind::DanglingLink, Kind::Fifo, Kind::Directory};
    for (const bool lock : {true, false}) {
        for (const Kind kind : kinds) {
            const std::string guid = newGuid();
            const std::string path =
                lock ? mutexLockPath(guid + "-IDGENMTX") : sharedMemoryPath(guid + "-IDGENSHMEM");
            SCOPED_TRACE(path + ", " + kindName(kind));
            plant(path, kind);
            unsigned long thrown = 0;
            try {
                CQVIPCLibraryImpl impl("t", guid, 1, 2, 0, NO_TIMEOUT);
            } catch (unsigned long code) {
                thrown = code;
            }
            EXPECT_EQ(static_cast<unsigned long>(E_FAIL), thrown);
            expectTargetsUntouched();
        }
    }
}

}  // namespace
