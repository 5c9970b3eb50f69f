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

// A released container's block, kept with the storage of its vectors: the next container of
// as many entries gets that storage instead of a new allocation. The storage is the exact
// size the parser reserved, so a tree built from it holds no more than one built afresh.
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

// What a thread keeps, in all: enough for the containers of several message-sized documents,
// while most of a huge document's containers go back to the heap.
constexpr size_t KEEP_BYTES = 1024 * 1024;

}  // namespace

// Plain data without a destructor, so that it stays usable while the thread ends: a container
// released by another thread-local object's destructor after the reaper has run goes straight
// back to the heap.
struct Cache {
    FreeList arrays;                            // blocks of sizeof(ArrayValue)
    FreeList objects;                           // blocks of sizeof(ObjectValue)
    SpareArray* pSpareArrays[MAX_SPARE + 1];    // by the capacity of their values
    SpareObject* pSpareObjects[MAX_SPARE + 1];  // by the capacity of their members
    size_t nBytes;                              // kept in blocks and in the spares' storage
    bool bReaper;                               // the reaper of this thread is registered
    bool bClosed;                               // the reaper has run: nothing is kept any more
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
        ::operator delete(b, size);
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

// Takes a spare of the given capacity off its bin, its storage no longer counted as kept;
// null when there is none.
template <typename Spare>
Spare* PopSpare(Cache& cache, Spare** bins, size_t capacity) {
    if (capacity == 0 || capacity > MAX_SPARE || bins[capacity] == nullptr) return nullptr;
    Spare* spare = bins[capacity];
    bins[capacity] = spare->pNext;
    UnpoisonSpare(*spare);
    cache.nBytes -= StorageBytes(*spare);
    return spare;
}

template <typename Spare>
void DrainSpares(Spare** bins, size_t size) {
    for (size_t i = 0; i <= MAX_SPARE; ++i) {
        while (bins[i] != nullptr) {
            Spare* spare = bins[i];
            bins[i] = spare->pNext;
            UnpoisonSpare(*spare);
            spare->~Spare();  // frees the kept storage
            ::operator delete(spare, size);
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
        DrainSpares(cache.pSpareArrays, sizeof(ArrayValue));
        DrainSpares(cache.pSpareObjects, sizeof(ObjectValue));
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

// Whether bytes more may be kept; the first time, registers the reaper of the thread.
bool MayKeep(Cache& cache, size_t bytes) {
    if (cache.bClosed || cache.nBytes + bytes > KEEP_BYTES) return false;
    if (!cache.bReaper) RegisterReaper(cache);
    return true;
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
        ::operator delete(p, size);
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

void ReleaseValuesIn(Cache& cache, std::vector<UnsafeJSONValue>& values) {
    for (UnsafeJSONValue& v : values) {
        if (v.m_bOwned && v.m_pText != nullptr) delete[] v.m_pText;
        if (v.m_pComposite != nullptr) ReleaseIn(cache, v.m_pComposite);
    }
    // The values are destroyed right after their release, so they are not reset one by one.
    values.clear();
}

void ReleaseArray(Cache& cache, ArrayValue* array) {
    ReleaseValuesIn(cache, array->m_values);
    if (!Keepable(cache, array->m_values, sizeof(ArrayValue))) {
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
}

void ReleaseObject(Cache& cache, ObjectValue* object) {
    ReleaseValuesIn(cache, object->m_members.m_values);
    for (ObjectValue::NameMap& n : object->m_names) {
        if (n.bOwned && n.pName != nullptr) delete[] n.pName;
    }
    object->m_names.clear();
    std::vector<UnsafeJSONValue>& members = object->m_members.m_values;
    if (!Keepable(cache, members, sizeof(ObjectValue) + StorageBytes(object->m_names))) {
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

void Reserve(Cache& cache, ArrayValue& array, size_t count) {
    std::vector<UnsafeJSONValue>& values = array.m_values;
    if (values.capacity() == 0) {
        if (SpareArray* spare = PopSpare(cache, cache.pSpareArrays, count)) {
            values.swap(spare->values);
            spare->~SpareArray();
            Push(cache.arrays, spare, sizeof(ArrayValue));
            return;
        }
    }
    values.reserve(values.size() + count);
}

void Reserve(Cache& cache, ObjectValue& object, size_t members, size_t names) {
    std::vector<UnsafeJSONValue>& values = object.m_members.m_values;
    if (values.capacity() == 0) {
        if (SpareObject* spare = PopSpare(cache, cache.pSpareObjects, members)) {
            values.swap(spare->members);
            if (spare->names.capacity() == names && object.m_names.capacity() == 0) {
                object.m_names.swap(spare->names);
            }
            spare->~SpareObject();  // frees names storage of another size
            Push(cache.objects, spare, sizeof(ObjectValue));
        }
    }
    if (members != 0) values.reserve(values.size() + members);
    if (names != 0) object.m_names.reserve(object.m_names.size() + names);
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
