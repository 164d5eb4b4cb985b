#!/bin/bash
# test.sh [STAGE...]
#
# Installs what is missing, builds and checks everything. Stages: release, lint, tsan, asan; all of
# them, in this order, when none is named. Ends at the first stage that fails.
set -euo pipefail
cd "$(dirname "$0")"

stages=("$@")
((${#stages[@]} > 0)) || stages=(release lint tsan asan)
for stage in "${stages[@]}"; do
    [[ $stage =~ ^(release|lint|tsan|asan)$ ]] || {
        echo "usage: $0 [release|lint|tsan|asan]..." >&2
        exit 2
    }
done

scripts/install-packages.sh g++ cmake ninja-build pkg-config libtirpc-dev default-jdk-headless \
    libgtest-dev libgmock-dev libnfs-dev junit4 libhamcrest-java ccache clang-format clang-tidy \
    iproute2 ethtool mount rpcbind netbase

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

for stage in "${stages[@]}"; do
    echo "=== $stage"
    began=$SECONDS
    case $stage in
        release | asan) build_and_test "$stage" ;;
        tsan) build_and_test tsan threaded-tests ;;
        lint) lint ;;
    esac
    count=-
    if [[ $stage != lint ]]; then
        count=$(sed -n 's/.* tests failed out of \([0-9]*\)$/\1 tests/p' "$logs/$stage.ctest")
        last=$stage
    fi
    table+=("$(printf '%-8s  passed  %-11s  %4d s' "$stage" "$count" $((SECONDS - began)))")
done

echo "=== all stages"
printf '%s\n' "${table[@]}"
# CTest's own words about the last run close the output, where a reader looks for them.
if [[ -v last ]]; then
    sed -n '/tests passed,/,$p' "$logs/$last.ctest"
fi
