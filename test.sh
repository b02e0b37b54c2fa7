#!/bin/sh
# Builds and tests everything. Debian 12; installs the packages that are missing.
#
#   ./test.sh                the release build and all tests, the clang build with its thread-safety analysis
#   ./test.sh --sanitizers   the tests once more in the builds asan and tsan, with the lock rank check; then
#                            clang-tidy over all sources
#
# The last lines are those that each run of the tests closed on.
set -eu
cd "$(dirname "$0")"

jobs=$(nproc)
summary=

build() {
    cmake --preset "$1"
    cmake --build "build/$1" -j "$jobs"
}

run_tests() {
    log="build/$1/ctest.log"
    # The status of a pipe is that of tee, so a failure takes another way out.
    failed="build/$1/tests_failed"
    rm -f "$failed"
    { ctest --test-dir "build/$1" -j "$jobs" --output-on-failure --timeout 300 --no-tests=error 2>&1 ||
        touch "$failed"; } | tee "$log"
    summary="$summary$1: $(grep 'tests passed' "$log" || echo 'no tests ran')
"
    if [ -e "$failed" ]; then
        printf '%s' "$summary"
        exit 1
    fi
}

analyse() {
    run-clang-tidy -quiet -p build/release -j "$jobs" "$PWD/(vbx|examples|bench)/.*\\.cpp$" >build/clang-tidy.log 2>&1 || {
        grep -E 'warning:|error:' build/clang-tidy.log | sort -u
        echo "clang-tidy has findings; see build/clang-tidy.log"
        exit 1
    }
}

scripts/install_dependencies.sh test
case "${1:-}" in
"")
    build clang-thread-safety
    build release
    run_tests release
    ;;
--sanitizers)
    build asan
    run_tests asan
    build tsan
    run_tests tsan
    cmake --preset release
    analyse
    ;;
*)
    echo "usage: $0 [--sanitizers]" >&2
    exit 2
    ;;
esac
printf '%s' "$summary"
