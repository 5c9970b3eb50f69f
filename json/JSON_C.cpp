// The plain-function interface: thin wrappers over JSON::Message and the value accessors.
#include "json/JSON_C.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "json/JSONMessage.h"

namespace {

JSON::Message& Msg(void* msg) { return *static_cast<JSON::Message*>(msg); }

const JSON::JSONValue& ByOrdinal(void* msg, int ordinal) {
    return static_cast<const JSON::Message&>(Msg(msg))[ordinal];
}
const JSON::JSONValue& ByName(void* msg, const char* name) {
    return static_cast<const JSON::Message&>(Msg(msg))[name];
}
const JSON::JSONValue& ByPath(void* msg, const char* path) { return Msg(msg).Path(path); }

int IsNull(const JSON::JSONValue& v) { return v.m_type == JSON::TypeNull ? 1 : 0; }

const char* AsString(const JSON::JSONValue& v) {
    return v.m_type == JSON::TypeString ? v.m_pText : nullptr;
}

unsigned long long AsUnsignedLong64(const JSON::JSONValue& v) {
    constexpr double TWO_63 = 9223372036854775808.0;
    switch (v.m_type) {
        case JSON::TypeInteger:
            // strtoll reads what "%lld" would, and saturates where sscanf's result is undefined.
            return v.m_pText != nullptr
                       ? static_cast<unsigned long long>(strtoll(v.m_pText, nullptr, 10))
                       : 0;
        case JSON::TypeReal: {
            const double d = v.m_pText != nullptr ? strtod(v.m_pText, nullptr) : 0.0;
            // Out-of-range conversions are undefined: clamp to what the type can hold.
            if (std::isnan(d)) return 0;
            if (d >= 2 * TWO_63) return UINT64_MAX;
            if (d >= TWO_63) {
                return static_cast<unsigned long long>(static_cast<int64_t>(d - TWO_63)) +
                       9223372036854775808ull;
            }
            if (d < -TWO_63) return static_cast<unsigned long long>(INT64_MIN);
            return static_cast<unsigned long long>(static_cast<int64_t>(d));
        }
        case JSON::TypeBoolean:
            return v.m_pText != nullptr && v.m_pText[0] == 't' ? 1 : 0;
        default:
            return 0;
    }
}

}  // namespace

extern "C" {

void* JSON_AllocMessage(void) { return new JSON::Message(); }

void JSON_FreeMessage(void* msg) { delete static_cast<JSON::Message*>(msg); }

int JSON_ParseMessage(void* msg, const char* text) { return Msg(msg).Parse(text, -1) ? 1 : 0; }

int JSON_MessageSize(void* msg) { return Msg(msg).Size(); }

int JSON_IsOrdinalNull(void* msg, int ordinal) { return IsNull(ByOrdinal(msg, ordinal)); }
int JSON_IsNameNull(void* msg, const char* name) { return IsNull(ByName(msg, name)); }
int JSON_IsPathNull(void* msg, const char* path) { return IsNull(ByPath(msg, path)); }

const char* JSON_GetOrdinalAsString(void* msg, int ordinal) {
    return AsString(ByOrdinal(msg, ordinal));
}
const char* JSON_GetNameAsString(void* msg, const char* name) {
    return AsString(ByName(msg, name));
}
const char* JSON_GetPathAsString(void* msg, const char* path) {
    return AsString(ByPath(msg, path));
}

int JSON_GetOrdinalAsInt(void* msg, int ordinal) { return ByOrdinal(msg, ordinal).AsInt(); }
int JSON_GetNameAsInt(void* msg, const char* name) { return ByName(msg, name).AsInt(); }
int JSON_GetPathAsInt(void* msg, const char* path) { return ByPath(msg, path).AsInt(); }

double JSON_GetOrdinalAsDouble(void* msg, int ordinal) {
    return ByOrdinal(msg, ordinal).AsDouble();
}
double JSON_GetNameAsDouble(void* msg, const char* name) { return ByName(msg, name).AsDouble(); }
double JSON_GetPathAsDouble(void* msg, const char* path) { return ByPath(msg, path).AsDouble(); }

unsigned long long JSON_GetOrdinalAsUnsignedLong64(void* msg, int ordinal) {
    return AsUnsignedLong64(ByOrdinal(msg, ordinal));
}
unsigned long long JSON_GetNameAsUnsignedLong64(void* msg, const char* name) {
    return AsUnsignedLong64(ByName(msg, name));
}

}  // extern "C"
