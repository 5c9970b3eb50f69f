// JSON benchmarks over the files of a data folder: parsing, writing, pretty printing, path
// lookups and updates, each beside the libraries a user would pick instead when they are
// installed. Usage: qvipc_bench_json --data=DIR [benchmark flags].
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
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
    {
        std::memcpy(buf.data(), f.text.data(), f.text.size());
        const size_t before = HeapInUse();
        JSON::Message m(true);
        if (!m.Parse(buf.data(), static_cast<int>(f.text.size()))) {
            state.SkipWithError("parse failed");
            return;
        }
        SetHeld(state, before, f);
    }
    for (auto _ : state) {
        std::memcpy(buf.data(), f.text.data(), f.text.size());
        JSON::Message m(true);
        benchmark::DoNotOptimize(m.Parse(buf.data(), static_cast<int>(f.text.size())));
    }
    SetThroughput(state, f);
}

void ParseQvCopy(benchmark::State& state, const File& f) {
    {
        const size_t before = HeapInUse();
        JSON::Message m;
        if (!m.Parse(f.text.c_str(), static_cast<int>(f.text.size()))) {
            state.SkipWithError("parse failed");
            return;
        }
        SetHeld(state, before, f);
    }
    for (auto _ : state) {
        JSON::Message m;
        benchmark::DoNotOptimize(m.Parse(f.text.c_str(), static_cast<int>(f.text.size())));
    }
    SetThroughput(state, f);
}

#ifdef QVBENCH_HAVE_RAPIDJSON
void ParseRapid(benchmark::State& state, const File& f) {
    {
        const size_t before = HeapInUse();
        rapidjson::Document d;
        d.Parse(f.text.c_str());
        if (d.HasParseError()) {
            state.SkipWithError("parse failed");
            return;
        }
        SetHeld(state, before, f);
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
    {
        std::memcpy(buf.data(), f.text.data(), f.text.size());
        const size_t before = HeapInUse();
        rapidjson::Document d;
        d.ParseInsitu(buf.data());
        if (d.HasParseError()) {
            state.SkipWithError("parse failed");
            return;
        }
        SetHeld(state, before, f);
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
    {
        const size_t before = HeapInUse();
        nlohmann::json j = nlohmann::json::parse(f.text);
        SetHeld(state, before, f);
    }
    for (auto _ : state) {
        nlohmann::json j = nlohmann::json::parse(f.text);
        benchmark::DoNotOptimize(j.is_object());
    }
    SetThroughput(state, f);
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

void Register(const std::string& name, void (*fn)(benchmark::State&, const File&), const File& f) {
    benchmark::RegisterBenchmark((name + "/" + f.name).c_str(), [fn, &f](benchmark::State& s) {
        fn(s, f);
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

void RegisterAll() {
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
