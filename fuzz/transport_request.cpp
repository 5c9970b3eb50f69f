// Fuzzes the server's reader of the client request FIFO through a real FIFO of a live endpoint.
#include <cstddef>
#include <cstdint>

namespace transportfuzz {
void FeedRequest(const uint8_t* data, size_t size);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    transportfuzz::FeedRequest(data, size);
    return 0;
}
