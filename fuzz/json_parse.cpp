// Parses arbitrary bytes as a JSON message, copied and in place, and checks that both give the
// same tree, that a successful parse serializes to text that parses back to itself, that a copy
// of the message serializes as the original, and that lookups, updates and the pretty printer
// accept whatever the parser left.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "json/JSONMessage.h"
#include "json/JSONPrettyPrint.h"

namespace {

std::string Text(const JSON::JSONValue& v) {
    std::string out;
    v.Serialize(out);
    return out;
}

void Check(bool cond) {
    if (!cond) abort();
}

// Reads every member or element of the root by ordinal and by the name it reports.
void Walk(const JSON::Message& m) {
    const JSON::CompositeValue* root = m.m_pComposite;
    if (root == nullptr) return;
    for (int i = 0; i <= root->Size(); ++i) {
        const char* name = root->NameAt(i);
        // A name holding an escaped NUL is cut there, so a miss is possible.
        if (name != nullptr) (void)root->GetByName(name);
        (void)m[i].AsInt();
        (void)m[i].AsDouble();
        (void)m[i].Size();
    }
    (void)root->OrdinalOf("a");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    const char* text = reinterpret_cast<const char*>(data);
    const int length = static_cast<int>(size);

    JSON::Message copied;
    const bool ok = copied.Parse(text, length);

    // In place the buffer has the terminator that the caller must provide.
    std::vector<char> buffer(data, data + size);
    buffer.push_back('\0');
    JSON::Message inPlace(true);
    Check(inPlace.Parse(buffer.data(), length) == ok);

    const std::string once = Text(copied);
    Check(once == Text(inPlace));
    if (ok) {
        JSON::Message again;
        Check(again.Parse(once.c_str()));
        Check(Text(again) == once);
    }

    const JSON::Message copy(inPlace);
    Check(Text(copy) == once);
    Walk(copy);

    JSON::Message edited(copied);
    edited.Set("k", "v");
    edited.Set(0, 1.5);
    edited.SetNull(2);
    Walk(edited);
    (void)Text(edited);

    std::string pretty;
    JSON_PrettyPrint(once.c_str(), pretty);
    return 0;
}
