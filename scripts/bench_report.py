#!/usr/bin/env python3
"""Prints the benchmark results of one run as Markdown tables of ratios to the baselines of the
same run. Usage: bench_report.py JSON_RESULTS IPC_RESULTS (Google Benchmark JSON files; either
may be missing). With repetitions, the median of the repetitions is used."""
import json
import os
import sys

def load(path):
    """name -> result, preferring the median aggregate of repetitions."""
    if not os.path.exists(path):
        return {}, {}
    with open(path) as f:
        data = json.load(f)
    single, median = {}, {}
    for b in data.get("benchmarks", []):
        name = b.get("run_name", b["name"])
        for junk in ("/manual_time", "/real_time"):
            name = name.replace(junk, "")
        name = "/".join(p for p in name.split("/") if not p.startswith("iterations:")
                        and not p.startswith("repeats:"))
        if b.get("error_occurred"):
            continue
        if b.get("run_type") == "aggregate":
            if b.get("aggregate_name") == "median":
                median[name] = b
        else:
            single.setdefault(name, b)
    single.update(median)
    return single, data.get("context", {})


SCALE = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}


def seconds(b, key="real_time"):
    return b[key] * SCALE[b.get("time_unit", "ns")]


def fmt(x, digits=2):
    if x is None:
        return "-"
    if x >= 100:
        return "%.0f" % x
    if x >= 10:
        return "%.1f" % x
    return "%.*f" % (digits, x)


def ratio(a, b):
    if a is None or b is None or b == 0:
        return None
    return a / b


def verdict(value, limit, higher_is_better):
    if value is None:
        return "n/a"
    ok = value >= limit if higher_is_better else value <= limit
    return "met" if ok else "MISSED"


def table(header, rows):
    out = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    for r in rows:
        out.append("| " + " | ".join(r) + " |")
    return "\n".join(out)


def size_name(n):
    n = int(n)
    if n >= 1 << 20:
        return "%d MiB" % (n >> 20)
    if n >= 1024:
        return "%d KiB" % (n >> 10)
    return "%d B" % n


def ipc_tables(r, targets):
    out = []
    rt_kinds = ["qvipc", "fifo", "fifo_1MiB_pipe", "fifo_library_calls", "unix_socket", "zmq"]
    sizes = ["0", "100", "4096", "65536", "1048576"]
    kinds = [k for k in rt_kinds if any("RoundTrip/%s/%s" % (k, s) in r for s in sizes)]
    if kinds:
        out.append("### Round trip (two processes, one request outstanding), median / p99 in µs\n")
        rows = []
        for s in sizes:
            if not any("RoundTrip/%s/%s" % (k, s) in r for k in kinds):
                continue
            row = [size_name(s)]
            for k in kinds:
                b = r.get("RoundTrip/%s/%s" % (k, s))
                row.append("%s / %s" % (fmt(b["p50_us"]), fmt(b["p99_us"])) if b else "-")
            q = r.get("RoundTrip/qvipc/%s" % s)
            f = r.get("RoundTrip/fifo/%s" % s)
            big = r.get("RoundTrip/fifo_1MiB_pipe/%s" % s)
            rq = ratio(q and q["p50_us"], f and f["p50_us"])
            row.append(fmt(rq))
            row.append(fmt(ratio(f and f["p50_us"], big and big["p50_us"])))
            rows.append(row)
            if int(s) <= 4096 and q:
                targets.append(("Round trip %s: qvipc time / raw FIFO time (median)" % size_name(s),
                                rq, "<= 1.15", verdict(rq, 1.15, False)))
            if int(s) == 1 << 20 and q:
                gain = ratio(f and f["p50_us"], q and q["p50_us"])
                targets.append(("Round trip 1 MiB: qvipc speed-up over the default 64 KiB FIFO",
                                gain, ">= 1.5", verdict(gain, 1.5, True)))
        out.append(table(["body"] + kinds + ["qvipc / fifo (time)",
                                             "fifo / fifo_1MiB_pipe (time)"], rows))
        out.append("")
    st_sizes = ["100", "65536", "1048576"]
    kinds = [k for k in rt_kinds if any("Stream/%s/%s" % (k, s) in r for s in st_sizes)]
    if kinds:
        out.append("### One-way streaming, messages per second (MB/s)\n")
        rows = []
        for s in st_sizes:
            if not any("Stream/%s/%s" % (k, s) in r for k in kinds):
                continue
            row = [size_name(s)]
            rates = {}
            for k in kinds:
                b = r.get("Stream/%s/%s" % (k, s))
                if b:
                    per_s = b["batch"] / seconds(b)
                    rates[k] = per_s
                    row.append("%s (%s)" % (fmt(per_s), fmt(per_s * int(s) / 1e6)))
                else:
                    row.append("-")
            rq = ratio(rates.get("qvipc"), rates.get("fifo"))
            row.append(fmt(rq))
            row.append(fmt(ratio(rates.get("fifo_1MiB_pipe"), rates.get("fifo"))))
            rows.append(row)
            targets.append(("Streaming %s: qvipc rate / raw FIFO rate" % size_name(s), rq,
                            ">= 0.9", verdict(rq, 0.9, True)))
            if int(s) == 1 << 20:
                targets.append(("Streaming 1 MiB: qvipc speed-up over the default 64 KiB FIFO",
                                rq, ">= 1.5", verdict(rq, 1.5, True)))
        out.append(table(["body"] + kinds + ["qvipc / fifo (rate)",
                                             "fifo_1MiB_pipe / fifo (rate)"], rows))
        out.append("")
    rows = []
    for n in ("8", "32"):
        q = r.get("Clients/qvipc/%s" % n)
        f = r.get("Clients/select_fifo/%s" % n)
        qr = q and q["round_trips_per_s"]
        fr = f and f["round_trips_per_s"]
        rq = ratio(qr, fr)
        if q or f:
            rows.append([n, fmt(qr), fmt(fr), fmt(rq)])
        if n == "32" and q:
            targets.append(("32 clients: qvipc round trips/s / raw select() server", rq, ">= 0.9",
                            verdict(rq, 0.9, True)))
    if rows:
        out.append("### One server, many client processes, 100 B round trips: aggregate round trips per second\n")
        out.append(table(["clients", "qvipc", "raw select() FIFO server", "qvipc / raw"], rows))
        out.append("")
    rows = []
    for name, label in (("Connect/qvipc", "connect (client constructed after the server is up)"),
                        ("Reconnect/qvipc", "reconnect (after the server restarts)")):
        b = r.get(name)
        if b:
            rows.append([label, fmt(seconds(b) * 1e3)])
    if rows:
        out.append("### Connecting, ms until receiveRequest returns QVIPC_E_NEW_CONNECTION\n")
        out.append(table(["case", "ms (mean)"], rows))
        out.append("")
    return out


JSON_FILES = ["canada", "citm_catalog", "github_events", "gsoc-2018", "mesh", "twitter",
              "update-center"]
# Message-sized documents, each parsed alone into a fresh document.
MESSAGE_DOCS = ["request", "twitter_statuses"]


def mbps(b):
    # CPU time: the JSON rows are single-threaded, and CPU time is the steadier of the two on a
    # shared machine.
    return b["bytes_per_second"] / 1e6 if b and "bytes_per_second" in b else None


def json_group(r, group, rows_of, base, ours, targets, limit, title, target_label,
               names=JSON_FILES):
    files = [f for f in names if any("%s/%s/%s" % (group, k, f) in r for k in rows_of)]
    kinds = [k for k in rows_of if any("%s/%s/%s" % (group, k, f) in r for f in files)]
    if not files:
        return []
    out = ["### %s, MB/s of input (ratio to %s)\n" % (title, base)]
    rows = []
    for f in files:
        b0 = mbps(r.get("%s/%s/%s" % (group, base, f)))
        row = [f]
        for k in kinds:
            v = mbps(r.get("%s/%s/%s" % (group, k, f)))
            row.append("%s (%s)" % (fmt(v), fmt(ratio(v, b0))) if v else "-")
        rows.append(row)
        for o in ours:
            rq = ratio(mbps(r.get("%s/%s/%s" % (group, o, f))), b0)
            if limit is not None and b0 is not None:
                targets.append(("%s %s, %s: ratio to %s" % (target_label, f, o, base), rq,
                                ">= %g" % limit, verdict(rq, limit, True)))
    out.append(table(["file"] + kinds, rows))
    out.append("")
    return out


def json_tables(r, targets):
    out = []
    out += json_group(r, "Message", ["qvipc_inplace", "qvipc_copy", "rapidjson",
                                     "rapidjson_insitu"],
                      "rapidjson_insitu", ["qvipc_inplace"], targets, 1.0,
                      "Parse message-sized documents, each into a fresh document",
                      "JSON message parse", MESSAGE_DOCS)
    out += json_group(r, "Parse", ["qvipc_inplace", "qvipc_copy", "rapidjson", "rapidjson_insitu",
                                   "simdjson_dom", "nlohmann"],
                      "rapidjson_insitu", ["qvipc_inplace"], targets, 0.8, "Parse",
                      "JSON parse")
    mem = []
    for f in JSON_FILES:
        row = [f]
        seen = False
        for k in ["qvipc_inplace", "qvipc_copy", "rapidjson", "rapidjson_insitu", "simdjson_dom",
                  "nlohmann"]:
            b = r.get("Parse/%s/%s" % (k, f))
            row.append(fmt(b["held_per_input_byte"]) if b and "held_per_input_byte" in b else "-")
            seen = seen or b is not None
        if seen:
            mem.append(row)
    if mem:
        out.append("### Heap bytes held by a parsed document, per byte of input\n")
        out.append("(In place, the caller's text, 1 byte per byte, comes on top; simdjson's row is "
                   "its reusable parser's buffers.)\n")
        out.append(table(["file", "qvipc_inplace", "qvipc_copy", "rapidjson", "rapidjson_insitu",
                          "simdjson_dom", "nlohmann"], mem))
        out.append("")
    out += json_group(r, "Serialize", ["qvipc_tree", "rapidjson_writer", "nlohmann_dump"],
                      "rapidjson_writer", ["qvipc_tree"], targets, 1.0,
                      "Serialize a parsed tree", "Tree serialization")
    out += json_group(r, "Write", ["qvipc_serialize", "rapidjson_writer"], "rapidjson_writer", [],
                      targets, None, "Write token by token (JSON::Serialize vs Writer)", "")
    out += json_group(r, "Pretty", ["qvipc", "rapidjson_prettywriter"],
                      "rapidjson_prettywriter", ["qvipc"], targets, 2.0,
                      "Pretty print, compact text to laid-out text", "Pretty print")
    out += json_group(r, "Memcpy", ["memcpy"], "memcpy", [], targets, None,
                      "memcpy of each file (the ceiling)", "")
    rows = []
    for op in ("Path", "Set"):
        for k in ("qvipc", "rapidjson_pointer", "nlohmann_pointer", "rapidjson", "nlohmann"):
            b = r.get("%s/%s/twitter" % (op, k))
            if b and "items_per_second" in b:
                rows.append([op, k, fmt(1e9 / b["items_per_second"])])
    if rows:
        out.append("### Path lookups and updates on twitter.json, ns per operation\n")
        out.append(table(["operation", "library", "ns"], rows))
        out.append("")
    return out


def main():
    json_path = sys.argv[1] if len(sys.argv) > 1 else "build/bench/json.json"
    ipc_path = sys.argv[2] if len(sys.argv) > 2 else "build/bench/ipc.json"
    jr, jctx = load(json_path)
    ir, ictx = load(ipc_path)
    ctx = ictx or jctx
    targets = []
    out = []
    if ctx:
        out.append("Machine: %s CPUs at %s MHz, load average at start %s; %s.\n" % (
            ctx.get("num_cpus"), ctx.get("mhz_per_cpu"),
            ", ".join("%.2f" % x for x in ctx.get("load_avg", [])), ctx.get("date")))
    out += ipc_tables(ir, targets)
    out += json_tables(jr, targets)
    if targets:
        out.append("### Targets\n")
        out.append(table(["target", "ratio", "goal", "result"],
                         [[t[0], fmt(t[1]), t[2], t[3]] for t in targets]))
        out.append("")
    print("\n".join(out))


if __name__ == "__main__":
    main()
