// A parse that runs out of memory: every allocation of a parse of a nested document is made to
// fail in turn. The failure must surface as std::bad_alloc and leave a message that parses
// again; the leak checker of the sanitizer build sees any container the parse dropped.
// Replacing the global allocation functions affects the whole program, which is why these
// tests are a program of their own.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>
#include <thread>

#include "json/JSONMessage.h"

namespace {

// Allocations the calling thread may still make before one fails; -1: none is failed.
thread_local long t_allocationsBeforeFailure = -1;

void* Allocate(std::size_t size) {
    if (t_allocationsBeforeFailure == 0) {
        t_allocationsBeforeFailure = -1;  // one failure only: cleaning up may allocate again
        throw std::bad_alloc();
    }
    if (t_allocationsBeforeFailure > 0) --t_allocationsBeforeFailure;
    void* p = std::malloc(size != 0 ? size : 1);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return Allocate(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace {

const char* const DOC = R"({"a":[1,{"b":[true,"x",{"c":{}}]},[[],[2]]],"d":{"e":"f"},"g":[null]})";

struct Attempt {
    bool failed = false;  // the allocation was failed
    bool threw = false;
    bool reparsed = false;
    std::string text;  // of the message parsed again without failure
};

// Parses DOC into a message holding the tree of `prior` (none when null) with allocation n
// failing. A thread of its own starts without the reader's per-thread scratch stack, so every
// attempt makes the same allocations.
Attempt ParseFailingAt(const char* prior, long n) {
    Attempt a;
    std::thread([&] {
        JSON::Message m;
        if (prior != nullptr) m.Parse(prior);
        t_allocationsBeforeFailure = n;
        try {
            m.Parse(DOC);
        } catch (const std::bad_alloc&) {
            a.threw = true;
        }
        a.failed = t_allocationsBeforeFailure == -1;
        t_allocationsBeforeFailure = -1;
        a.reparsed = m.Parse(DOC);
        m.Serialize(a.text);
    }).join();
    return a;
}

TEST(DomParseOutOfMemoryTest, EveryFailedAllocationThrowsAndLeavesAUsableMessage) {
    // A fresh message, a root of the other kind to replace, a root of the same kind to reuse.
    for (const char* prior : {static_cast<const char*>(nullptr), "[0]", R"({"z":[1]})"}) {
        SCOPED_TRACE(prior != nullptr ? prior : "fresh");
        long n = 0;
        for (;; ++n) {
            const Attempt a = ParseFailingAt(prior, n);
            ASSERT_EQ(a.failed, a.threw) << n;
            ASSERT_TRUE(a.reparsed) << n;
            ASSERT_EQ(DOC, a.text) << n;
            if (!a.failed) break;
        }
        EXPECT_GT(n, 10);  // the document's containers are allocated one by one
    }
}

}  // namespace
