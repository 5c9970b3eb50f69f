// Fuzzes the server's reader of the admin FIFO through a real FIFO of a live endpoint.
#include <cstddef>
#include <cstdint>

namespace transportfuzz {
void FeedAdmin(const uint8_t* data, size_t size);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    transportfuzz::FeedAdmin(data, size);
    return 0;
}
