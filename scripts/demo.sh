#!/usr/bin/env bash
# The library's main job, shown end to end: builds the qvipc tool in Release, starts an echo
# server on a fresh guid, runs 4 pinging clients with a mix of body sizes, shows their summary
# and one diagnostics dump of the server, and stops the server with SIGTERM, leaving no FIFO.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
echo "== building the qvipc tool (Release)"
cmake --preset release >/dev/null
cmake --build --preset release --target qvipc_tool -j "$(nproc)" >/dev/null
qvipc=build/release/tools/qvipc/qvipc

guid="qvipc-demo-$$-$(date +%s)"
log=$(mktemp)
server=""
cleanup() {
    if [ -n "$server" ] && kill -0 "$server" 2>/dev/null; then
        kill -TERM "$server" 2>/dev/null || true
        wait "$server" 2>/dev/null || true
    fi
    rm -f "$log"
    # The guid was made for this run: its lock file and shared-memory counter go too.
    rm -f /tmp/"$guid"-*.lock /dev/shm/*"$guid"* 2>/dev/null || true
}
trap cleanup EXIT

# Waits up to $2 tenths of a second for the server's output to hold $1 (a grep pattern) $3
# times (default once).
await() {
    local i
    for ((i = 0; i < $2; i++)); do
        [ "$(grep -c -- "$1" "$log" || true)" -ge "${3:-1}" ] && return 0
        sleep 0.1
    done
    echo "demo: the server did not print '$1' in time" >&2
    cat "$log" >&2
    return 1
}

echo "== starting: qvipc serve --guid $guid --ext-size 16"
"$qvipc" serve --guid "$guid" --ext-size 16 >"$log" 2>&1 &
server=$!
await "^serving $guid" 100

echo "== qvipc ping: 4 clients x 2000 requests, bodies of 0 B, 100 B, 4 KiB and 64 KiB"
"$qvipc" ping --guid "$guid" --clients 4 --count 2000 --size 0,100,4096,65536 \
    --ext-size 16 &
ping=$!
# One dump while the clients are connected (SIGUSR1 asks the server for it).
if await "^connected " 100 4; then kill -USR1 "$server"; fi
wait "$ping"
await '"connection-array"' 100
await "^disconnected " 100 4

echo "== the server's output"
cat "$log"

echo "== stopping the server with SIGTERM"
kill -TERM "$server"
wait "$server"
server=""
left=$(find /tmp -maxdepth 1 -name "$guid-*" -type p | wc -l)
if [ "$left" -ne 0 ]; then
    echo "demo: $left FIFO(s) of $guid left in /tmp" >&2
    exit 1
fi
echo "server stopped; no FIFO of $guid left in /tmp"
