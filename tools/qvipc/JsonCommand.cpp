// qvipc json pretty|get|check: the JSON library from the command line. A document is read
// whole from FILE or stdin and parsed into a JSON::Message.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "json/JSONMessage.h"
#include "json/JSONPrettyPrint.h"
#include "tools/qvipc/Commands.h"
#include "tools/qvipc/Options.h"

namespace {

const char HELP[] =
    "usage: qvipc json pretty [FILE]\n"
    "       qvipc json get PATH [FILE]\n"
    "       qvipc json check [FILE]\n"
    "\n"
    "Reads a JSON document (an object or an array) from FILE, or from stdin when FILE is\n"
    "absent or '-'.\n"
    "  pretty  prints the document laid out over several lines, indented by tabs\n"
    "  get     prints the value at a dotted PATH (\"b.2.x\": member names in objects,\n"
    "          decimal ordinals in arrays): a string as its text, a number, true, false\n"
    "          or null as written, an object or array as compact JSON; exit status 1\n"
    "          when nothing is there\n"
    "  check   prints \"valid\" and exits 0, or says where the document is broken (line\n"
    "          and column from 1, and the byte offset from 0) and exits 1\n";

bool ReadAll(FILE* in, std::string* text) {
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, in)) > 0) text->append(buf, n);
    return ferror(in) == 0;
}

// Reads FILE (or stdin for "" and "-"). False after printing the error line.
bool ReadDocument(const COptions& opts, const std::string& path, std::string* text) {
    if (path.empty() || path == "-") {
        if (!ReadAll(stdin, text)) {
            opts.fail(std::string("cannot read stdin: ") + strerror(errno));
            return false;
        }
        return true;
    }
    FILE* in = fopen(path.c_str(), "rb");
    if (in == nullptr) {
        opts.fail("cannot open " + path + ": " + strerror(errno));
        return false;
    }
    const bool ok = ReadAll(in, text);
    const int err = errno;
    fclose(in);
    if (!ok) opts.fail("cannot read " + path + ": " + strerror(err));
    return ok;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }

// Where byte offset at lies, as editors show it: "line L, column C, byte B", line and column
// from 1. The column counts characters, not bytes (UTF-8 continuation bytes add nothing), so
// that it matches what the reader sees on screen; the byte offset is there for tools.
std::string Where(const std::string& text, size_t at) {
    size_t line = 1, column = 1;
    for (size_t i = 0; i < at && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            ++column;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(column) + ", byte " +
           std::to_string(at);
}

// Where the root that opens at start closes (one past its bracket), or npos when the text ends
// first. Strings are skipped with their escapes, so brackets inside them do not count.
size_t RootEnd(const std::string& text, size_t start) {
    int depth = 0;
    bool inString = false;
    for (size_t i = start; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            ++depth;
        } else if ((c == '}' || c == ']') && --depth == 0) {
            return i + 1;
        }
    }
    return std::string::npos;
}

// Parses text into msg. On failure *why says what is wrong and where. The reader accepts a
// document cut off at its end, and a document followed by anything; a checker should not, so
// the root must close and only white space may follow.
bool ParseDocument(const std::string& text, JSON::Message* msg, std::string* why) {
    if (text.size() > 0x7FFFFFFFu) {
        *why = "document larger than 2 GiB";
        return false;
    }
    size_t start = 0;
    while (start < text.size() && IsBlank(text[start])) ++start;
    if (start == text.size()) {
        *why = "empty document";
        return false;
    }
    if (text[start] != '{' && text[start] != '[') {
        *why = "the document is not an object or an array (" + Where(text, start) + ")";
        return false;
    }
    const bool ok = msg->Parse(text.data(), static_cast<int>(text.size()));
    const JSON::ParseContext& ctx = msg->m_context;
    const size_t at = ctx.pCur != nullptr && ctx.pBegin != nullptr
                          ? static_cast<size_t>(ctx.pCur - ctx.pBegin)
                          : 0;
    if (!ok) {
        *why = "not valid JSON (reading stopped at " + Where(text, at) + ")";
        return false;
    }
    size_t end = RootEnd(text, start);
    if (end == std::string::npos) {
        *why = "the document ends before its closing bracket";
        return false;
    }
    while (end < text.size() && IsBlank(text[end])) ++end;
    if (end < text.size()) {
        *why = "unexpected data after the document (" + Where(text, end) + ")";
        return false;
    }
    return true;
}

// The compact text of a value: strings as their bytes, scalars as written.
std::string ValueText(const JSON::JSONValue& v) {
    switch (v.m_type) {
        case JSON::TypeString:
        case JSON::TypeInteger:
        case JSON::TypeReal:
            return v.m_pText == nullptr ? std::string()
                                        : std::string(v.m_pText, static_cast<size_t>(v.m_nLength));
        case JSON::TypeBoolean:
            return v.m_pText != nullptr && v.m_pText[0] == 't' ? "true" : "false";
        case JSON::TypeNull:
            return "null";
        default: {
            std::string out;
            v.Serialize(out);
            return out;
        }
    }
}

void PrintLine(const std::string& text) {
    fwrite(text.data(), 1, text.size(), stdout);
    fputc('\n', stdout);
}

}  // namespace

int RunJson(int argc, char** argv, int first) {
    const std::string verb = first < argc ? argv[first] : "";
    if (verb == "-h" || verb == "--help") {
        fputs(HELP, stdout);
        return EXIT_OK;
    }
    COptions opts("json " + verb, {});
    if (verb != "pretty" && verb != "get" && verb != "check") {
        return COptions("json", {})
            .usage(verb.empty() ? "a verb is needed: pretty, get or check"
                                : "unknown verb '" + verb + "' (see --help)");
    }
    int status = EXIT_OK;
    if (!opts.begin(argc, argv, first + 1, HELP, verb == "get" ? 2 : 1, &status)) return status;
    std::vector<std::string> args = opts.positional();
    std::string path;
    if (verb == "get") {
        if (args.empty()) return opts.usage("a PATH is needed");
        path = args.front();
        args.erase(args.begin());
    }
    std::string text;
    if (!ReadDocument(opts, args.empty() ? "" : args[0], &text)) return EXIT_FAILED;

    JSON::Message msg;
    std::string why;
    const bool ok = ParseDocument(text, &msg, &why);
    if (verb == "check") {
        if (!ok) return opts.fail(why);
        PrintLine("valid");
        return EXIT_OK;
    }
    if (!ok) return opts.fail(why);
    if (verb == "get") {
        const JSON::JSONValue& v = msg.Path(path.c_str());
        if (v.m_type == JSON::TypeNone || v.m_type == JSON::TypeInvalid) {
            return opts.fail("no value at '" + path + "'");
        }
        PrintLine(ValueText(v));
        return EXIT_OK;
    }
    // Laid out from the compact form, so that the input's own spacing does not show through.
    std::string compact;
    msg.Serialize(compact);
    std::string pretty;
    JSON_PrettyPrint(compact.c_str(), pretty);
    // The printer puts the root's bracket on a line of its own, after a line break.
    PrintLine(pretty.compare(0, 1, "\n") == 0 ? pretty.substr(1) : pretty);
    return EXIT_OK;
}
