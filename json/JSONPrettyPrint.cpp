// The pretty printer: one pass over the bytes with a depth counter and a stack of the open
// brackets' kinds. Bytes between brackets and commas are copied as whole runs.
#include "json/JSONPrettyPrint.h"

#include <array>
#include <string>
#include <vector>

#include "json/JSONTextSink.h"

namespace {

using JSON::text::TextSink;

// The bytes that end a run: the brackets, the comma and the terminator.
constexpr std::array<bool, 256> MakeLayoutTable() {
    std::array<bool, 256> table{};
    table['\0'] = table['['] = table['{'] = table[']'] = table['}'] = table[','] = true;
    return table;
}

constexpr std::array<bool, 256> LAYOUT = MakeLayoutTable();

const char* SkipRun(const char* p) {
    for (;;) {
        if (LAYOUT[static_cast<unsigned char>(p[0])]) return p;
        if (LAYOUT[static_cast<unsigned char>(p[1])]) return p + 1;
        if (LAYOUT[static_cast<unsigned char>(p[2])]) return p + 2;
        if (LAYOUT[static_cast<unsigned char>(p[3])]) return p + 3;
        p += 4;
    }
}

void LineBreak(TextSink& sink, long depth) {
    // Shallow lines, by far the most common, are written with one store each.
    static constexpr char szBreak[] = "\n\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";
    if (depth < 0) depth = 0;
    if (static_cast<size_t>(depth) < TextSink::SMALL) {
        sink.Put(szBreak, static_cast<size_t>(depth) + 1);
    } else {
        sink.Put('\n');
        sink.PutRepeated('\t', static_cast<size_t>(depth));
    }
}

// Lays text out into sink; leaves the sink's text complete.
void Layout(const char* text, TextSink& sink) {
    // long, not int: a text of more than 2^31 brackets must not overflow the counter.
    long depth = 0;
    std::vector<bool> isArray;  // one entry per open bracket: true for '[', false for '{'
    const char* p = text;
    for (;;) {
        const char* stop = SkipRun(p);
        if (stop != p) sink.Put(p, static_cast<size_t>(stop - p));
        const char c = *stop;
        switch (c) {
            case '[':
            case '{':
                LineBreak(sink, depth);
                sink.Put(c);
                ++depth;
                isArray.push_back(c == '[');
                LineBreak(sink, depth);
                break;
            case ']':
            case '}':
                --depth;
                // A closing bracket with nothing open leaves the stack empty.
                if (!isArray.empty()) isArray.pop_back();
                LineBreak(sink, depth);
                sink.Put(c);
                break;
            case ',':
                sink.Put(c);
                if (isArray.empty() || !isArray.back()) LineBreak(sink, depth);
                break;
            default:  // the terminator
                sink.Finish();
                return;
        }
        p = stop + 1;
    }
}

}  // namespace

void JSON_PrettyPrint(const char* text, std::string& out) {
    out.clear();
    if (text == nullptr) return;
    TextSink sink(out);
    try {
        Layout(text, sink);
    } catch (...) {
        // Out of memory: the caller finds the output cleared, not cut off somewhere.
        out.clear();
        throw;
    }
}
