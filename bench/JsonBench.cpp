// JSON benchmarks over the files of a data folder: parsing, writing, pretty printing, path
// lookups and updates, each beside the libraries a user would pick instead when they are
// installed. Usage: qvipc_bench_json --data=DIR [benchmark flags].
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/BenchSupport.h"
#include "json/JSONMessage.h"
#include "json/JSONPrettyPrint.h"
#include "json/JSONSerialize.h"
#include "json/JSONValue.h"

#ifdef QVBENCH_HAVE_RAPIDJSON
#include <rapidjson/document.h>
#include <rapidjson/pointer.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#endif
#ifdef QVBENCH_HAVE_SIMDJSON
#include <simdjson.h>
#endif
#ifdef QVBENCH_HAVE_NLOHMANN
#include <nlohmann/json.hpp>
#endif

namespace qvbench {
namespace {

struct File {
    std::string name;  // without ".json"
    std::string text;
};

// Bytes the allocator hands out at this moment (small blocks and mapped ones).
size_t HeapInUse() {
    const struct mallinfo2 mi = mallinfo2();
    return mi.uordblks + mi.hblkhd;
}

// Runs f on a thread of its own and returns its result. The heap a document holds is measured
// there: a new thread has none of the memory a parser may keep from earlier parses on a
// thread, which would otherwise serve the parse from blocks already counted before it.
bool OnOwnThread(const std::function<bool()>& f) {
    bool result = false;
    std::thread([&] {
        std::free(std::malloc(1));  // the thread's heap arena, made before the count
        result = f();
    }).join();
    return result;
}

void SetHeld(benchmark::State& state, size_t before, const File& f) {
    const size_t after = HeapInUse();
    const double held = after > before ? static_cast<double>(after - before) : 0.0;
    state.counters["held_bytes"] = held;
    state.counters["held_per_input_byte"] = held / static_cast<double>(f.text.size());
}

void SetThroughput(benchmark::State& state, const File& f) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(f.text.size()));
}

// ---- parse ----

void Memcpy(benchmark::State& state, const File& f) {
    std::vector<char> buf(f.text.size() + 1);
    for (auto _ : state) {
        std::memcpy(buf.data(), f.text.data(), f.text.size());
        benchmark::DoNotOptimize(buf.data());
        benchmark::ClobberMemory();
    }
    SetThroughput(state, f);
}

// In-place parsers get a fresh copy of the text every time (they unescape into it): the copy
// is timed in every in-place row alike.
void ParseQvInPlace(benchmark::State& state, const File& f) {
    std::vector<char> buf(f.text.size() + 1, '\0');
    if (!OnOwnThread([&] {
            std::memcpy(buf.data(), f.text.data(), f.text.size());
            const size_t before = HeapInUse();
            JSON::Message m(true);
            if (!m.Parse(buf.data(), static_cast<int>(f.text.size()))) return false;
            SetHeld(state, before, f);
            return true;
        })) {
        state.SkipWithError("parse failed");
        return;
    }
    for (auto _ : state) {
        std::memcpy(buf.data(), f.text.data(), f.text.size());
        JSON::Message m(true);
        benchmark::DoNotOptimize(m.Parse(buf.data(), static_cast<int>(f.text.size())));
    }
    SetThroughput(state, f);
}

void ParseQvCopy(benchmark::State& state, const File& f) {
    if (!OnOwnThread([&] {
            const size_t before = HeapInUse();
            JSON::Message m;
            if (!m.Parse(f.text.c_str(), static_cast<int>(f.text.size()))) return false;
            SetHeld(state, before, f);
            return true;
        })) {
        state.SkipWithError("parse failed");
        return;
    }
    for (auto _ : state) {
        JSON::Message m;
        benchmark::DoNotOptimize(m.Parse(f.text.c_str(), static_cast<int>(f.text.size())));
    }
    SetThroughput(state, f);
}

#ifdef QVBENCH_HAVE_RAPIDJSON
void ParseRapid(benchmark::State& state, const File& f) {
    if (!OnOwnThread([&] {
            const size_t before = HeapInUse();
            rapidjson::Document d;
            d.Parse(f.text.c_str());
            if (d.HasParseError()) return false;
            SetHeld(state, before, f);
            return true;
        })) {
        state.SkipWithError("parse failed");
        return;
    }
    for (auto _ : state) {
        rapidjson::Document d;
        d.Parse(f.text.c_str());
        benchmark::DoNotOptimize(d.HasParseError());
    }
    SetThroughput(state, f);
}

void ParseRapidInsitu(benchmark::State& state, const File& f) {
    std::vector<char> buf(f.text.size() + 1, '\0');
    if (!OnOwnThread([&] {
            std::memcpy(buf.data(), f.text.data(), f.text.size());
            const size_t before = HeapInUse();
            rapidjson::Document d;
            d.ParseInsitu(buf.data());
            if (d.HasParseError()) return false;
            SetHeld(state, before, f);
            return true;
        })) {
        state.SkipWithError("parse failed");
        return;
    }
    for (auto _ : state) {
        std::memcpy(buf.data(), f.text.data(), f.text.size());
        rapidjson::Document d;
        d.ParseInsitu(buf.data());
        benchmark::DoNotOptimize(d.HasParseError());
    }
    SetThroughput(state, f);
}
#endif

#ifdef QVBENCH_HAVE_SIMDJSON
// The parser object is reused, as its documentation advises; its buffers are what it holds.
void ParseSimd(benchmark::State& state, const File& f) {
    const simdjson::padded_string padded(f.text);
    simdjson::dom::parser parser;
    {
        const size_t before = HeapInUse();
        simdjson::dom::element root;
        if (parser.parse(padded).get(root) != simdjson::SUCCESS) {
            state.SkipWithError("parse failed");
            return;
        }
        SetHeld(state, before, f);
    }
    for (auto _ : state) {
        simdjson::dom::element root;
        benchmark::DoNotOptimize(parser.parse(padded).get(root));
    }
    SetThroughput(state, f);
}
#endif

#ifdef QVBENCH_HAVE_NLOHMANN
void ParseNlohmann(benchmark::State& state, const File& f) {
    OnOwnThread([&] {
        const size_t before = HeapInUse();
        nlohmann::json j = nlohmann::json::parse(f.text);
        SetHeld(state, before, f);
        return true;
    });
    for (auto _ : state) {
        nlohmann::json j = nlohmann::json::parse(f.text);
        benchmark::DoNotOptimize(j.is_object());
    }
    SetThroughput(state, f);
}
#endif

// ---- message-sized documents, each parsed alone into a fresh document ----

// Documents of a few hundred bytes to a few KB, as a message body is: the set-up and tear-down
// of each document count as much as the bytes.
struct Docs {
    std::string name;
    std::vector<std::string> texts;
    size_t bytes = 0;
    size_t largest = 0;
    void Add(std::string text) {
        bytes += text.size();
        largest = std::max(largest, text.size());
        texts.push_back(std::move(text));
    }
};

// A request as a client sends it: a few scalars, a nested object and an array (203 bytes).
const char REQUEST[] =
    R"({"request":"user.update","id":1042,"session":"7f3a9c2e-55b1-4d2e-9a61-0c8e2f1b7d40",)"
    R"("params":{"user":"operator","retries":3,"timeout":2.5,"notify":true,)"
    R"("groups":["admin","audit"]},"ids":[17,42,256,1024]})";

// The elements of the array after "statuses", each as the text it has in the file. Brackets
// are matched outside strings; the file is known to be well formed.
std::vector<std::string> StatusTexts(const std::string& text) {
    std::vector<std::string> out;
    size_t i = text.find("\"statuses\"");
    if (i == std::string::npos || (i = text.find('[', i)) == std::string::npos) return out;
    ++i;
    int depth = 0;
    size_t start = 0;
    for (; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '"') {
            for (++i; i < text.size() && text[i] != '"'; ++i) {
                if (text[i] == '\\') ++i;
            }
        } else if (c == '{' || c == '[') {
            if (depth++ == 0) start = i;
        } else if (c == '}' || c == ']') {
            if (depth == 0) break;  // the end of the statuses
            if (--depth == 0) out.push_back(text.substr(start, i + 1 - start));
        }
    }
    return out;
}

void SetDocsThroughput(benchmark::State& state, const Docs& d) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(d.bytes));
}

// Parses every document of d, each into a fresh document that parseOne(text, size) makes,
// parses and destroys. In place, each text is first copied into a writable buffer, as the
// whole-file rows do.
template <bool IN_PLACE, typename ParseOne>
void ParseDocs(benchmark::State& state, const Docs& d, ParseOne parseOne) {
    std::vector<char> buf(d.largest + 1, '\0');
    for (auto _ : state) {
        for (const std::string& t : d.texts) {
            char* text = const_cast<char*>(t.c_str());
            if (IN_PLACE) {
                std::memcpy(buf.data(), t.data(), t.size());
                buf[t.size()] = '\0';
                text = buf.data();
            }
            if (!parseOne(text, t.size())) {
                state.SkipWithError("parse failed");
                return;
            }
        }
    }
    SetDocsThroughput(state, d);
}

void MsgQvInPlace(benchmark::State& state, const Docs& d) {
    ParseDocs<true>(state, d, [](char* text, size_t size) {
        JSON::Message m(true);
        return m.Parse(text, static_cast<int>(size));
    });
}

void MsgQvCopy(benchmark::State& state, const Docs& d) {
    ParseDocs<false>(state, d, [](const char* text, size_t size) {
        JSON::Message m;
        return m.Parse(text, static_cast<int>(size));
    });
}

#ifdef QVBENCH_HAVE_RAPIDJSON
void MsgRapid(benchmark::State& state, const Docs& d) {
    ParseDocs<false>(state, d, [](const char* text, size_t /*size*/) {
        rapidjson::Document doc;
        doc.Parse(text);
        return !doc.HasParseError();
    });
}

void MsgRapidInsitu(benchmark::State& state, const Docs& d) {
    ParseDocs<true>(state, d, [](char* text, size_t /*size*/) {
        rapidjson::Document doc;
        doc.ParseInsitu(text);
        return !doc.HasParseError();
    });
}
#endif

// ---- serialize a parsed tree ----

void SerializeQvTree(benchmark::State& state, const File& f) {
    JSON::Message m;
    m.Parse(f.text.c_str(), static_cast<int>(f.text.size()));
    for (auto _ : state) {
        std::string out;
        m.Serialize(out);
        benchmark::DoNotOptimize(out.data());
    }
    SetThroughput(state, f);
}

#ifdef QVBENCH_HAVE_RAPIDJSON
void SerializeRapid(benchmark::State& state, const File& f) {
    rapidjson::Document d;
    d.Parse(f.text.c_str());
    for (auto _ : state) {
        rapidjson::StringBuffer sb;
        rapidjson::Writer<rapidjson::StringBuffer> w(sb);
        d.Accept(w);
        benchmark::DoNotOptimize(sb.GetString());
    }
    SetThroughput(state, f);
}
#endif

#ifdef QVBENCH_HAVE_NLOHMANN
void SerializeNlohmann(benchmark::State& state, const File& f) {
    const nlohmann::json j = nlohmann::json::parse(f.text);
    for (auto _ : state) {
        std::string out = j.dump();
        benchmark::DoNotOptimize(out.data());
    }
    SetThroughput(state, f);
}
#endif

// ---- write token by token ----

// The documents as a flat list of writer calls, made once, so each writer is fed the same calls.
struct Token {
    enum Kind {
        OPEN_OBJECT,
        CLOSE_OBJECT,
        OPEN_ARRAY,
        CLOSE_ARRAY,
        NAME,
        STRING,
        INT,
        UINT,
        REAL,
        TRUE_,
        FALSE_,
        NULL_
    } kind;
    std::string text;
    long long i = 0;
    unsigned long long u = 0;
    double d = 0;
};

void Tokenize(const JSON::JSONValue& v, std::vector<Token>* out) {
    switch (v.m_type) {
        case JSON::TypeObject: {
            out->push_back({Token::OPEN_OBJECT, {}});
            const JSON::CompositeValue* c = v.m_pComposite;
            for (int k = 0; k < c->Size(); ++k) {
                out->push_back({Token::NAME, c->NameAt(k)});
                Tokenize(*c->GetByOrdinal(k), out);
            }
            out->push_back({Token::CLOSE_OBJECT, {}});
            break;
        }
        case JSON::TypeArray: {
            out->push_back({Token::OPEN_ARRAY, {}});
            const JSON::CompositeValue* c = v.m_pComposite;
            for (int k = 0; k < c->Size(); ++k) Tokenize(*c->GetByOrdinal(k), out);
            out->push_back({Token::CLOSE_ARRAY, {}});
            break;
        }
        case JSON::TypeString:
            out->push_back({Token::STRING, v.m_pText != nullptr ? v.m_pText : ""});
            break;
        case JSON::TypeInteger: {
            Token t{Token::INT, std::string(v.m_pText, static_cast<size_t>(v.m_nLength))};
            if (t.text[0] == '-') {
                t.i = std::strtoll(t.text.c_str(), nullptr, 10);
            } else {
                t.kind = Token::UINT;
                t.u = std::strtoull(t.text.c_str(), nullptr, 10);
            }
            out->push_back(t);
            break;
        }
        case JSON::TypeReal: {
            Token t{Token::REAL, std::string(v.m_pText, static_cast<size_t>(v.m_nLength))};
            t.d = std::strtod(t.text.c_str(), nullptr);
            out->push_back(t);
            break;
        }
        case JSON::TypeBoolean:
            out->push_back(
                {v.m_pText != nullptr && v.m_pText[0] == 't' ? Token::TRUE_ : Token::FALSE_, {}});
            break;
        default:
            out->push_back({Token::NULL_, {}});
            break;
    }
}

std::vector<Token> TokensOf(const File& f) {
    JSON::Message m;
    m.Parse(f.text.c_str(), static_cast<int>(f.text.size()));
    std::vector<Token> tokens;
    Tokenize(m, &tokens);
    return tokens;
}

void WriteQvTokens(benchmark::State& state, const File& f) {
    const std::vector<Token> tokens = TokensOf(f);
    for (auto _ : state) {
        JSON::Serialize w;
        for (const Token& t : tokens) {
            switch (t.kind) {
                case Token::OPEN_OBJECT:
                    w.OO();
                    break;
                case Token::CLOSE_OBJECT:
                    w.OC();
                    break;
                case Token::OPEN_ARRAY:
                    w.AO();
                    break;
                case Token::CLOSE_ARRAY:
                    w.AC();
                    break;
                case Token::NAME:
                    w.N(t.text.c_str());
                    break;
                case Token::STRING:
                    w.V(t.text.c_str());
                    break;
                case Token::INT:
                    w.V(t.i);
                    break;
                case Token::UINT:
                    w.V(t.u);
                    break;
                case Token::REAL:
                    w.V(t.d);
                    break;
                case Token::TRUE_:
                    w.JS("true");
                    break;
                case Token::FALSE_:
                    w.JS("false");
                    break;
                case Token::NULL_:
                    w.JS("null");
                    break;
            }
        }
        if (w.m_error) {
            state.SkipWithError("writer refused a call");
            break;
        }
        benchmark::DoNotOptimize(w.String().data());
    }
    SetThroughput(state, f);
}

#ifdef QVBENCH_HAVE_RAPIDJSON
void WriteRapidTokens(benchmark::State& state, const File& f) {
    const std::vector<Token> tokens = TokensOf(f);
    for (auto _ : state) {
        rapidjson::StringBuffer sb;
        rapidjson::Writer<rapidjson::StringBuffer> w(sb);
        for (const Token& t : tokens) {
            const auto len = static_cast<rapidjson::SizeType>(t.text.size());
            switch (t.kind) {
                case Token::OPEN_OBJECT:
                    w.StartObject();
                    break;
                case Token::CLOSE_OBJECT:
                    w.EndObject();
                    break;
                case Token::OPEN_ARRAY:
                    w.StartArray();
                    break;
                case Token::CLOSE_ARRAY:
                    w.EndArray();
                    break;
                case Token::NAME:
                    w.Key(t.text.c_str(), len);
                    break;
                case Token::STRING:
                    w.String(t.text.c_str(), len);
                    break;
                case Token::INT:
                    w.Int64(t.i);
                    break;
                case Token::UINT:
                    w.Uint64(t.u);
                    break;
                case Token::REAL:
                    w.Double(t.d);
                    break;
                case Token::TRUE_:
                    w.Bool(true);
                    break;
                case Token::FALSE_:
                    w.Bool(false);
                    break;
                case Token::NULL_:
                    w.Null();
                    break;
            }
        }
        benchmark::DoNotOptimize(sb.GetString());
    }
    SetThroughput(state, f);
}
#endif

// ---- pretty print (compact text in, laid-out text out) ----

std::string CompactOf(const File& f) {
    JSON::Message m;
    m.Parse(f.text.c_str(), static_cast<int>(f.text.size()));
    std::string out;
    m.Serialize(out);
    return out;
}

void PrettyQv(benchmark::State& state, const File& f) {
    const std::string compact = CompactOf(f);
    for (auto _ : state) {
        std::string out;
        JSON_PrettyPrint(compact.c_str(), out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(compact.size()));
}

#ifdef QVBENCH_HAVE_RAPIDJSON
void PrettyRapid(benchmark::State& state, const File& f) {
    const std::string compact = CompactOf(f);
    for (auto _ : state) {
        rapidjson::Reader reader;
        rapidjson::StringStream in(compact.c_str());
        rapidjson::StringBuffer sb;
        rapidjson::PrettyWriter<rapidjson::StringBuffer> w(sb);
        w.SetIndent('\t', 1);  // the same layout unit as ours
        reader.Parse(in, w);
        benchmark::DoNotOptimize(sb.GetString());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(compact.size()));
}
#endif

// ---- paths and updates on twitter.json ----

const char* const PATHS[] = {
    "search_metadata.count",
    "statuses.0.id_str",
    "statuses.0.user.screen_name",
    "statuses.50.user.followers_count",
    "statuses.99.text",
    "statuses.10.entities.hashtags",
    "statuses.77.retweet_count",
    "statuses.20.metadata.result_type",
};

std::string PointerOf(const char* path) {
    std::string p = "/";
    for (const char* c = path; *c != '\0'; ++c) p += *c == '.' ? '/' : *c;
    return p;
}

void PathQv(benchmark::State& state, const File& f) {
    JSON::Message m;
    m.Parse(f.text.c_str(), static_cast<int>(f.text.size()));
    for (const char* p : PATHS) {
        if (m.Path(p).m_type == JSON::TypeNone) {
            state.SkipWithError((std::string("missing path ") + p).c_str());
            return;
        }
    }
    for (auto _ : state) {
        for (const char* p : PATHS) benchmark::DoNotOptimize(&m.Path(p));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(sizeof PATHS / sizeof PATHS[0]));
}

void SetQv(benchmark::State& state, const File& f) {
    JSON::Message m;
    m.Parse(f.text.c_str(), static_cast<int>(f.text.size()));
    int n = 0;
    for (auto _ : state) {
        JSON::JSONValue& user = m["statuses"][n % 100]["user"];
        user.Set("followers_count", n);
        user.Set("screen_name", "bench");
        ++n;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 2);
}

#ifdef QVBENCH_HAVE_RAPIDJSON
void PathRapid(benchmark::State& state, const File& f) {
    rapidjson::Document d;
    d.Parse(f.text.c_str());
    std::vector<rapidjson::Pointer> pointers;
    for (const char* p : PATHS) pointers.emplace_back(PointerOf(p).c_str());
    for (auto _ : state) {
        for (const rapidjson::Pointer& p : pointers) benchmark::DoNotOptimize(p.Get(d));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(pointers.size()));
}

void SetRapid(benchmark::State& state, const File& f) {
    rapidjson::Document d;
    d.Parse(f.text.c_str());
    int n = 0;
    for (auto _ : state) {
        rapidjson::Value& user = d["statuses"][n % 100]["user"];
        user["followers_count"].SetInt(n);
        user["screen_name"].SetString("bench", d.GetAllocator());
        ++n;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 2);
}
#endif

#ifdef QVBENCH_HAVE_NLOHMANN
void PathNlohmann(benchmark::State& state, const File& f) {
    const nlohmann::json j = nlohmann::json::parse(f.text);
    std::vector<nlohmann::json::json_pointer> pointers;
    for (const char* p : PATHS) pointers.emplace_back(PointerOf(p));
    for (auto _ : state) {
        for (const auto& p : pointers) benchmark::DoNotOptimize(&j.at(p));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(pointers.size()));
}

void SetNlohmann(benchmark::State& state, const File& f) {
    nlohmann::json j = nlohmann::json::parse(f.text);
    int n = 0;
    for (auto _ : state) {
        nlohmann::json& user = j["statuses"][n % 100]["user"];
        user["followers_count"] = n;
        user["screen_name"] = "bench";
        ++n;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 2);
}
#endif

std::vector<File> g_files;
std::vector<Docs> g_docs;

// Data: a File or Docs, named by its name.
template <typename Data>
void Register(const std::string& name, void (*fn)(benchmark::State&, const Data&),
              const Data& data) {
    benchmark::RegisterBenchmark((name + "/" + data.name).c_str(), [fn,
                                                                    &data](benchmark::State& s) {
        fn(s, data);
    })->Unit(benchmark::kMicrosecond);
}

bool LoadFiles(const std::string& dir) {
    static const char* const NAMES[] = {"canada", "citm_catalog", "github_events", "gsoc-2018",
                                        "mesh",   "twitter",      "update-center"};
    for (const char* n : NAMES) {
        std::ifstream in(dir + "/" + n + ".json", std::ios::binary);
        if (!in) continue;
        std::ostringstream text;
        text << in.rdbuf();
        g_files.push_back({n, text.str()});
    }
    return !g_files.empty();
}

void MakeDocs() {
    Docs request;
    request.name = "request";
    request.Add(REQUEST);
    g_docs.push_back(std::move(request));
    for (const File& f : g_files) {
        if (f.name != "twitter") continue;
        Docs statuses;
        statuses.name = "twitter_statuses";
        for (std::string& t : StatusTexts(f.text)) statuses.Add(std::move(t));
        if (!statuses.texts.empty()) g_docs.push_back(std::move(statuses));
    }
}

void RegisterAll() {
    MakeDocs();
    for (const Docs& d : g_docs) {
        Register("Message/qvipc_inplace", MsgQvInPlace, d);
        Register("Message/qvipc_copy", MsgQvCopy, d);
#ifdef QVBENCH_HAVE_RAPIDJSON
        Register("Message/rapidjson", MsgRapid, d);
        Register("Message/rapidjson_insitu", MsgRapidInsitu, d);
#endif
    }
    for (const File& f : g_files) {
        Register("Memcpy/memcpy", Memcpy, f);
        Register("Parse/qvipc_inplace", ParseQvInPlace, f);
        Register("Parse/qvipc_copy", ParseQvCopy, f);
#ifdef QVBENCH_HAVE_RAPIDJSON
        Register("Parse/rapidjson", ParseRapid, f);
        Register("Parse/rapidjson_insitu", ParseRapidInsitu, f);
#endif
#ifdef QVBENCH_HAVE_SIMDJSON
        Register("Parse/simdjson_dom", ParseSimd, f);
#endif
#ifdef QVBENCH_HAVE_NLOHMANN
        Register("Parse/nlohmann", ParseNlohmann, f);
#endif
        Register("Serialize/qvipc_tree", SerializeQvTree, f);
#ifdef QVBENCH_HAVE_RAPIDJSON
        Register("Serialize/rapidjson_writer", SerializeRapid, f);
#endif
#ifdef QVBENCH_HAVE_NLOHMANN
        Register("Serialize/nlohmann_dump", SerializeNlohmann, f);
#endif
        Register("Write/qvipc_serialize", WriteQvTokens, f);
#ifdef QVBENCH_HAVE_RAPIDJSON
        Register("Write/rapidjson_writer", WriteRapidTokens, f);
#endif
        Register("Pretty/qvipc", PrettyQv, f);
#ifdef QVBENCH_HAVE_RAPIDJSON
        Register("Pretty/rapidjson_prettywriter", PrettyRapid, f);
#endif
        if (f.name != "twitter") continue;
        Register("Path/qvipc", PathQv, f);
        Register("Set/qvipc", SetQv, f);
#ifdef QVBENCH_HAVE_RAPIDJSON
        Register("Path/rapidjson_pointer", PathRapid, f);
        Register("Set/rapidjson", SetRapid, f);
#endif
#ifdef QVBENCH_HAVE_NLOHMANN
        Register("Path/nlohmann_pointer", PathNlohmann, f);
        Register("Set/nlohmann", SetNlohmann, f);
#endif
    }
}

}  // namespace
}  // namespace qvbench

int main(int argc, char** argv) {
    std::string dir = "../shared/bench-data/json";
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--data=", 7) == 0) {
            dir = argv[i] + 7;
        } else {
            argv[kept++] = argv[i];
        }
    }
    argc = kept;
    if (!qvbench::LoadFiles(dir)) {
        std::fprintf(stderr, "no JSON files in %s\n", dir.c_str());
        return 1;
    }
    qvbench::RegisterAll();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
