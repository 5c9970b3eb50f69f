// 64-bit directory offsets on i686 too (see tests/support/TestSupport.cpp).
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "QVIPC/Library-Linux/IDGen.h"
#include "QVIPC/Library-Linux/PipeIO.h"
#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "QVIPC/QVIPCLibrary/QVIPCLibrary.h"
#include "platform/TraceUtility.h"
#include "tests/ipc/IpcTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

class ConstructionTest : public testing::Test {
protected:
    void SetUp() override { guid_ = qvtest::TestGuid(); }
    void TearDown() override {
        qvtest::RemoveGuidFiles(guid_);
        for (const std::string& g : extraGuids_) qvtest::RemoveGuidFiles(g);
    }

    // The code the constructor throws with, or 0 when it does not throw.
    long thrownCode(int isServer, unsigned long maxConnections, unsigned long headerExtSize) {
        try {
            CQVIPCLibrary lib("t", guid_, isServer, maxConnections, headerExtSize, NO_TIMEOUT);
        } catch (const LQException& e) {
            return e.code;
        }
        return 0;
    }

    std::vector<std::string> entriesWith(const char* dir) {
        std::vector<std::string> found;
        if (DIR* d = opendir(dir)) {
            while (dirent* e = readdir(d)) {
                if (std::string(e->d_name).find(guid_) != std::string::npos) {
                    found.push_back(e->d_name);
                }
            }
            closedir(d);
        }
        return found;
    }

    std::string guid_;
    std::vector<std::string> extraGuids_;  // guids derived from guid_, cleaned up too
};

TEST_F(ConstructionTest, ChecksRunInOrderAndTheExtensionCheckPrecedesEverything) {
    struct Case {
        const char* what;
        int isServer;
        unsigned long maxConnections;
        unsigned long headerExtSize;
        uint32_t code;
    };
    const Case cases[] = {
        {"extension 48 accepted", 1, 10, 48, 0},
        {"extension 49 refused", 0, 1, 49, QVIPC_E_HEADER_EXT_SIZE},
        {"extension before clients", 1, 64, 49, QVIPC_E_HEADER_EXT_SIZE},
        {"63 clients accepted", 1, 63, 0, 0},
        {"64 clients refused", 1, 64, 0, QVIPC_E_TOO_MANY_CLIENTS},
        {"slot count wraps to 0", 1, 0xFFFFFFFFul, 0, 0},
        {"client ignores the count", 0, 1000, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(static_cast<long>(c.code),
                  thrownCode(c.isServer, c.maxConnections, c.headerExtSize));
        EXPECT_EQ(nullptr, g_ptu);  // every reference was dropped again
    }
}

TEST_F(ConstructionTest, RefusedExtensionCreatesNoTraceUtilityAndNoSharedObject) {
    ipctest::LineCapture capture;
    EXPECT_EQ(static_cast<long>(QVIPC_E_HEADER_EXT_SIZE), thrownCode(1, 1, 49));
    EXPECT_FALSE(exists("/dev/shm/" + guid_ + "-IDGENSHMEM"));
    EXPECT_FALSE(exists("/tmp/" + guid_ + "-IDGENMTX.lock"));
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(ConstructionTest, SlotCountAndWriterFollowTheArguments) {
    struct Case {
        const char* what;
        int isServer;
        unsigned long maxConnections;
        unsigned long sto;
        unsigned long slots;
        bool synchronous;
    };
    const Case cases[] = {
        {"server 63", 1, 63, NO_TIMEOUT, 64, true},
        {"server 0", 1, 0, 0, 1, false},
        {"server wraps", 1, 0xFFFFFFFFul, 5, 0, false},
        {"client", 0, 63, 1, 2, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CQVIPCLibraryImpl impl("t", guid_, c.isServer, c.maxConnections, 0, c.sto);
        EXPECT_EQ(c.slots, impl.m_maxConnections);
        EXPECT_EQ(c.sto, impl.m_sendTimeout);
        EXPECT_EQ(c.synchronous, dynamic_cast<CPIPEIOSynchronous*>(impl.m_pPipeIO) != nullptr);
        EXPECT_EQ(!c.synchronous, dynamic_cast<CPIPEIOAsynchronous*>(impl.m_pPipeIO) != nullptr);
        EXPECT_EQ(c.isServer, impl.m_connected.load());
    }
}

TEST_F(ConstructionTest, FreshEndpointHoldsNoDescriptorAndStartsItsCounters) {
    const int fdsBefore = qvtest::CountOpenFds();
    CQVIPCLibraryImpl impl("My Title", guid_, 0, 0, 12, NO_TIMEOUT);
    EXPECT_EQ(fdsBefore, qvtest::CountOpenFds());
    EXPECT_EQ("My Title", impl.m_strTitle);
    EXPECT_EQ(12ul, impl.m_headerExtSize);
    EXPECT_EQ(1ul, impl.m_nextRequestId);
    EXPECT_EQ(std::to_string(getpid()), impl.m_strPid);
    EXPECT_EQ(0, impl.m_initialized.load());
    EXPECT_EQ(0, impl.m_shutdown.load());
    EXPECT_EQ(-1, impl.m_maxRequestSlot);
    EXPECT_EQ(-1, impl.m_maxResponseSlot);
    EXPECT_EQ(-1, impl.m_fdmaxRecvRequest);
    EXPECT_EQ(-1, impl.m_fdmaxRecvResponse);
    EXPECT_EQ(-1, impl.m_adminResponsePipe[0]);
    EXPECT_EQ(-1, impl.m_adminResponsePipe[1]);
    for (int s = 0; s < QVIPC_MAX_SLOTS; ++s) {
        SCOPED_TRACE(s);
        EXPECT_EQ(-1, impl.m_fdsSendRequest[s]);
        EXPECT_EQ(-1, impl.m_fdsRecvResponse[s]);
        EXPECT_EQ(-1, impl.m_fdsRecvRequest[s]);
        EXPECT_EQ(-1, impl.m_fdsSendResponse[s]);
        EXPECT_EQ(0ul, impl.m_slotPid[s]);
    }
    // The id generator's two files are all that exists of the service; its lock file is open
    // only while the lock is held.
    EXPECT_EQ(std::vector<std::string>({guid_ + "-IDGENMTX.lock"}), entriesWith("/tmp"));
    EXPECT_EQ(std::vector<std::string>({guid_ + "-IDGENSHMEM"}), entriesWith("/dev/shm"));
}

TEST_F(ConstructionTest, FacadeLowersTheGuidAndKeepsItsFirst63Characters) {
    struct Case {
        std::string given;
        std::string expected;
    };
    const Case cases[] = {
        {"My-Svc-" + guid_, ("my-svc-" + guid_).substr(0, 63)},
        {guid_ + std::string(100, 'X'), (guid_ + std::string(100, 'x')).substr(0, 63)},
    };
    for (const Case& c : cases) {
        const std::string& expected = c.expected;
        SCOPED_TRACE(expected);
        extraGuids_.push_back(expected);
        ipctest::LineCapture capture;
        {
            CQVIPCLibrary lib("Title", c.given, 0, 0, 0, 7);
            const std::vector<std::string> lines = capture.lines();
            ASSERT_FALSE(lines.empty());
            EXPECT_NE(std::string::npos, lines[0].find(", guid " + expected + ", isServer 0"));
            EXPECT_TRUE(exists("/dev/shm/" + expected + "-IDGENSHMEM"));
        }
    }
}

TEST_F(ConstructionTest, ConstructorTracesItsArgumentsWordForWord) {
    ipctest::LineCapture capture;
    std::unique_ptr<CQVIPCLibraryImpl> server(
        new CQVIPCLibraryImpl("t", guid_, 1, 5, 0, NO_TIMEOUT));
    std::unique_ptr<CQVIPCLibraryImpl> client(new CQVIPCLibraryImpl("t", guid_, 0, 5, 0, 30));
    const std::vector<std::string> lines = capture.lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("T/16/2 CQVIPCLibraryImpl::CQVIPCLibraryImpl (" + ipctest::addressText(server.get()) +
                  "), guid " + guid_ + ", isServer 1, sto -1",
              lines[0]);
    EXPECT_EQ("T/16/2 CQVIPCLibraryImpl::CQVIPCLibraryImpl (" + ipctest::addressText(client.get()) +
                  "), guid " + guid_ + ", isServer 0, sto 30",
              lines[1]);
}

}  // namespace
