#!/bin/bash
# run.sh [OPTION...]
#
# Builds release and measures it in private namespaces: raw lines, a table and plots in bench/results.
#
#   (none)              everything but growth, in under 20 minutes
#   --quick             a part of it, in under 3 minutes
#   --growth            how cost grows with what the server holds
#   --only WORKLOAD     this workload (or kind of growth) alone; may be repeated
#   --against COMMIT    the state to compare with (default: main; --quick: none)
#   --against none      no comparison
#   --rounds N          of each subject, instead of 7 (--quick and --growth: 3)
#   --pin               servers on one core, clients on another: steadier, and not what hosts see
#   --out FOLDER        instead of bench/results
#   --name NAME         of the files, instead of the date and the commit
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)

fail() {
    echo "bench/run.sh: $*" >&2
    exit 2
}

# ----------------------------------------------------------------------------------------------
# Arguments
# ----------------------------------------------------------------------------------------------

mode=full
against=
out=$here/bench/results
name=
extra=() # for bench.py
parts=0
while (($# > 0)); do
    case $1 in
        --quick | --growth) mode=${1#--} ;;
        --pin) extra+=(--pin) ;;
        --only | --against | --out | --name | --rounds)
            (($# > 1)) || fail "$1 needs a value"
            case $1 in
                --only)
                    extra+=(--only "$2")
                    parts=1
                    ;;
                --rounds) extra+=(--rounds "$2") ;;
                --against) against=$2 ;;
                --out) out=$2 ;;
                --name) name=$2 ;;
            esac
            shift
            ;;
        -h | --help)
            sed -n '2,/^set /{/^set /d;s/^# \{0,1\}//;p}' "$0"
            exit 0
            ;;
        *) fail "unknown option $1 (see --help)" ;;
    esac
    shift
done
if [[ -z $against ]]; then
    [[ $mode == full ]] && against=main || against=none
fi
mkdir -p "$out"

# ----------------------------------------------------------------------------------------------
# Build
# ----------------------------------------------------------------------------------------------

"$here/scripts/install-packages.sh" g++ cmake ninja-build pkg-config libtirpc-dev default-jdk-headless \
    python3 iproute2 ethtool strace
if command -v ccache >/dev/null; then
    export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER-ccache}
    export CCACHE_BASEDIR=$here
fi

# build SOURCE FOLDER LOG TARGET... [-- OPTION...]
build() {
    local source=$1 folder=$2 log=$3 targets=()
    shift 3
    while (($# > 0)) && [[ $1 != -- ]]; do
        targets+=("$1")
        shift
    done
    {
        cmake -S "$source" -B "$folder" -G Ninja -DCMAKE_BUILD_TYPE=Release "${@:2}" &&
            cmake --build "$folder" --target "${targets[@]}"
    } >"$log" 2>&1 || {
        cat "$log" >&2
        fail "the build of $source failed"
    }
}

began=$SECONDS
mkdir -p "$here/build/bench-against"
run=$(mktemp -d "$here/build/bench-run-XXXXXX")
tree=
trap 'rm -rf "$run" ${tree:+"$tree"}' EXIT
echo "Building the work tree ..."
build "$here" "$here/build" "$run/build.log" velocast-nfs bench_load bench_counts -- -DVELOCAST_BENCH=ON
arguments=(--mode "$mode" --tree "$here/build/velocast-nfs" --load "$here/build/bench/bench_load"
    --counts "$here/build/bench/libbench_counts.so" --out "$run" "${extra[@]}")

commit=$(git -C "$here" rev-parse --short HEAD 2>/dev/null || echo unknown)
[[ -z $(git -C "$here" status --porcelain -- src CMakeLists.txt 2>/dev/null) ]] || commit+=-changed
arguments+=(--commit "$commit")

if [[ $against != none ]]; then
    sha=$(git -C "$here" rev-parse --short --verify "$against^{commit}") || fail "no such commit: $against"
    other=$here/build/bench-against/$sha
    if [[ ! -x $other/velocast-nfs ]]; then
        echo "Building $against ($sha) ..."
        mkdir -p "$other"
        tree=$(mktemp -d "$here/build/bench-against/tree-XXXXXX")
        git -C "$here" archive "$sha" | tar -x -C "$tree"
        CCACHE_BASEDIR=$tree build "$tree" "$tree/build" "$run/build-against.log" velocast-nfs -- \
            -DVELOCAST_TESTS=OFF
        mv "$tree/build/velocast-nfs" "$other/velocast-nfs"
        rm -rf "$tree"
    fi
    arguments+=(--against "$other/velocast-nfs" --against-commit "$sha")
fi
echo "Built in $((SECONDS - began)) s."

# ----------------------------------------------------------------------------------------------
# Measure. The namespaces end with everything that runs in them.
# ----------------------------------------------------------------------------------------------

code=0
cd "$here"
"$here/tests/in-namespace.sh" /usr/bin/python3 -I "$here/bench/bench.py" "${arguments[@]}" || code=$?
[[ -s $run/raw.jsonl ]] || fail "nothing was measured"

# ----------------------------------------------------------------------------------------------
# Results
# ----------------------------------------------------------------------------------------------

# Only runs of everything bear names that are kept.
if [[ -z $name ]]; then
    kind=wire
    [[ $mode != growth ]] || kind=growth
    name=$kind-$(date +%F)-$commit
    [[ $mode != quick ]] || name+=-quick
    ((parts == 0)) || name+=-part
fi
/usr/bin/python3 -I "$here/bench/report.py" "$run/raw.jsonl" "$out/$name" || code=$?
cp "$run/raw.jsonl" "$out/$name.raw.jsonl"
echo "Took $((SECONDS - began)) s, the build included. Results: $out/$name.*"
exit "$code"
