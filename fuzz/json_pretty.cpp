// Fuzz target: any text through the pretty printer. The layout only adds line breaks and
// tabs, so the output without them must equal the input without them.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "json/JSONPrettyPrint.h"

namespace {

std::string WithoutLayout(const std::string& s) {
    std::string kept;
    for (char c : s) {
        if (c != '\n' && c != '\t') kept.push_back(c);
    }
    return kept;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The printer reads up to the first NUL.
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::string out = "stale";
    JSON_PrettyPrint(input.c_str(), out);
    if (WithoutLayout(out) != WithoutLayout(input.c_str())) abort();
    if (input.c_str()[0] == '\0' && !out.empty()) abort();
    return 0;
}
