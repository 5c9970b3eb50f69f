// Fuzz target: any text indexed as a parameter list, read through every getter and both
// getHRESULT forms, appended to a list, and the values found re-encoded and read back equal.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "QVUtilities/Utilities/CParamsX.h"

namespace {

// Reads every parameter; a malformed length field may throw, nothing else may happen.
std::vector<std::string> ReadAll(const CParamsX& p) {
    std::vector<std::string> values;
    for (int i = 0; i < p.count(); ++i) {
        const unsigned long at = static_cast<unsigned long>(i);
        try {
            values.push_back(p.getstringParamAt(at));
            (void)p.getLongParamAt(at);
            (void)p.getBOOLParamAt(at);
            (void)p.getULONGLONGParamAt(at);
        } catch (LQException&) {
        }
    }
    const unsigned long past = static_cast<unsigned long>(p.count());
    if (!p.getstringParamAt(past).empty() || p.getLongParamAt(past) != 0) abort();
    try {
        (void)p.getHRESULT();  // throws, as the getters do, when parameter 0 is malformed
    } catch (LQException&) {
    }
    (void)p.getHeader();
    return values;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    (void)CParamsX::getHRESULT(text);

    const CParamsX parsed(text);
    const std::vector<std::string> values = ReadAll(parsed);

    // Values read from a list that indexed without error survive a rebuild unchanged.
    if (parsed.count() > 0) {
        CParamsX rebuilt;
        for (int i = 0; i < parsed.count(); ++i) rebuilt.addParam(values[static_cast<size_t>(i)]);
        const CParamsX reparsed(rebuilt.paramList());
        if (ReadAll(reparsed) != values) abort();
    }

    CParamsX appended;
    appended.addHeader("Fuzz");
    try {
        appended.append(text);
    } catch (LQException&) {
    }
    ReadAll(appended);

    long consumed = 0;
    for (long offset = -1; offset <= static_cast<long>(size) + 1 && offset < 64; ++offset) {
        try {
            (void)parsed.getLength(offset, &consumed);
        } catch (LQException&) {
        }
    }
    return 0;
}
