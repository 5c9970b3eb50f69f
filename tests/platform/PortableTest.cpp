// CPortable: number texts, named threads, sleeping through signals.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <climits>
#include <string>
#include <thread>

#include "platform/Portable.h"
#include "tests/support/TestSupport.h"

namespace {

TEST(PortableTest, NumberTextsAsTheCLibraryWritesThem) {
    char buf[72];
    for (long v : {0L, 7L, -1234L, long(INT_MAX), long(INT_MIN), LONG_MIN, LONG_MAX}) {
        EXPECT_EQ(std::to_string(v), CPortable::ltoa(v, buf, 10));
        EXPECT_EQ(std::to_string(int(v)), CPortable::itoa(int(v), buf, 10));
        EXPECT_EQ(std::to_string(static_cast<unsigned long long>(v)),
                  CPortable::ulltos(static_cast<unsigned long long>(v)));
    }
    // Other radices print the bits of the value's own width; a radix out of range prints nothing.
    const std::pair<int, const char*> radices[] = {
        {16, "ffffffff"}, {36, "1z141z3"}, {1, ""}, {37, ""}};
    for (const auto& r : radices)
        EXPECT_STREQ(r.second, CPortable::itoa(-1, buf, r.first)) << r.first;
    EXPECT_STREQ("z", CPortable::ltoa(35, buf, 36));
    EXPECT_STREQ("101", CPortable::ltoa(5, buf, 2));
    EXPECT_EQ(ULLONG_MAX, CPortable::stoull("99999999999999999999999"));
    EXPECT_EQ(42ull, CPortable::stoull("  42xyz") + CPortable::stoull("abc"));
    char guid[] = "My-GUID_\xC3\x84Z";  // ASCII only, whatever the locale
    EXPECT_STREQ("my-guid_\xC3\x84z", CPortable::strlwr(guid));
}

TEST(PortableTest, CreateThreadRunsDetachedWithItsNameCutToFifteenCharacters) {
    static char name[16];
    static std::atomic<bool> named{false};
    const auto probe = [](void*) -> void* {
        pthread_getname_np(pthread_self(), name, sizeof name);
        named = true;
        return nullptr;
    };
    unsigned long id = 0;
    ASSERT_NE(0, CPortable::CreateThread(probe, nullptr, &id, "QVConnect-and-a-long-tail"));
    EXPECT_NE(0ul, id);
    ASSERT_TRUE(qvtest::WaitFor([] { return named.load(); }, std::chrono::seconds(10)));
    EXPECT_STREQ("QVConnect-and-a", name);
}

// Signals interrupt nanosleep(), with or without SA_RESTART; the sleep goes on with what is left.
TEST(PortableTest, SleepLastsItsTimeThroughSignals) {
    ASSERT_NE(SIG_ERR, signal(SIGUSR1, [](int) {}));
    std::atomic<long long> slept{-1};
    std::thread sleeper([&] {
        const unsigned long long start = CPortable::GetTickCountULL();
        CPortable::Sleep(100);
        slept.store(static_cast<long long>(CPortable::GetTickCountULL() - start));
    });
    while (slept.load() < 0) {
        pthread_kill(sleeper.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    sleeper.join();
    EXPECT_GE(slept.load(), 100);
}

}  // namespace
