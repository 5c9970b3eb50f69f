#!/usr/bin/env bash
# Mixed word sizes: a server from one build and clients from the other (the i386 one run with
# qemu-i386), both ways. Each run has two clients, one of each word size, so that connect ids
# of both come from the one shared counter; they must differ. Every body and extension is
# checked by the peers themselves. Usage: mixed-abi.sh <native build dir> <i386 build dir>
set -uo pipefail
if [ $# -ne 2 ]; then
    echo "usage: $0 <native build dir> <i386 build dir>" >&2
    exit 2
fi
native=("$1/tests/reliability/mixed_peer")
i386=(qemu-i386 -L / "$2/tests/reliability/mixed_peer")
for b in "${native[0]}" "${i386[3]}"; do
    [ -x "$b" ] || { echo "missing $b" >&2; exit 2; }
done

passed=0
failed=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# run <name> <server side> : server from one side, a client from each side
run() {
    local name=$1 side=$2 guid="qvmixed-$$-$1"
    local -a srv cli_same cli_other
    if [ "$side" = native ]; then srv=("${native[@]}"); cli_other=("${i386[@]}")
    else srv=("${i386[@]}"); cli_other=("${native[@]}"); fi
    cli_same=("${srv[@]}")
    timeout 240 "${srv[@]}" server "$guid" 2 >"$work/$name.server" 2>&1 &
    local spid=$!
    timeout 240 "${cli_other[@]}" client "$guid" >"$work/$name.c1" 2>&1 &
    local c1=$!
    timeout 240 "${cli_same[@]}" client "$guid" >"$work/$name.c2" 2>&1 &
    local c2=$!
    local ok=1
    wait "$c1" || ok=0
    wait "$c2" || ok=0
    wait "$spid" || ok=0
    local id1 id2
    id1=$(sed -n 's/^connect id //p' "$work/$name.c1")
    id2=$(sed -n 's/^connect id //p' "$work/$name.c2")
    if [ -z "$id1" ] || [ -z "$id2" ] || [ "$id1" = "$id2" ] || [ "$id1" -lt 0 ] || [ "$id2" -lt 0 ]; then
        echo "$name: connect ids not distinct: '$id1' '$id2'"
        ok=0
    fi
    rm -f /tmp/"$guid"* /dev/shm/*"$guid"*
    if [ "$ok" = 1 ]; then
        echo "PASS $name (connect ids $id1, $id2)"
        passed=$((passed + 1))
    else
        echo "FAIL $name"
        cat "$work/$name".* | sed 's/^/    /'
        failed=$((failed + 1))
    fi
}

run native-server-i386-client native
run i386-server-native-client i386
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
