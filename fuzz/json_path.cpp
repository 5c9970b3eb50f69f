// Looks arbitrary dotted paths up in a fixed document, through the class and the C interface.
#include <cstdint>
#include <string>

#include "json/JSONMessage.h"
#include "json/JSON_C.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* const kDocument =
        R"({"a":1,"b":[true,null,"x",{"c":[2.5,"y"]}],"":{"":{"d":"e"}},".":7,)"
        R"("s":"text","n":-1e400,"o":{"1":[],"2":{}}})";
    static JSON::Message* message = [] {
        auto* m = new JSON::Message();
        m->Parse(kDocument);
        return m;
    }();
    const std::string path(reinterpret_cast<const char*>(data), size);
    const JSON::JSONValue& v = message->Path(path.c_str());
    (void)v.AsInt();
    (void)v.AsDouble();
    std::string out;
    v.Serialize(out);
    (void)JSON_GetPathAsString(message, path.c_str());
    (void)JSON_GetPathAsInt(message, path.c_str());
    (void)JSON_IsPathNull(message, path.c_str());
    (void)JSON_GetNameAsUnsignedLong64(message, path.c_str());
    return 0;
}
