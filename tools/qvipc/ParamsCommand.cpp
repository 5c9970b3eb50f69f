// qvipc params decode TEXT: shows a CParamsX text as its header, result code and parameters,
// each value as a JSON string so that separators and control characters stay visible.
#include <cstdio>
#include <string>

#include "QVUtilities/Utilities/CParamsX.h"
#include "json/JSONEscape.h"
#include "tools/qvipc/Commands.h"
#include "tools/qvipc/Options.h"

namespace {

const char HELP[] =
    "usage: qvipc params decode TEXT\n"
    "\n"
    "Shows a parameter-list text (\"Header;10;0x00000000;3;abc\") as its header, its result\n"
    "code (the first parameter, when it has the form 0x%08X) and its parameters, one a line\n"
    "as index, length and the value as a JSON string. A malformed text is an error.\n";

std::string Quoted(const std::string& value) {
    std::string out = "\"";
    // EscapeString stops at a NUL byte; a value may hold one, so it is escaped here.
    size_t from = 0;
    for (size_t nul = value.find('\0'); nul != std::string::npos; nul = value.find('\0', from)) {
        JSON::EscapeString(out, value.substr(from, nul - from).c_str());
        out += "\\u0000";
        from = nul + 1;
    }
    JSON::EscapeString(out, value.substr(from).c_str());
    return out + "\"";
}

}  // namespace

int RunParams(int argc, char** argv, int first) {
    const std::string verb = first < argc ? argv[first] : "";
    if (verb == "-h" || verb == "--help") {
        fputs(HELP, stdout);
        return EXIT_OK;
    }
    if (verb != "decode") {
        return COptions("params", {})
            .usage(verb.empty() ? "a verb is needed: decode" : "unknown verb '" + verb + "'");
    }
    COptions opts("params decode", {});
    int status = EXIT_OK;
    if (!opts.begin(argc, argv, first + 1, HELP, 1, &status)) return status;
    if (opts.positional().empty()) return opts.usage("exactly one TEXT is needed");
    const std::string& text = opts.positional()[0];

    CParamsX list(text);
    // The constructor turns a malformed text into an empty list.
    if (list.length() == 0 && !text.empty()) return opts.fail("malformed parameter text");

    printf("header: %s\n", list.getHeader().empty() ? "(none)" : list.getHeader().c_str());
    const long hr = list.getHRESULT();
    // PARAMSX_E_FORMAT also says "no code"; it is a code only when parameter 0 spells it.
    if (hr != PARAMSX_E_FORMAT || list.getstringParamAt(0) == "0xC1210E12") {
        printf("result: 0x%08X\n", static_cast<unsigned>(hr));
    } else {
        printf("result: (none)\n");
    }
    printf("parameters: %d\n", list.count());
    for (int i = 0; i < list.count(); ++i) {
        const std::string value = list.getstringParamAt(static_cast<unsigned long>(i));
        printf("%d: %zu %s\n", i, value.size(), Quoted(value).c_str());
    }
    return EXIT_OK;
}
