// Names of the service in /tmp and /dev/shm that someone else took first, of another kind.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "platform/NamedObject.h"
#include "tests/support/IpcSupport.h"

using namespace qvtest;

namespace {

enum class Kind { LinkToFifo, LinkToFile, DanglingLink, RegularFile, Directory, Fifo };
const char PRECIOUS[] = "precious\n";

mode_t ModeOf(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

std::string ContentOf(const std::string& path) {  // of a regular file
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class HostileTmpTest : public EndpointTest {
public:  // the table below names the entry points
    void SetUp() override {
        EndpointTest::SetUp();
        m_file = "/tmp/" + m_guid + "-target-file";
        m_fifo = "/tmp/" + m_guid + "-target-fifo";
        m_missing = "/tmp/" + m_guid + "-target-missing";
        std::ofstream(m_file) << PRECIOUS;
        ASSERT_EQ(0, mknod(m_fifo.c_str(), S_IFIFO, 0) + chmod(m_fifo.c_str(), 0600) +
                         chmod(m_file.c_str(), 0600));
    }

    void plant(const std::string& path, Kind kind) {
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

    // which: a client's FIFO 0..3, its admin FIFO (4) or a server's (5). A FIFO left over
    // (planted under the umask) is reused with its mode set to 0666.
    void startUp(const std::string& guid, int which, Kind kind) {
        const QVRESULT code = which == 0 || which == 3 ? QVIPC_E_MKNOD : QVIPC_E_CREATE_PIPE;
        CQVIPCLibraryImpl impl("t", guid, which == 5, 2, 0, NO_TIMEOUT);
        const std::string &cid = impl.m_strConnectId, &pid = impl.m_strPid;
        // A client's FIFOs in the order its start-up makes them.
        const std::string paths[] = {
            impl.pipenameServerRequest(cid, pid), impl.pipenameServerResponse(cid, pid),
            impl.pipenameClientRequest(cid, pid), impl.pipenameClientResponse(cid, pid),
            impl.pipenameServerAdmin(),           impl.pipenameServerAdmin()};
        const std::string& path = paths[which];
        plant(path, kind);
        ASSERT_EQ(0, kind == Kind::Fifo ? chmod(path.c_str(), 0600) : 0);
        EXPECT_EQ(kind == Kind::Fifo ? S_OK : code, impl.initialize());
        EXPECT_EQ(kind == Kind::Fifo, ModeOf(path) == (S_IFIFO | 0666));
        // A client tries none of its own FIFOs after a refused admin FIFO.
        EXPECT_EQ((which < 4), (GuidFiles(impl.m_strGuid).size() > 1));
        impl.finalize();
    }

    // A fake client with one of its names taken (0 server request, 1 client response, 2 client
    // request) sends a CONNECT; the server refuses and says so in the reply.
    void connect(const std::string& guid, int place, Kind kind) {
        CQVIPCLibraryImpl server("t", guid, 1, 2, 0, NO_TIMEOUT);
        ASSERT_EQ(S_OK, server.initialize());
        const std::string pid = std::to_string(getpid()), id = "1001";
        const std::string paths[] = {
            server.pipenameServerRequest(id, pid), server.pipenameClientResponse(id, pid),
            server.pipenameClientRequest(id, pid), server.pipenameServerResponse(id, pid)};
        for (int p = 0; p < 4; ++p) plant(paths[p], p == place ? kind : Kind::Fifo);
        const int replyFd = open(paths[3].c_str(), O_RDONLY | O_NONBLOCK);
        const int requestFd = place == 2 ? -1 : open(paths[2].c_str(), O_RDONLY | O_NONBLOCK);
        const int fds = CountOpenFds();
        ASSERT_TRUE(WriteAdmin(server.m_strGuid, Record(qvframe::TYPE_CONNECT, 1001,
                                                        static_cast<uint32_t>(getpid()))));
        unsigned long slot = 0;
        const QVRESULT expected = place == 2 ? QVIPC_E_OPEN_TIMEOUT : QVIPC_E_CREATE_PIPE;
        EXPECT_EQ(expected, server.receiveRequestOnAdminPipe(&slot));
        qvframe::ResponseFrame reply;
        ASSERT_TRUE(ReadFull(replyFd, reply, sizeof reply));
        EXPECT_EQ(expected, qvframe::parseResponse(reply).result);
        EXPECT_EQ(fds, CountOpenFds());
        EXPECT_EQ("", kind == Kind::RegularFile ? ContentOf(paths[place]) : "");
        close(replyFd);
        if (requestFd != -1) close(requestFd);
    }

    // The id generator's lock file (1) or shared block (0): the constructor throws E_FAIL.
    void named(const std::string& guid, int lock, Kind kind) {
        plant(
            lock != 0 ? mutexLockPath(guid + "-IDGENMTX") : sharedMemoryPath(guid + "-IDGENSHMEM"),
            kind);
        unsigned long thrown = 0;
        try {
            CQVIPCLibraryImpl impl("t", guid, 1, 2, 0, NO_TIMEOUT);
        } catch (unsigned long code) {
            thrown = code;
        }
        EXPECT_EQ(static_cast<unsigned long>(E_FAIL), thrown);
    }

    std::string m_file, m_fifo, m_missing;
};

TEST_F(HostileTmpTest, NameOfAnotherKindIsRefusedAndNothingActsThroughIt) {
    using F = HostileTmpTest;
    const struct {
        void (HostileTmpTest::*entry)(const std::string&, int, Kind);
        int which;
        Kind kind;
    } rows[] = {{&F::startUp, 0, Kind::DanglingLink}, {&F::startUp, 1, Kind::Directory},
                {&F::startUp, 2, Kind::LinkToFile},   {&F::startUp, 3, Kind::RegularFile},
                {&F::startUp, 4, Kind::LinkToFifo},   {&F::startUp, 5, Kind::RegularFile},
                {&F::startUp, 5, Kind::Fifo},         {&F::connect, 0, Kind::LinkToFifo},
                {&F::connect, 1, Kind::RegularFile},  {&F::connect, 2, Kind::RegularFile},
                {&F::named, 1, Kind::Fifo},           {&F::named, 0, Kind::DanglingLink}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << (&row - rows));
        m_moreGuids.push_back(TestGuid());
        (this->*row.entry)(m_moreGuids.back(), row.which, row.kind);
        // No chmod, no write, no file made through a link.
        EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0600), ModeOf(m_file));
        EXPECT_EQ(PRECIOUS, ContentOf(m_file));
        EXPECT_EQ(static_cast<mode_t>(S_IFIFO | 0600), ModeOf(m_fifo));
        EXPECT_EQ(0u, ModeOf(m_missing));
    }
}

}  // namespace
