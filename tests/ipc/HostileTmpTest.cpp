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

#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "platform/NamedObject.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

enum class Kind { LinkToFifo, LinkToFile, DanglingLink, RegularFile, Directory, Fifo };
const Kind NOT_A_FIFO[] = {Kind::LinkToFifo, Kind::LinkToFile, Kind::DanglingLink,
                           Kind::RegularFile, Kind::Directory};
const char PRECIOUS[] = "precious\n";

mode_t ModeOf(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

std::string ContentOf(const std::string& path) {
    std::string s;
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    char buf[256];
    for (ssize_t n; fd >= 0 && (n = read(fd, buf, sizeof buf)) > 0;) {
        s.append(buf, static_cast<size_t>(n));
    }
    if (fd >= 0) close(fd);
    return s;
}

class HostileTmpTest : public EndpointTest {
protected:
    void SetUp() override {
        EndpointTest::SetUp();
        m_file = "/tmp/" + m_guid + "-target-file";
        m_fifo = "/tmp/" + m_guid + "-target-fifo";
        m_missing = "/tmp/" + m_guid + "-target-missing";
        const int fd = open(m_file.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
        ASSERT_TRUE(fd >= 0 && WriteFull(fd, PRECIOUS, sizeof PRECIOUS - 1));
        close(fd);
        ASSERT_EQ(0, mknod(m_fifo.c_str(), S_IFIFO | 0600, 0));
        ASSERT_EQ(0, chmod(m_fifo.c_str(), 0600));
    }
    void TearDown() override {
        for (const std::string& p : m_planted) rmdir(p.c_str());
        EndpointTest::TearDown();
    }

    std::string newGuid() {
        m_moreGuids.push_back(TestGuid());
        return m_moreGuids.back();
    }

    void plant(const std::string& path, Kind kind) {
        m_planted.push_back(path);
        const char* const target = kind == Kind::LinkToFifo   ? m_fifo.c_str()
                                   : kind == Kind::LinkToFile ? m_file.c_str()
                                                              : m_missing.c_str();
        const int rc = kind == Kind::RegularFile
                           ? close(open(path.c_str(), O_WRONLY | O_CREAT, 0666))
                       : kind == Kind::Directory ? mkdir(path.c_str(), 0777)
                       : kind == Kind::Fifo      ? mknod(path.c_str(), S_IFIFO | 0666, 0)
                                                 : symlink(target, path.c_str());
        ASSERT_EQ(0, rc) << path;
    }

    // Nothing reached the targets: no chmod, no write, no file made through a link.
    void expectTargetsUntouched() {
        EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0600), ModeOf(m_file));
        EXPECT_EQ(PRECIOUS, ContentOf(m_file));
        EXPECT_EQ(static_cast<mode_t>(S_IFIFO | 0600), ModeOf(m_fifo));
        EXPECT_EQ(0u, ModeOf(m_missing));
    }

    std::vector<std::string> m_planted;
    std::string m_file, m_fifo, m_missing;
};

TEST_F(HostileTmpTest, NameOfAnotherKindFailsStartUpWithThatFifosCode) {
    using PathFn = std::string (CQVIPCLibraryImpl::*)(const std::string&, const std::string&) const;
    struct Fifo {
        int isServer;
        PathFn path;  // null: the admin FIFO
        QVRESULT code;
    };
    const Fifo fifos[] = {{1, nullptr, QVIPC_E_CREATE_PIPE},
                          {0, nullptr, QVIPC_E_CREATE_PIPE},
                          {0, &CQVIPCLibraryImpl::pipenameServerRequest, QVIPC_E_MKNOD},
                          {0, &CQVIPCLibraryImpl::pipenameServerResponse, QVIPC_E_CREATE_PIPE},
                          {0, &CQVIPCLibraryImpl::pipenameClientRequest, QVIPC_E_CREATE_PIPE},
                          {0, &CQVIPCLibraryImpl::pipenameClientResponse, QVIPC_E_MKNOD}};
    for (const Fifo& fifo : fifos) {
        for (const Kind kind : NOT_A_FIFO) {
            CQVIPCLibraryImpl impl("t", newGuid(), fifo.isServer, 2, 0, NO_TIMEOUT);
            const std::string& c = impl.m_strConnectId;
            const std::string path = fifo.path != nullptr ? (impl.*fifo.path)(c, impl.m_strPid)
                                                          : impl.pipenameServerAdmin();
            SCOPED_TRACE(path + ", kind " + std::to_string(static_cast<int>(kind)));
            plant(path, kind);
            const int fds = CountOpenFds();
            EXPECT_EQ(fifo.code, impl.initialize());
            // Nothing stays open, and a client tries none of its FIFOs after the admin FIFO.
            EXPECT_EQ(fds, CountOpenFds());
            EXPECT_EQ(fifo.path != nullptr, GuidFiles(impl.m_strGuid).size() > 1);
            expectTargetsUntouched();
        }
    }
}

// A fake client that has made its FIFOs, with one name taken by something else, sends a
// CONNECT; the server refuses and tells it so in the reply.
TEST_F(HostileTmpTest, ServerAnswersAConnectWhoseFifoIsOfAnotherKindWithTheDesignedCode) {
    CQVIPCLibraryImpl server("t", newGuid(), 1, 2, 0, NO_TIMEOUT);
    ASSERT_EQ(S_OK, server.initialize());
    const std::string pid = std::to_string(getpid());
    uint32_t connectId = 1000;
    // The server's request FIFO, the client's response FIFO, the client's request FIFO.
    for (int place = 0; place < 3; ++place) {
        for (const Kind kind : NOT_A_FIFO) {
            const std::string id = std::to_string(++connectId);
            const std::string paths[] = {server.pipenameServerRequest(id, pid),
                                         server.pipenameClientResponse(id, pid),
                                         server.pipenameClientRequest(id, pid)};
            SCOPED_TRACE(paths[place] + ", kind " + std::to_string(static_cast<int>(kind)));
            const std::string replyPath = server.pipenameServerResponse(id, pid);
            ASSERT_EQ(0, mknod(replyPath.c_str(), S_IFIFO | 0666, 0));
            const int replyFd = open(replyPath.c_str(), O_RDONLY | O_NONBLOCK);
            for (int p = 0; p < 3; ++p) {
                if (p == place) {
                    plant(paths[p], kind);
                } else {
                    ASSERT_EQ(0, mknod(paths[p].c_str(), S_IFIFO | 0666, 0));
                }
            }
            // The client's own read end of its request FIFO.
            const int requestFd = place == 2 ? -1 : open(paths[2].c_str(), O_RDONLY | O_NONBLOCK);
            const int fds = CountOpenFds();
            ASSERT_TRUE(WriteAdmin(server.m_strGuid, Record(qvframe::TYPE_CONNECT, connectId,
                                                            static_cast<uint32_t>(getpid()))));
            unsigned long slot = 0;
            const QVRESULT expected = place == 2 ? QVIPC_E_OPEN_TIMEOUT : QVIPC_E_CREATE_PIPE;
            EXPECT_EQ(expected, server.receiveRequestOnAdminPipe(&slot));
            qvframe::ResponseFrame reply;
            ASSERT_TRUE(ReadFull(replyFd, reply, sizeof reply));
            EXPECT_EQ(expected, qvframe::parseResponse(reply).result);
            EXPECT_EQ(fds, CountOpenFds());
            if (kind == Kind::RegularFile) {
                EXPECT_EQ("", ContentOf(paths[place]));
            }
            expectTargetsUntouched();
            close(replyFd);
            if (requestFd != -1) close(requestFd);
        }
    }
}

TEST_F(HostileTmpTest, ClientConnectThreadNeitherOpensNorWritesThroughAnotherKind) {
    // The read ends that the thread makes: refused, the attempt not begun.
    for (const Kind kind : NOT_A_FIFO) {
        CQVIPCLibraryImpl client("t", newGuid(), 0, 0, 0, NO_TIMEOUT);
        const std::string& cid = client.m_strConnectId;
        const std::string& pid = client.m_strPid;
        ASSERT_EQ(0, mknod(client.pipenameServerResponse(cid, pid).c_str(), S_IFIFO | 0666, 0));
        plant(client.pipenameClientRequest(cid, pid), kind);
        EXPECT_FALSE(client.makeClientReadEnds());
        expectTargetsUntouched();
    }
    // The admin FIFO swapped after start-up: the thread keeps trying, as when no server runs,
    // and its CONNECT never lands in the file.
    for (const Kind kind : {Kind::LinkToFile, Kind::RegularFile}) {
        CQVIPCLibraryImpl client("t", newGuid(), 0, 0, 0, NO_TIMEOUT);
        const std::string admin = client.pipenameServerAdmin();
        const size_t tries = m_capture.count("can't open fdSendAdmin " + admin);
        ASSERT_EQ(S_OK, client.initialize());
        ASSERT_EQ(0, unlink(admin.c_str()));
        plant(admin, kind);
        ASSERT_TRUE(m_capture.wait("can't open fdSendAdmin " + admin, tries + 2));
        client.finalize();
        if (kind == Kind::RegularFile) {
            EXPECT_EQ("", ContentOf(admin));
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
    auto receive = [&] {
        Received r;
        char* body = nullptr;
        unsigned long len = 0;
        r.hr = server.receiveRequestPrimaryServer(&r.ipcid, &r.id, &body, &len, &r.type, nullptr);
        if (body != nullptr) r.body.assign(body, len);
        delete[] body;
        return r;
    };
    Received connected;
    std::thread serverThread([&] { connected = receive(); });
    const bool up = WaitFor([&] { return client.m_connected.load() != 0; }, DEADLINE);
    if (!up) server.finalize();
    serverThread.join();
    ASSERT_TRUE(up);
    EXPECT_EQ(QVIPC_E_NEW_CONNECTION, connected.hr);
    for (const std::string& path : leftovers) {
        EXPECT_EQ(static_cast<mode_t>(S_IFIFO | 0666), ModeOf(path)) << path;
    }
    unsigned long sentId = 0;
    ASSERT_EQ(S_OK, client.sendRequest(0, "hi", 2, &sentId, 7, nullptr));
    const Received r = receive();
    EXPECT_EQ(S_OK, r.hr);
    EXPECT_EQ("hi", r.body);
    EXPECT_EQ(sentId, r.id);
    client.finalize();
    server.finalize();
}

// The id generator's lock file and shared block: a name of another kind makes the endpoint's
// constructor throw E_FAIL, as for any named object that cannot be made.
TEST_F(HostileTmpTest, LockOrSharedMemoryNameOfAnotherKindFailsConstruction) {
    for (const bool lock : {true, false}) {
        for (const Kind kind :
             {Kind::LinkToFile, Kind::DanglingLink, Kind::Fifo, Kind::Directory}) {
            const std::string guid = newGuid();
            const std::string path =
                lock ? mutexLockPath(guid + "-IDGENMTX") : sharedMemoryPath(guid + "-IDGENSHMEM");
            SCOPED_TRACE(path + ", kind " + std::to_string(static_cast<int>(kind)));
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
