// Every allocation of a parse, of updates and of a copy fails in turn; the global operators count.
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>

#include "json/JSONMessage.h"
#include "json/JSONPrettyPrint.h"
#include "tests/json/TreeText.h"

namespace {

thread_local long t_allocationsBeforeFailure = -1;  // -1: none is failed
std::atomic<long> g_blocks{0}, g_bytes{0}, g_allocations{0};

void* Allocate(std::size_t size, bool nothrow = false) {
    void* p = nullptr;
    if (t_allocationsBeforeFailure != 0) p = std::malloc(size != 0 ? size : 1);
    t_allocationsBeforeFailure -= t_allocationsBeforeFailure > 0 ? 1 : 0;
    if (p == nullptr) {
        t_allocationsBeforeFailure = -1;  // one failure only: cleaning up may allocate again
        if (nothrow) return nullptr;
        throw std::bad_alloc();
    }
    ++g_blocks;
    ++g_allocations;
    g_bytes += static_cast<long>(malloc_usable_size(p));
    return p;
}

void Free(void* p) {
    if (p == nullptr) return;
    --g_blocks;
    g_bytes -= static_cast<long>(malloc_usable_size(p));
    std::free(p);
}

}  // namespace

void* operator new(std::size_t n) { return Allocate(n); }
void* operator new[](std::size_t n) { return Allocate(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return Allocate(n, true); }
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return Allocate(n, true); }
void operator delete(void* p) noexcept { Free(p); }
void operator delete[](void* p) noexcept { Free(p); }
void operator delete(void* p, std::size_t) noexcept { Free(p); }
void operator delete[](void* p, std::size_t) noexcept { Free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { Free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { Free(p); }

namespace {

const char* const DOC = R"({"a":[1,{"b":[true,"x",{"c":{}}]},[[],[2]]],"d":{"e":"f"},"g":[null]})";
const char* const EDITED =
    R"({"a":[1,"flat",[[],[2]],null,null,2.5],"d":{"e":1},"g":[null],"h":"owned","i":true})";

// A parse into what the message held; updates that add, replace, grow and release; copies.
void Edit(JSON::Message& m) {
    m.Parse(DOC);
    m.Set("h", "owned");
    m["a"].Set(5, 2.5);
    m["d"].Set("e", 1);
    m["a"].Set(1, "flat");
    JSON::Message copy(m);
    copy.Set("i", true);
    m = copy;
}

// True when allocation n failed; a fresh thread has no cache, so every attempt allocates alike.
bool EditFailingAt(const char* prior, long n) {
    bool failed = false;
    std::thread([&] {
        JSON::Message m;
        if (prior != nullptr) m.Parse(prior);
        t_allocationsBeforeFailure = n;
        bool threw = false;
        try {
            Edit(m);
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        failed = t_allocationsBeforeFailure == -1;
        t_allocationsBeforeFailure = -1;
        EXPECT_EQ(failed, threw) << n;
        Edit(m);
        EXPECT_EQ(EDITED, Text(m)) << n;
    }).join();
    return failed;
}

TEST(DomParseOutOfMemoryTest, EveryFailedAllocationThrowsLeaksNothingAndLeavesAUsableMessage) {
    for (const char* prior : {static_cast<const char*>(nullptr), "[0]", R"({"z":[1]})"}) {
        long n = 0;
        for (bool failed = true; failed; ++n) {
            const long blocks = g_blocks;
            failed = EditFailingAt(prior, n);
            ASSERT_EQ(blocks, g_blocks.load()) << n;
        }
        EXPECT_GT(n, 20);  // the containers and texts are allocated one by one
    }
}

// Pretty printing that runs out of memory half-way leaves no text, not a cut-off one.
TEST(DomParseOutOfMemoryTest, PrettyPrintThatRunsOutOfMemoryLeavesNoText) {
    const std::string deep = std::string(300, '[') + std::string(300, ']');
    long n = 0;
    for (bool failed = true; failed; ++n) {
        std::string out = "before";
        t_allocationsBeforeFailure = n;
        try {
            JSON_PrettyPrint(deep.c_str(), out);
        } catch (const std::bad_alloc&) {
            EXPECT_EQ("", out) << n;
        }
        failed = t_allocationsBeforeFailure == -1;
        t_allocationsBeforeFailure = -1;
    }
    EXPECT_GT(n, 3);  // the output and the printer's stack grow while it writes
}

// Destroyed as its thread ends, perhaps after the thread's cache was given back.
thread_local JSON::Message t_message;

// A document parsed again takes its containers, of every kept size, from what the last one
// released: from the third parse on it allocates no more than a text of scalars in their places,
// also after many parses. A thread keeps what released trees held within a bound, and gives it
// back when it ends.
TEST(DomParseOutOfMemoryTest, ReleasedContainersAreReusedKeptWithinABoundAndGivenBack) {
    std::string doc = "[", scalars = "[", large = "[";
    for (int size = 1; size <= 64; ++size) {
        std::string array = "[", object = "{";
        for (int i = 0; i < size; ++i) {
            array += "0,";
            object += "\"k" + std::to_string(i) + "\":0,";
        }
        array.back() = ']';
        object.back() = '}';
        doc += array + "," + object + ",";
        scalars += "0,0,";
    }
    for (int i = 0; i < 100000; ++i) large += R"([0],{"k":0},)";
    doc.back() = scalars.back() = large.back() = ']';
    scalars.resize(doc.size(), ' ');  // a text as long, for the same copy
    const long blocks = g_blocks, bytes = g_bytes;
    long first = 0, most = 0, flat = 0, kept = 0;
    std::thread([&] {
        ASSERT_TRUE(t_message.Parse(DOC));
        ASSERT_TRUE(JSON::Message().Parse(large.c_str()));
        kept = g_bytes - bytes;
        for (int i = 0; i < 202; ++i) {
            const long before = g_allocations;
            JSON::Message m;
            ASSERT_TRUE(m.Parse((i < 200 ? doc : scalars).c_str()));
            const long count = g_allocations - before;
            first = i == 0 ? count : first;
            most = i >= 2 && i < 200 && count > most ? count : most;
            flat = count;
        }
    }).join();
    EXPECT_GT(first, 256);
    EXPECT_EQ(flat, most);
    EXPECT_LT(kept, 12L << 20);
    EXPECT_EQ(blocks, g_blocks.load());
    EXPECT_EQ(bytes, g_bytes.load());
}

}  // namespace
