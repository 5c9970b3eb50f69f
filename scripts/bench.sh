#!/usr/bin/env bash
# Builds the benchmarks in Release (build/bench), runs them and prints tables of ratios to the
# baselines measured in the same run (also written to build/bench/tables.md).
# Usage: scripts/bench.sh [JSON_DATA_DIR]   (default: ../shared/bench-data/json from the repo root)
# QVBENCH_MIN_TIME (seconds per benchmark, default 0.3) and QVBENCH_REPS (default 3) trade
# run time for steadier numbers; QVBENCH_FILTER limits the benchmarks (a regex).
set -euo pipefail
cd "$(dirname "$0")/.."

data="${1:-../shared/bench-data/json}"
min_time="${QVBENCH_MIN_TIME:-0.3}"
reps="${QVBENCH_REPS:-3}"
filter="${QVBENCH_FILTER:-.}"
build=build/bench

# Google Benchmark is required; the libraries compared against are optional: a row whose
# library is missing is left out of the build and the tables.
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
missing=()
for p in cmake g++ python3 libbenchmark-dev pkg-config rapidjson-dev libsimdjson-dev \
         nlohmann-json3-dev libzmq3-dev; do
    installed "$p" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ] && command -v apt-get >/dev/null; then
    echo "== installing: ${missing[*]}"
    $SUDO apt-get update -qq || true
    for p in "${missing[@]}"; do
        DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "$p" \
            >/dev/null || echo "   $p could not be installed; its rows are skipped"
    done
fi

echo "== configure $build"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQVIPC_BUILD_BENCHMARKS=ON \
    -DQVIPC_BUILD_TESTS=OFF -DQVIPC_BUILD_TOOLS=OFF >"$build.configure.log" 2>&1 ||
    { cat "$build.configure.log"; exit 1; }
grep "bench:" "$build.configure.log" || true
echo "== build"
cmake --build "$build" --target qvipc_bench_json qvipc_bench_ipc -j "$(nproc)"

echo "== load: $(uptime)"
common=(--benchmark_min_time="$min_time" --benchmark_repetitions="$reps"
        --benchmark_report_aggregates_only=true --benchmark_filter="$filter")
# Service files of runs that died (the name carries the benchmark's pid) would stay in /tmp.
sweep() {
    for f in /tmp/*qvbench-* /dev/shm/*qvbench-*; do
        [ -e "$f" ] || continue
        pid=$(basename "$f" | sed -n 's/.*qvbench-\([0-9]*\)-.*/\1/p')
        [ -n "$pid" ] && ! kill -0 "$pid" 2>/dev/null && rm -f "$f"
    done
    return 0
}
status=0
echo "== JSON benchmarks ($data)"
timeout 1200 "$build/bench/qvipc_bench_json" --data="$data" "${common[@]}" \
    --benchmark_out="$build/json.json" --benchmark_out_format=json || status=1
echo "== IPC benchmarks"
timeout 1200 "$build/bench/qvipc_bench_ipc" "${common[@]}" \
    --benchmark_out="$build/ipc.json" --benchmark_out_format=json || status=1
sweep
echo "== load: $(uptime)"

python3 scripts/bench_report.py "$build/json.json" "$build/ipc.json" | tee "$build/tables.md"
exit "$status"
