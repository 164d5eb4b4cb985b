#!/bin/bash
# run.sh [DIR [EXPORT]]
#
# Builds velocast-nfs and serves DIR (default: a small demo folder) as EXPORT (default: vm01), with
# the server's console on this terminal. `quit` or Ctrl-C ends it.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)

fail() {
    echo "run.sh: $*" >&2
    exit 1
}

# ----------------------------------------------------------------------------------------------
# What to serve
# ----------------------------------------------------------------------------------------------

(($# <= 2)) || fail "usage: run.sh [DIR [EXPORT]]"
export_name=${2:-vm01}
if (($# == 0)); then
    folder=$here/demo
    if [[ ! -d $folder ]]; then
        mkdir "$folder"
        echo "This folder is served by velocast-nfs. Put your virtual disks here." >"$folder/README.txt"
        truncate -s 16M "$folder/disk01.img"
    fi
else
    [[ -d $1 ]] || fail "not a folder: $1"
    folder=$(realpath "$1")
fi
# The console takes "path=name" as one line.
[[ $folder$export_name != *[=$'\n']* ]] || fail "neither the folder nor the export may contain '=' or a line break"

# ----------------------------------------------------------------------------------------------
# Build
# ----------------------------------------------------------------------------------------------

"$here/scripts/install-packages.sh" g++ cmake ninja-build pkg-config libtirpc-dev
echo "Building velocast-nfs ..."
mkdir -p "$here/build"
{
    cmake -S "$here" -B "$here/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVELOCAST_TESTS=OFF &&
        cmake --build "$here/build" --target velocast-nfs
} >"$here/build/run.log" 2>&1 || {
    cat "$here/build/run.log" >&2
    fail "the build failed"
}

# ----------------------------------------------------------------------------------------------
# Start. The server reads commands from a pipe: first ours, then what the user types.
# ----------------------------------------------------------------------------------------------

# In a session of its own, because a second signal ends it at once: what a key sends to everybody at
# the terminal must reach it once, through us.
coproc SERVER { exec setsid "$here/build/velocast-nfs" -md int; }
server=$SERVER_PID
exec {commands}>&"${SERVER[1]}" {output}<&"${SERVER[0]}"

# A signal for this script is meant for the server, which then ends by itself.
interrupted=0
for signal in INT TERM HUP; do
    # shellcheck disable=SC2064 # the name of the signal is expanded here
    trap "interrupted=1; kill -$signal \$server 2>/dev/null || true" "$signal"
done

# Waits for the end of the server; its exit code is the result.
wait_for_server() {
    local code result=0
    while true; do
        interrupted=0
        wait "$server" && code=0 || code=$?
        # 127: an earlier round, though interrupted, has already had the exit code.
        ((code == 127)) || result=$code
        ((interrupted)) || return "$result"
    done
}

# The server's prompts have no line end, so its first output is passed on by the character. There is
# one prompt at the start and one after each of the three commands.
printf 'debug\nstart\nmount %s=%s\n' "$folder" "$export_name" >&"$commands"
text=
prompts=0
while ((prompts < 4)) && IFS= read -r -N 1 -t 60 -u "$output" character; do
    printf '%s' "$character"
    text+=$character
    if [[ $text == *$'\nCommand: ' ]]; then
        prompts=$((prompts + 1))
        text=${text%$'\nCommand: '}$'\n'
    fi
done

if [[ $text != *"Start NFS success"* ]]; then
    echo
    kill -TERM "$server" 2>/dev/null || true
    wait_for_server || true
    if ((EUID != 0)); then
        echo "The server opens port 111 when no system portmapper holds it, and an ordinary user may" >&2
        echo "not. Run this script as root, or allow the program that one thing:" >&2
        echo "    sudo setcap cap_net_bind_service=+ep '$here/build/velocast-nfs'" >&2
    fi
    fail "NFS did not start"
fi
if [[ $text == *"Fail to add mount point"* ]]; then
    echo
    kill -TERM "$server" 2>/dev/null || true
    wait_for_server || true
    fail "the folder was not exported"
fi

# ----------------------------------------------------------------------------------------------
# Tell how to mount, with the ports that the server really listens on
# ----------------------------------------------------------------------------------------------

# True when the server listens on this TCP port.
listens() {
    local port inode state address fd
    port=$(printf '%04X' "$1")
    while read -r _ address _ state _ _ _ _ _ inode _; do
        [[ $state == 0A && $address == *:$port ]] || continue
        for fd in "/proc/$server/fd/"*; do
            [[ $(readlink "$fd") != "socket:[$inode]" ]] || return 0
        done
    done <"/proc/$server/net/tcp"
    return 1
}

if listens 2049; then
    nfs_port=2049 mount_port=1058
else
    nfs_port=2050 mount_port=1059
fi

cat <<TEXT

------------------------------------
Serving $folder as "$export_name". HOST below is this machine as its clients see it (127.0.0.1 here).

Linux host:
    mount -t nfs -o vers=3,nolock,noacl,proto=tcp,mountproto=tcp,port=$nfs_port,mountport=$mount_port HOST:$export_name /mnt

libnfs:
    nfs_parse_url_incomplete(nfs, "nfs://HOST/?nfsport=$nfs_port&mountport=$mount_port&auto-traverse-mounts=0");
    nfs_mount(nfs, "HOST", "$export_name");    /* the bare name; end with nfs_umount(nfs) */

Host with esxcli (it finds the ports through the portmapper on port 111):
    esxcli storage nfs add --host=HOST --share=$export_name --volume-name=$export_name

Type 'quit' or press Ctrl-C to stop.
------------------------------------
TEXT
printf '\nCommand: '

# ----------------------------------------------------------------------------------------------
# The console is the user's from here on
# ----------------------------------------------------------------------------------------------

# The user's input is taken as a descriptor of its own, for the shell gives a background command an
# empty one. Its end does not end the server.
exec {input}<&0
cat <&"$input" >&"$commands" 2>/dev/null &
feeder=$!
cat <&"$output" &
printer=$!
exec {input}<&- {commands}>&- {output}<&-

code=0
wait_for_server || code=$?
kill "$feeder" 2>/dev/null || true
wait "$printer" 2>/dev/null || true
exit "$code"
