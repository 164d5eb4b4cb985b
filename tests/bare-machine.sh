#!/bin/bash
# bare-machine.sh [FOLDER [STAGE...]]
#
# Proves that a bare Debian 12 needs nothing but this repository: makes one in FOLDER (default: a
# new one in /var/tmp), clones the committed state into it, and there starts run.sh, runs test.sh
# (all of it, or the stages named) and reads a file of run.sh's export with libnfs. Uses this
# machine's ports 111, 2049 and 1058. Needs root and debootstrap; takes long. Not part of test.sh.
set -euo pipefail

((EUID == 0)) || { echo "bare-machine.sh: needs root" >&2; exit 1; }
command -v debootstrap >/dev/null || { echo "bare-machine.sh: needs debootstrap" >&2; exit 1; }
repository=$(cd "$(dirname "$0")/.." && pwd)
machine=${1:-$(mktemp -d /var/tmp/bare-machine-XXXXXX)}
shift || true
mkdir -p "$machine"

say() { echo "--- $(date +%T) $*"; }

# Everything below happens with mounts of our own, which end with this script.
if [[ -z ${BARE_MACHINE_INSIDE-} ]]; then
    BARE_MACHINE_INSIDE=1 exec unshare -m "$0" "$machine" "$@"
fi

if [[ ! -x $machine/bin/bash ]]; then
    say "debootstrap into $machine"
    debootstrap --variant=minbase bookworm "$machine" >"$machine.debootstrap.log" 2>&1 || {
        tail -n 20 "$machine.debootstrap.log"
        exit 1
    }
fi

# Names and packages are found as on this machine.
cp /etc/resolv.conf "$machine/etc/resolv.conf"
apt-config dump | grep '^Acquire::' >"$machine/etc/apt/apt.conf.d/00acquire" || true

mount -t proc proc "$machine/proc"
mount -t sysfs sysfs "$machine/sys"
mount --rbind /dev "$machine/dev"

in_machine() {
    chroot "$machine" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
        bash -c "cd /root/velocast-nfs && $1"
}

say "clone"
rm -rf "$machine/root/velocast-nfs"
git clone --quiet "$repository" "$machine/root/velocast-nfs"

# Starts run.sh, runs a command in the machine, stops run.sh with `quit`.
with_run_sh() {
    local log=$machine.run.log console runner
    : >"$log"
    # The console's pipe is held open here until there is something to type.
    coproc RUNNER { in_machine ./run.sh >"$log" 2>&1; }
    # shellcheck disable=SC2153 # coproc sets it
    runner=$RUNNER_PID
    exec {console}>&"${RUNNER[1]}"
    until grep -q "Ctrl-C to stop" "$log"; do
        kill -0 "$runner" 2>/dev/null || {
            cat "$log"
            exit 1
        }
        sleep 0.2
    done
    grep "mount -t nfs" "$log"
    in_machine "$1"
    echo quit >&"$console"
    exec {console}>&-
    wait "$runner"
}

# First, while the machine has nothing that only the tests need. GETPORT for NFS over TCP: a call of
# 60 bytes; the port is the last word of the reply.
say "run.sh"
# shellcheck disable=SC2016 # for the shell in the machine
with_run_sh '
    exec 3<>/dev/tcp/127.0.0.1/111
    printf "\x80\0\0\x38\0\0\0\x01\0\0\0\0\0\0\0\x02\0\x01\x86\xa0\0\0\0\x02\0\0\0\x03" >&3
    printf "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x01\x86\xa3\0\0\0\x03\0\0\0\x06\0\0\0\0" >&3
    [[ $(head -c 32 <&3 | tail -c 4 | od -An -tx1) == " 00 00 08 01" ]]'

say "test.sh"
in_machine "./test.sh $*"

say "run.sh and a libnfs client"
cat >"$machine/root/client.cpp" <<'SOURCE'
#include <fcntl.h>
#include <sys/time.h>
#include <nfsc/libnfs.h>
#include <cstdio>
int main() {
    nfs_context* nfs = nfs_init_context();
    nfs_destroy_url(nfs_parse_url_incomplete(
        nfs, "nfs://127.0.0.1/?nfsport=2049&mountport=1058&auto-traverse-mounts=0"));
    nfsfh* file = nullptr;
    char text[200] = "";
    if (nfs_mount(nfs, "127.0.0.1", "vm01") != 0 ||
        nfs_open(nfs, "/README.txt", O_RDONLY, &file) != 0 ||
        nfs_read(nfs, file, sizeof text - 1, text) <= 0 || nfs_close(nfs, file) != 0 ||
        nfs_umount(nfs) != 0) {
        std::printf("%s\n", nfs_get_error(nfs));
        return 1;
    }
    std::printf("%s", text);
    nfs_destroy_context(nfs);
}
SOURCE
with_run_sh 'g++ -o /root/client /root/client.cpp -lnfs && /root/client'
say "all well"
