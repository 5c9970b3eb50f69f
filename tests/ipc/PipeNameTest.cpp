#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "QVIPC/Library-Linux/PipenameRegistry.h"
#include "QVIPC/Library-Linux/QVIPCLibraryImpl.h"
#include "tests/support/TestSupport.h"

namespace {

constexpr unsigned long NO_TIMEOUT = 0xFFFFFFFFul;

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

class PipeNameTest : public testing::Test {
protected:
    void SetUp() override { guid_ = qvtest::TestGuid(); }
    void TearDown() override { qvtest::RemoveGuidFiles(guid_); }
    std::string guid_;
};

TEST_F(PipeNameTest, NamesFollowGuidConnectIdAndProcessId) {
    CQVIPCLibraryImpl impl("Title", guid_, 0, 0, 0, NO_TIMEOUT);
    impl.m_strGuid = "abc";  // the names depend on nothing else of the endpoint
    EXPECT_EQ("/tmp/abc-svr-admin", impl.pipenameServerAdmin());
    EXPECT_EQ("/tmp/abc-svr-req-3-p1234", impl.pipenameServerRequest("3", "1234"));
    EXPECT_EQ("/tmp/abc-svr-rsp-3-p1234", impl.pipenameServerResponse("3", "1234"));
    EXPECT_EQ("/tmp/abc-cli-req-3-p1234", impl.pipenameClientRequest("3", "1234"));
    EXPECT_EQ("/tmp/abc-cli-rsp-3-p1234", impl.pipenameClientResponse("3", "1234"));
    impl.m_strGuid = guid_;
}

TEST_F(PipeNameTest, ClientCleanupRemovesItsFourFifosAndServerCleanupNothing) {
    CQVIPCLibraryImpl client("t", guid_, 0, 0, 0, NO_TIMEOUT);
    CQVIPCLibraryImpl server("t", guid_, 1, 4, 0, NO_TIMEOUT);
    const std::string& c = client.m_strConnectId;
    const std::string& p = client.m_strPid;
    const std::vector<std::string> paths = {
        client.pipenameServerRequest(c, p), client.pipenameServerResponse(c, p),
        client.pipenameClientRequest(c, p), client.pipenameClientResponse(c, p),
        client.pipenameServerAdmin()};
    for (const std::string& path : paths) ASSERT_EQ(0, mknod(path.c_str(), S_IFIFO | 0666, 0));

    server.cleanupPipenames();
    for (const std::string& path : paths) EXPECT_TRUE(exists(path)) << path;
    client.cleanupPipenames();
    for (size_t i = 0; i < 4; ++i) EXPECT_FALSE(exists(paths[i])) << paths[i];
    EXPECT_TRUE(exists(paths[4]));  // the admin FIFO is never removed
    client.cleanupPipenames();      // a second time finds nothing and minds nothing
}

TEST_F(PipeNameTest, RegistryUnlinksEveryPathItWasGivenWhenDestroyed) {
    const std::string a = "/tmp/" + guid_ + "-a";
    const std::string b = "/tmp/" + guid_ + "-b";
    for (const std::string& path : {a, b}) {
        ASSERT_EQ(0, mknod(path.c_str(), S_IFIFO | 0666, 0));
    }
    {
        CPipenameRegistry registry;
        registry.add(a);
        registry.add(b);
        registry.add(a);  // duplicates stay and are harmless
        registry.add("/tmp/" + guid_ + "-never-made");
        EXPECT_EQ(4u, registry.m_pipenames.size());
    }
    EXPECT_FALSE(exists(a));
    EXPECT_FALSE(exists(b));
}

}  // namespace
