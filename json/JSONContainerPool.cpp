// The per-thread cache of container blocks and vector storage, and the release of a tree
// through it.
//
// Why it is safe across threads: a cache belongs to one thread and only that thread touches
// it. Every block in it is a ::operator new block of exactly sizeof(ArrayValue) or
// sizeof(ObjectValue) that no container occupies any more, and every kept vector is a
// std::vector that no container owns any more. A container built on one thread and released
// on another simply lands in the second thread's cache, or goes back to the heap; and since a
// block is what a plain `new ArrayValue` would have got, and a vector's storage never leaves
// its std::vector, a caller who deletes a container of ours itself (a detached child, a tree
// dropped on another thread) frees everything the ordinary way. What a thread kept goes back
// to the heap when it ends. Releasing never allocates, so it cannot fail.
#include "json/JSONContainerPool.h"

#include <cstddef>
#include <cstdint>
#include <new>
#include <typeinfo>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#define QV_JSON_POOL_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QV_JSON_POOL_ASAN 1
#endif
#endif

#ifdef QV_JSON_POOL_ASAN
#include <sanitizer/asan_interface.h>
#endif

// The cache is reached through the thread-local storage of a shared library, a call each
// time. The walks take it as an argument, fetched once by Local(), which the compiler must
// not see through: knowing the argument's address, it would compute it again at every step.
#if defined(__GNUC__) && !defined(__clang__)
#define QV_JSON_OPAQUE __attribute__((noipa))
#else
#define QV_JSON_OPAQUE __attribute__((noinline))
#endif

namespace JSON {
namespace pool {

namespace {

// Under AddressSanitizer a cached block stays poisoned, so that a container used after its
// release is still reported, as it would be had the block gone back to the heap.
void Poison(void* p, size_t size) {
#ifdef QV_JSON_POOL_ASAN
    ASAN_POISON_MEMORY_REGION(p, size);
#else
    (void)p;
    (void)size;
#endif
}

void Unpoison(void* p, size_t size) {
#ifdef QV_JSON_POOL_ASAN
    ASAN_UNPOISON_MEMORY_REGION(p, size);
#else
    (void)p;
    (void)size;
#endif
}

// A block on a free list.
struct Block {
    Block* pNext;
};

struct FreeList {
    Block* pHead;
};

// A released container's block, kept with its vectors: the next container of as many entries
// gets them instead of new allocations. The storage is the exact size the parser reserved, so
// a tree built from it holds no more than one built afresh. The values stay in the vector as
// released (their destructors do nothing) and the parser sets every field of each again, so
// neither keeping nor reusing them walks them once more.
struct SpareArray {
    SpareArray* pNext;
    std::vector<UnsafeJSONValue> values;
};

struct SpareObject {
    SpareObject* pNext;
    std::vector<UnsafeJSONValue> members;
    std::vector<ObjectValue::NameMap> names;
};

static_assert(sizeof(SpareArray) <= sizeof(ArrayValue), "a spare array lives in its block");
static_assert(sizeof(SpareObject) <= sizeof(ObjectValue), "a spare object lives in its block");
static_assert(alignof(SpareArray) <= alignof(ArrayValue), "a spare array lives in its block");
static_assert(alignof(SpareObject) <= alignof(ObjectValue), "a spare object lives in its block");

// Storage is kept for vectors of up to this many entries; most containers are small, and a
// large vector costs the heap little per entry.
constexpr size_t MAX_SPARE = 64;

// What a thread keeps, in all: the containers of many message-sized documents, or of one large
// document parsed again and again; beyond that, containers go back to the heap. When the cache
// is full, each bin is cut down to what the last two parses took from it.
constexpr size_t KEEP_BYTES = 8 * 1024 * 1024;

// How much a bin is used: spares taken in the last two parses, spares put in it since the
// current parse began, and spares in it.
struct BinUse {
    uint32_t nParse;  // the parse that nThis and nAdded count
    uint32_t nThis;
    uint32_t nLast;   // taken in the parse before nParse
    uint32_t nAdded;  // put in since nParse began: the shape of the latest document
    uint32_t nKept;
};

}  // namespace

// Plain data without a destructor, so that it stays usable while the thread ends: a container
// released by another thread-local object's destructor after the reaper has run goes straight
// back to the heap.
struct Cache {
    FreeList arrays;                            // blocks of sizeof(ArrayValue)
    FreeList objects;                           // blocks of sizeof(ObjectValue)
    SpareArray* pSpareArrays[MAX_SPARE + 1];    // by the capacity of their values
    SpareObject* pSpareObjects[MAX_SPARE + 1];  // by the capacity of their members
    BinUse arrayUse[MAX_SPARE + 1];
    BinUse objectUse[MAX_SPARE + 1];
    uint32_t nParse;  // parses begun on this thread (wrapping)
    uint32_t nSwept;  // nParse at the last sweep
    size_t nBytes;    // kept in blocks and in the spares' storage
    bool bReaper;     // the reaper of this thread is registered
    bool bClosed;     // the reaper has run: nothing is kept any more
};

namespace {

thread_local Cache t_cache;

template <typename T>
size_t StorageBytes(const std::vector<T>& v) {
    return v.capacity() * sizeof(T);
}

template <typename T>
void PoisonStorage(std::vector<T>& v) {
    Poison(v.data(), StorageBytes(v));
}

template <typename T>
void UnpoisonStorage(std::vector<T>& v) {
    Unpoison(v.data(), StorageBytes(v));
}

void Drain(FreeList& list, size_t size) {
    while (list.pHead != nullptr) {
        Block* b = list.pHead;
        Unpoison(b, size);
        list.pHead = b->pNext;
        ::operator delete(b);
    }
}

void UnpoisonSpare(SpareArray& spare) { UnpoisonStorage(spare.values); }

void UnpoisonSpare(SpareObject& spare) {
    UnpoisonStorage(spare.members);
    UnpoisonStorage(spare.names);
}

size_t StorageBytes(const SpareArray& spare) { return StorageBytes(spare.values); }

size_t StorageBytes(const SpareObject& spare) {
    return StorageBytes(spare.members) + StorageBytes(spare.names);
}

// Brings a bin's counts up to the current parse.
BinUse& Use(Cache& cache, BinUse& use) {
    if (use.nParse != cache.nParse) {
        use.nLast = use.nParse + 1 == cache.nParse ? use.nThis : 0;
        use.nThis = 0;
        use.nAdded = 0;
        use.nParse = cache.nParse;
    }
    return use;
}

// Takes a spare of the given capacity off its bin, its storage no longer counted as kept;
// null when there is none.
template <typename Spare>
Spare* PopSpare(Cache& cache, Spare** bins, BinUse* uses, size_t capacity) {
    if (capacity == 0 || capacity > MAX_SPARE || bins[capacity] == nullptr) return nullptr;
    Spare* spare = bins[capacity];
    bins[capacity] = spare->pNext;
    BinUse& use = Use(cache, uses[capacity]);
    ++use.nThis;
    --use.nKept;
    UnpoisonSpare(*spare);
    cache.nBytes -= StorageBytes(*spare);
    return spare;
}

template <typename Spare>
void DrainSpares(Spare** bins) {
    for (size_t i = 0; i <= MAX_SPARE; ++i) {
        while (bins[i] != nullptr) {
            Spare* spare = bins[i];
            bins[i] = spare->pNext;
            UnpoisonSpare(*spare);
            spare->~Spare();  // frees the kept storage
            ::operator delete(spare);
        }
    }
}

// Gives back what a thread kept when the thread ends.
struct Reaper {
    Reaper() = default;
    Reaper(const Reaper&) = delete;
    Reaper& operator=(const Reaper&) = delete;
    ~Reaper() {
        Cache& cache = t_cache;
        cache.bClosed = true;
        Drain(cache.arrays, sizeof(ArrayValue));
        Drain(cache.objects, sizeof(ObjectValue));
        DrainSpares(cache.pSpareArrays);
        DrainSpares(cache.pSpareObjects);
        cache.nBytes = 0;
    }
};

// Out of line, so that the address of the reaper's thread-local storage is not computed on
// every path that merely might register it.
__attribute__((noinline)) void RegisterReaper(Cache& cache) {
    // Constructed on the first thing a thread keeps; destroyed when the thread ends.
    static thread_local Reaper t_reaper;
    cache.bReaper = true;
}

// Cuts every bin down to what this parse or the one before took from it, or what was put in it
// since this parse began: spares kept for the shape of documents no longer read would hold the
// cache's room for ever.
template <typename Spare>
void SweepBins(Cache& cache, Spare** bins, BinUse* uses, size_t size) {
    for (size_t i = 1; i <= MAX_SPARE; ++i) {
        BinUse& use = Use(cache, uses[i]);
        uint32_t wanted = use.nThis > use.nLast ? use.nThis : use.nLast;
        if (use.nAdded > wanted) wanted = use.nAdded;
        while (use.nKept > wanted) {
            Spare* spare = bins[i];
            bins[i] = spare->pNext;
            --use.nKept;
            UnpoisonSpare(*spare);
            cache.nBytes -= size + StorageBytes(*spare);
            spare->~Spare();
            ::operator delete(spare);
        }
    }
}

// MayKeep when the cache is full, closed or new to the thread.
__attribute__((noinline)) bool MayKeepSlow(Cache& cache, size_t bytes) {
    if (cache.bClosed) return false;
    if (cache.nBytes + bytes > KEEP_BYTES) {
        if (cache.nSwept == cache.nParse) return false;
        cache.nSwept = cache.nParse;
        SweepBins(cache, cache.pSpareArrays, cache.arrayUse, sizeof(ArrayValue));
        SweepBins(cache, cache.pSpareObjects, cache.objectUse, sizeof(ObjectValue));
        if (cache.nBytes + bytes > KEEP_BYTES) return false;
    }
    if (!cache.bReaper) RegisterReaper(cache);
    return true;
}

// Whether bytes more may be kept; the first time, registers the reaper of the thread. A full
// cache is swept at most once per parse.
inline bool MayKeep(Cache& cache, size_t bytes) {
    if (cache.bReaper && !cache.bClosed && cache.nBytes + bytes <= KEEP_BYTES) return true;
    return MayKeepSlow(cache, bytes);
}

void* Take(Cache& cache, FreeList& list, size_t size) {
    Block* b = list.pHead;
    if (b == nullptr) return ::operator new(size);
    Unpoison(b, size);
    list.pHead = b->pNext;
    cache.nBytes -= size;
    return b;
}

// Puts a block that is already counted as kept on its free list.
void Push(FreeList& list, void* p, size_t size) {
    list.pHead = new (p) Block{list.pHead};
    Poison(p, size);
}

void Put(Cache& cache, FreeList& list, void* p, size_t size) {
    if (!MayKeep(cache, size)) {
        ::operator delete(p);
        return;
    }
    cache.nBytes += size;
    Push(list, p, size);
}

// Whether the storage of v would be kept, with a block of blockSize.
template <typename T>
bool Keepable(Cache& cache, const std::vector<T>& v, size_t blockSize) {
    const size_t capacity = v.capacity();
    return capacity != 0 && capacity <= MAX_SPARE && MayKeep(cache, blockSize + StorageBytes(v));
}

void ReleaseIn(Cache& cache, CompositeValue* container);

// The values are destroyed or kept as they are right after, so they are not reset one by one.
void ReleaseValuesIn(Cache& cache, std::vector<UnsafeJSONValue>& values) {
    UnsafeJSONValue* const begin = values.data();
    const size_t count = values.size();
    for (size_t i = 0; i < count; ++i) {
        UnsafeJSONValue& v = begin[i];
        // A large tree is out of the cache by the time it is released: the next child is
        // fetched while this one is taken apart.
        if (i + 1 < count && begin[i + 1].m_pComposite != nullptr) {
            __builtin_prefetch(begin[i + 1].m_pComposite);
        }
        if (v.m_bOwned && v.m_pText != nullptr) delete[] v.m_pText;
        if (v.m_pComposite != nullptr) ReleaseIn(cache, v.m_pComposite);
    }
}

// Whether a released container's values may be kept: only a full vector, as the parser makes
// them, so that a reused one has exactly as many values as its capacity.
bool KeepableValues(Cache& cache, const std::vector<UnsafeJSONValue>& values, size_t bytes) {
    return values.size() == values.capacity() && Keepable(cache, values, bytes);
}

void ReleaseArray(Cache& cache, ArrayValue* array) {
    ReleaseValuesIn(cache, array->m_values);
    if (!KeepableValues(cache, array->m_values, sizeof(ArrayValue))) {
        array->m_values.clear();  // released already: the destructor must not see them
        array->ArrayValue::~ArrayValue();
        Put(cache, cache.arrays, array, sizeof(ArrayValue));
        return;
    }
    std::vector<UnsafeJSONValue> values(std::move(array->m_values));
    array->ArrayValue::~ArrayValue();
    const size_t capacity = values.capacity();
    cache.nBytes += sizeof(ArrayValue) + StorageBytes(values);
    PoisonStorage(values);
    SpareArray*& bin = cache.pSpareArrays[capacity];
    bin = new (array) SpareArray{bin, std::move(values)};
    BinUse& use = Use(cache, cache.arrayUse[capacity]);
    ++use.nAdded;
    ++use.nKept;
}

void ReleaseObject(Cache& cache, ObjectValue* object) {
    ReleaseValuesIn(cache, object->m_members.m_values);
    for (ObjectValue::NameMap& n : object->m_names) {
        if (n.bOwned && n.pName != nullptr) delete[] n.pName;
    }
    object->m_names.clear();
    std::vector<UnsafeJSONValue>& members = object->m_members.m_values;
    if (!KeepableValues(cache, members, sizeof(ObjectValue) + StorageBytes(object->m_names))) {
        members.clear();  // released already: the destructor must not see them
        object->ObjectValue::~ObjectValue();
        Put(cache, cache.objects, object, sizeof(ObjectValue));
        return;
    }
    std::vector<UnsafeJSONValue> kept(std::move(members));
    std::vector<ObjectValue::NameMap> names(std::move(object->m_names));
    object->ObjectValue::~ObjectValue();
    const size_t capacity = kept.capacity();
    cache.nBytes += sizeof(ObjectValue) + StorageBytes(kept) + StorageBytes(names);
    PoisonStorage(kept);
    PoisonStorage(names);
    SpareObject*& bin = cache.pSpareObjects[capacity];
    bin = new (object) SpareObject{bin, std::move(kept), std::move(names)};
    BinUse& use = Use(cache, cache.objectUse[capacity]);
    ++use.nAdded;
    ++use.nKept;
}

// The exact class is told by the address of its type_info, which a class with a key function
// has once; should a second copy exist, its containers merely take the general path.
void ReleaseIn(Cache& cache, CompositeValue* container) {
    const std::type_info& type = typeid(*container);
    if (&type == &typeid(ArrayValue)) {
        ReleaseArray(cache, static_cast<ArrayValue*>(container));
    } else if (&type == &typeid(ObjectValue)) {
        ReleaseObject(cache, static_cast<ObjectValue*>(container));
    } else {
        container->Clear();
        delete container;
    }
}

bool IsLibraryClass(const CompositeValue& container) {
    const std::type_info& type = typeid(container);
    return &type == &typeid(ArrayValue) || &type == &typeid(ObjectValue);
}

}  // namespace

QV_JSON_OPAQUE Cache& Local() { return t_cache; }

ArrayValue* NewArray(Cache& cache) {
    void* p = Take(cache, cache.arrays, sizeof(ArrayValue));
    return new (p) ArrayValue(0);  // reserves nothing, so it cannot throw
}

ObjectValue* NewObject(Cache& cache) {
    void* p = Take(cache, cache.objects, sizeof(ObjectValue));
    return new (p) ObjectValue(0);
}

void BeginParse(Cache& cache) { ++cache.nParse; }

namespace {

// Appends count values, exactly as many as asked when the vector has no storage yet.
UnsafeJSONValue* Append(std::vector<UnsafeJSONValue>& values, size_t count) {
    const size_t size = values.size();
    values.reserve(size + count);
    values.resize(size + count);
    return values.data() + size;
}

void ReserveNames(std::vector<ObjectValue::NameMap>& names, size_t count) {
    if (names.capacity() - names.size() < count) names.reserve(names.size() + count);
}

}  // namespace

UnsafeJSONValue* Reserve(Cache& cache, ArrayValue& array, size_t count) {
    std::vector<UnsafeJSONValue>& values = array.m_values;
    if (values.capacity() == 0) {
        if (SpareArray* spare = PopSpare(cache, cache.pSpareArrays, cache.arrayUse, count)) {
            values.swap(spare->values);
            spare->~SpareArray();
            Push(cache.arrays, spare, sizeof(ArrayValue));
            return values.data();
        }
    }
    return Append(values, count);
}

UnsafeJSONValue* Reserve(Cache& cache, ObjectValue& object, size_t members, size_t names) {
    std::vector<UnsafeJSONValue>& values = object.m_members.m_values;
    if (values.capacity() == 0) {
        if (SpareObject* spare = PopSpare(cache, cache.pSpareObjects, cache.objectUse, members)) {
            values.swap(spare->members);
            if (spare->names.capacity() == names && object.m_names.capacity() == 0) {
                object.m_names.swap(spare->names);
            }
            spare->~SpareObject();  // frees names storage of another size
            Push(cache.objects, spare, sizeof(ObjectValue));
            ReserveNames(object.m_names, names);
            return values.data();
        }
    }
    ReserveNames(object.m_names, names);
    return Append(values, members);
}

void Release(CompositeValue* container) {
    if (container != nullptr) ReleaseIn(Local(), container);
}

void Delete(CompositeValue* container) {
    if (container == nullptr) return;
    if (IsLibraryClass(*container)) {
        ReleaseIn(Local(), container);
    } else {
        delete container;
    }
}

void ReleaseValues(std::vector<UnsafeJSONValue>& values) {
    if (!values.empty()) ReleaseValuesIn(Local(), values);
}

}  // namespace pool
}  // namespace JSON
