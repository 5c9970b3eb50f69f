#!/usr/bin/env bash
# Runs the unit-test programs of a native build under valgrind memcheck: any invalid access or
# any leak (definite, indirect or possible) fails. The transport's own threads and FIFOs are
# covered by the corpus replays of its two fuzz harnesses, which run a live server and client.
# Usage: scripts/memcheck.sh [BUILD_DIR]   (default build/default)
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build/default}"

vg=(valgrind --quiet --error-exitcode=99 --leak-check=full
    --errors-for-leak-kinds=definite,indirect,possible --show-leak-kinds=definite,indirect,possible)
status=0
run() {
    local name="$1"
    shift
    [ -x "$1" ] || { echo "memcheck: $1 not built"; status=1; return; }
    local start=$SECONDS
    if "${vg[@]}" "$@" >"$build/memcheck-$name.log" 2>&1; then
        echo "memcheck: $name clean ($((SECONDS - start)) s)"
    else
        echo "memcheck: $name FAILED ($((SECONDS - start)) s); log follows"
        tail -60 "$build/memcheck-$name.log"
        status=1
    fi
}
run platform "$build/tests/platform/qvipc_platform_tests"
run paramsx "$build/tests/paramsx/qvipc_paramsx_tests"
run json "$build/tests/json/qvipc_json_tests"
run ipc "$build/tests/ipc/qvipc_ipc_tests"
for t in transport_admin transport_request; do
    run "fuzz_$t" "$build/fuzz/fuzz_$t" fuzz/corpus/$t
done
exit "$status"
