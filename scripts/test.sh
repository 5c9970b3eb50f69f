#!/usr/bin/env bash
# Builds and runs the whole test suite in the four configurations: default (RelWithDebInfo),
# asan (AddressSanitizer + UndefinedBehaviorSanitizer), tsan (ThreadSanitizer) and i386 (-m32,
# run under qemu-i386), then valgrind memcheck over the unit tests and the mixed 32/64-bit check.
# The thread-safety configuration (clang, -Wthread-safety) is built, not run: it checks that
# every member the endpoint's lock guards is touched only under that lock.
# Warnings are errors. Usage: scripts/test.sh [preset...]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

presets=("$@")
[ "${#presets[@]}" -gt 0 ] || presets=(default asan tsan i386 thread-safety)

if command -v clang-format >/dev/null; then
    echo "== clang-format check"
    git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run --Werror
fi

status=0
for p in "${presets[@]}"; do
    echo "== configure $p"
    cmake --preset "$p" >/dev/null
    echo "== build $p"
    if [ "$p" = thread-safety ]; then
        # The library and the tool carry the annotations; the tests opt out, so building them
        # here would only cost time.
        cmake --build --preset "$p" -j "$(nproc)" --target qvipc qvipc_tool
        continue
    fi
    cmake --build --preset "$p" -j "$(nproc)"
    echo "== test $p"
    if ! ctest --preset "$p"; then
        status=1
    fi
done
# Memory errors and leaks that the sanitizers' runs could miss (uninstrumented code paths, leaks
# at exit of the unsanitized build).
if [[ " ${presets[*]} " == *" default "* ]]; then
    echo "== valgrind memcheck (build/default)"
    if ! scripts/memcheck.sh build/default; then
        status=1
    fi
fi
# Mixed word sizes: a server from one build and clients from the other, both ways; needs both
# builds (the default and the i386 one).
if [ -d build/default ] && [ -d build/i386 ]; then
    echo "== mixed word sizes (build/default with build/i386)"
    if ! tests/reliability/mixed-abi.sh build/default build/i386; then
        status=1
    fi
fi
exit "$status"
