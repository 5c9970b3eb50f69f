// Internal to the JSON library (not installed): where the library's own arrays and objects, and
// the storage of their vectors, come from and go to. Each thread keeps what the containers it
// released held (their blocks, and their vectors' storage by exact capacity) to build the next
// document's containers with, instead of going through the C++ heap for every container and
// vector. A container's block is an ordinary ::operator new block of exactly its class's size,
// and a vector's storage stays with std::vector's own allocator: whatever the library hands
// out may still be deleted by anyone, on any thread, the ordinary way.
#ifndef JSON_JSONCONTAINERPOOL_H_
#define JSON_JSONCONTAINERPOOL_H_

#include <cstddef>
#include <vector>

#include "json/JSONValue.h"

namespace JSON {
namespace pool {

// The calling thread's cache. Fetch it once for a whole parse: it lives as long as the thread.
struct Cache;
Cache& Local();

// Empty containers with no room reserved (m_type TypeInvalid), as ArrayValue(0)/ObjectValue(0).
ArrayValue* NewArray(Cache& cache);
ObjectValue* NewObject(Cache& cache);

// Counts a parse: what it and the one before it did not use is what may give way when the
// cache is full.
void BeginParse(Cache& cache);

// Makes count more values at the end of a container (an object: members, and room for names)
// and returns the first of them; the caller sets every field of each. A vector without storage
// gets exactly that many, from the vectors of a released container of as many entries when
// one was kept (their values then hold what that container left); otherwise they are
// appended as reserve and resize would.
UnsafeJSONValue* Reserve(Cache& cache, ArrayValue& array, size_t count);
UnsafeJSONValue* Reserve(Cache& cache, ObjectValue& object, size_t members, size_t names);

// Clear, then delete: how the design releases a child container. Arrays and objects of exactly
// the library's classes are taken apart here, children first, and what they held is kept for
// reuse; a container of a class derived elsewhere gets its own Clear and destructor. Null is
// ignored.
void Release(CompositeValue* container);
// Delete alone (a derived class's Clear is not called); the same for the library's classes.
void Delete(CompositeValue* container);

// Releases what the values own (owned texts, child containers as by Release); the values
// themselves are left for their vector to destroy.
void ReleaseValues(std::vector<UnsafeJSONValue>& values);

}  // namespace pool
}  // namespace JSON

#endif  // JSON_JSONCONTAINERPOOL_H_
