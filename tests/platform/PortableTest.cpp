#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <string>

#include "platform/Portable.h"
#include "tests/support/TestSupport.h"

namespace {

TEST(PortableTest, ItoaAndLtoaFormatDecimalWithSignAndOtherRadicesUnsigned) {
    struct Case {
        long value;
        int radix;
        const char* text;
    };
    const Case cases[] = {
        {0, 10, "0"},
        {7, 10, "7"},
        {-1, 10, "-1"},
        {1234, 10, "1234"},
        {-1234, 10, "-1234"},
        {INT_MAX, 10, "2147483647"},
        {INT_MIN, 10, "-2147483648"},
        {255, 16, "ff"},
        {5, 2, "101"},
        {-1, 16, "ffffffff"},
        {35, 36, "z"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        char buf[34];
        EXPECT_STREQ(c.text, CPortable::itoa(static_cast<int>(c.value), buf, c.radix));
        if (c.value >= 0 || c.radix == 10) {
            EXPECT_STREQ(c.text, CPortable::ltoa(c.value, buf, c.radix));
        }
    }
    char buf[72];
    EXPECT_EQ(std::to_string(LONG_MIN), CPortable::ltoa(LONG_MIN, buf, 10));
    EXPECT_STREQ("", CPortable::itoa(5, buf, 1));
    EXPECT_STREQ("", CPortable::itoa(5, buf, 37));
}

TEST(PortableTest, UnsignedLongLongConversionsRoundTripAndFollowStrtoull) {
    EXPECT_EQ("0", CPortable::ulltos(0));
    EXPECT_EQ("18446744073709551615", CPortable::ulltos(ULLONG_MAX));
    EXPECT_EQ(ULLONG_MAX, CPortable::stoull("18446744073709551615"));
    EXPECT_EQ(ULLONG_MAX, CPortable::stoull("99999999999999999999999"));
    EXPECT_EQ(42ull, CPortable::stoull("  42xyz"));
    EXPECT_EQ(0ull, CPortable::stoull("abc"));
    EXPECT_EQ(0ull, CPortable::stoull(""));
    EXPECT_EQ(4294967296ull, CPortable::stoull("4294967296"));
}

TEST(PortableTest, StrlwrLowersAsciiOnlyInPlace) {
    char text[] = "My-Service-GUID_\xC3\x84Z";
    EXPECT_EQ(text, CPortable::strlwr(text));
    EXPECT_STREQ("my-service-guid_\xC3\x84z", text);
    EXPECT_EQ(nullptr, CPortable::strlwr(nullptr));
}

TEST(PortableTest, SleepWaitsAtLeastTheTimeOnTheMonotonicClock) {
    const unsigned long long before = CPortable::GetTickCountULL();
    CPortable::Sleep(30);
    EXPECT_GE(CPortable::GetTickCountULL() - before, 30ull);
}

struct ThreadProbe {
    std::atomic<int> ran{0};
    char name[16] = {};
};

void* probeEntry(void* p) {
    ThreadProbe* probe = static_cast<ThreadProbe*>(p);
    pthread_getname_np(pthread_self(), probe->name, sizeof(probe->name));
    probe->ran.store(1);
    return nullptr;
}

TEST(PortableTest, CreateThreadRunsDetachedWithItsNameCutToFifteenCharacters) {
    ThreadProbe probe;
    unsigned long id = 0;
    ASSERT_NE(0, CPortable::CreateThread(probeEntry, &probe, &id, "QVConnect-and-a-long-tail"));
    EXPECT_NE(0ul, id);
    ASSERT_TRUE(qvtest::WaitFor([&] { return probe.ran.load() != 0; }, std::chrono::seconds(10)));
    EXPECT_STREQ("QVConnect-and-a", probe.name);
}

}  // namespace

// The process id is cached; a child made by fork() must still report its own.
TEST(PortableTest, ProcessIdIsTheChildsOwnAfterFork) {
    ASSERT_EQ(static_cast<unsigned long>(getpid()), CPortable::GetCurrentProcessId());
    const pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        _exit(CPortable::GetCurrentProcessId() == static_cast<unsigned long>(getpid()) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
}
