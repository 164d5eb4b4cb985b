#!/bin/bash
# test.sh [STAGE...]
#
# Installs what is missing, builds and checks everything. Stages: release, lint, thread-safety,
# must-not-compile, fuzz, tsan, asan; all of them, in this order, when none is named. Ends at the
# first stage that fails. Each fuzz target runs for VELOCAST_FUZZ_SECONDS, 30 by default.
set -euo pipefail
cd "$(dirname "$0")"

known=(release lint thread-safety must-not-compile fuzz tsan asan)
stages=("$@")
((${#stages[@]} > 0)) || stages=("${known[@]}")
for stage in "${stages[@]}"; do
    [[ " ${known[*]} " == *" $stage "* ]] || {
        echo "usage: $0 [STAGE...] of: ${known[*]}" >&2
        exit 2
    }
done

scripts/install-packages.sh g++ cmake ninja-build pkg-config libtirpc-dev default-jdk-headless \
    libgtest-dev libgmock-dev libnfs-dev junit4 libhamcrest-java ccache clang clang-format \
    clang-tidy libclang-rt-dev iproute2 ethtool mount rpcbind netbase

jobs=$(nproc)
export CMAKE_CXX_COMPILER_LAUNCHER=ccache
export CCACHE_BASEDIR=$PWD
logs=build/test-logs
mkdir -p "$logs"
table=()

configure() {
    # run.sh configures the release folder without tests.
    cmake --preset "$1" -DVELOCAST_TESTS=ON -DVELOCAST_JAVA=ON >"$logs/$1.configure" 2>&1 || {
        cat "$logs/$1.configure"
        return 1
    }
}

# build_and_test PRESET [TARGET]
build_and_test() {
    configure "$1"
    cmake --build --preset "$1" ${2:+--target "$2"}
    # Output on failure, so that whoever reads the log needs no second run; more tests at once than
    # there are cores, because most wait more than they compute.
    ctest --preset "$1" --parallel $((2 * jobs)) --output-on-failure | tee "$logs/$1.ctest"
}

lint() {
    local sources
    mapfile -t sources < <(find src tests bench -name '*.cpp' -o -name '*.h' 2>/dev/null | sort)
    clang-format --dry-run -Werror "${sources[@]}"
    configure release
    # Only what the build compiles has flags for clang-tidy.
    mapfile -t sources < <(find src -name '*.cpp' | sort)
    printf '%s\0' "${sources[@]}" | xargs -0 -n 1 -P "$jobs" clang-tidy -p build --quiet
}

# What the lock annotations say, of every source file; the build's own compiler does not know them.
thread_safety() {
    local jdk=/usr/lib/jvm/default-java/include
    printf '%s\0' src/*.cpp | xargs -0 -n 1 -P "$jobs" clang++ -std=c++20 -Isrc \
        -I/usr/include/tirpc -I"$jdk" -I"$jdk/linux" -fsyntax-only -Wthread-safety \
        -Wthread-safety-beta -Werror
}

fuzz() {
    cmake --preset fuzz -DVELOCAST_JAVA=OFF >"$logs/fuzz.configure" 2>&1 || {
        cat "$logs/fuzz.configure"
        return 1
    }
    cmake --build --preset fuzz --target fuzz-targets
    local targets=(rpc ipc records console) target failed=0
    # shellcheck disable=SC2016 # expanded by the inner shell
    printf '%s\0' "${targets[@]}" | xargs -0 -n 1 -P "$jobs" bash -c \
        'tests/fuzz/run.sh "$3" "$1" >"$2/fuzz-$3.log" 2>&1' fuzz \
        "${VELOCAST_FUZZ_SECONDS:-30}" "$logs" || failed=1
    for target in "${targets[@]}"; do
        ((failed == 0)) || tail -n 40 "$logs/fuzz-$target.log"
        printf '%-8s  %s executions, %s a second\n' "$target" \
            "$(sed -n 's/^stat::number_of_executed_units: *//p' "$logs/fuzz-$target.log")" \
            "$(sed -n 's/^stat::average_exec_per_sec: *//p' "$logs/fuzz-$target.log")"
    done
    return "$failed"
}

for stage in "${stages[@]}"; do
    echo "=== $stage"
    began=$SECONDS
    case $stage in
        release | asan) build_and_test "$stage" ;;
        tsan) build_and_test tsan threaded-tests ;;
        lint) lint ;;
        thread-safety) thread_safety ;;
        must-not-compile) tests/must-not-compile.sh ;;
        fuzz) fuzz ;;
    esac
    count=-
    if [[ $stage =~ ^(release|tsan|asan)$ ]]; then
        count=$(sed -n 's/.* tests failed out of \([0-9]*\)$/\1 tests/p' "$logs/$stage.ctest")
        last=$stage
    fi
    table+=("$(printf '%-16s  passed  %-11s  %4d s' "$stage" "$count" $((SECONDS - began)))")
done

echo "=== all stages"
printf '%s\n' "${table[@]}"
# CTest's own words about the last run close the output, where a reader looks for them.
if [[ -v last ]]; then
    sed -n '/tests passed,/,$p' "$logs/$last.ctest"
fi
