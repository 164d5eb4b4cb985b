#!/bin/bash
# run.sh TARGET [SECONDS]
#
# Runs one fuzz target (rpc, ipc, records, console) from its corpus on for so many seconds, 30 by
# default. What it finds stays in build-fuzz/found and makes the run fail; nothing else is written
# outside its own temporary folder, because every other file system is read-only for it.
set -euo pipefail
cd "$(dirname "$0")/../.."

target=${1:?usage: run.sh TARGET [SECONDS]}
seconds=${2:-30}
program=$PWD/build-fuzz/tests/fuzz/fuzz_$target
corpus=$PWD/tests/fuzz/corpus/$target
found=$PWD/build-fuzz/found
mkdir -p "$found"

# shellcheck disable=SC2016 # expanded by the inner shell
exec tests/in-namespace.sh bash -c '
    set -euo pipefail
    program=$1 corpus=$2 found=$3 seconds=$4
    mount --bind "$found" "$found"
    while read -r _ _ _ _ folder options _; do
        case $folder in
            "$found" | /tmp | /proc | /proc/* | /dev | /dev/* | /sys | /sys/*) continue ;;
        esac
        [[ $options == ro* ]] || mount -o "remount,bind,$options,ro" "$folder"
    done </proc/self/mountinfo
    if touch "$corpus/probe" 2>/dev/null; then
        echo "run.sh: the corpus could be written to" >&2
        exit 1
    fi
    export HOME=/tmp TMPDIR=/tmp
    mkdir /tmp/new
    cd /tmp
    exec "$program" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=1024 \
        -print_final_stats=1 -artifact_prefix="$found/${program##*/}-" /tmp/new "$corpus"
' fuzz "$program" "$corpus" "$found" "$seconds"
