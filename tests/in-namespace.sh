#!/bin/bash
# in-namespace.sh PROGRAM [ARGUMENT...]
#
# Runs a program with a network, a /tmp, a /run and a process tree of its own, so that a test may
# use the real ports and fixed file names, also for a user who is not root and beside other tests.
# The exit code is the program's (128 + n after signal n); whatever the program leaves running ends
# with it.
set -euo pipefail

(($# > 0)) || { echo "usage: in-namespace.sh PROGRAM [ARGUMENT...]" >&2; exit 2; }

# Folders of ours that the private /tmp would hide: each is given by its first level below /tmp.
declare -A kept=()
for path in "$(realpath "$(dirname "$0")")" "$(realpath "$(dirname "$(command -v "$1" || echo /)")")" \
    "$PWD" "$(dirname "${VELOCAST_NFS:-/}")"; do
    if [[ $path == /tmp/* ]]; then
        rest=${path#/tmp/}
        kept[${rest%%/*}]=1
    fi
done

# A user namespace makes an ordinary user root over the other namespaces; where it is refused (in a
# chroot, for instance), root can do without. Where /proc cannot be mounted again (in some
# containers), the program's orphans are left to whoever started us.
candidates=("-r -n -m -p --mount-proc" "-n -m -p --mount-proc" "-r -n -m" "-n -m")
# The root of a chroot may be no mount point, and then cannot be made private as unshare does it.
# Without that our mounts would show, and stay, outside if the mounts there are shared.
if ! grep -q ' shared:' /proc/self/mountinfo; then
    candidates+=("-n -m -p --mount-proc --propagation unchanged" "-n -m --propagation unchanged")
fi
flags=()
for candidate in "${candidates[@]}"; do
    read -ra try <<<"$candidate"
    if unshare "${try[@]}" -f --kill-child true 2>/dev/null; then
        flags=("${try[@]}")
        break
    fi
done
((${#flags[@]} > 0)) || {
    echo "in-namespace.sh: neither user namespaces nor root's unshare is allowed here" >&2
    exit 1
}

# System programs that tests start are not in the search path of every user.
export PATH=$PATH:/usr/sbin:/sbin

# Tests count descriptors, compare file modes and depend on signals, so what the caller leaves open,
# masks or ignores must not reach them.
for descriptor in /dev/fd/*; do
    descriptor=${descriptor##*/}
    if ((descriptor > 2)); then
        eval "exec $descriptor>&-"
    fi
done

[[ -e /dev/fd/0 ]] || exec </dev/null

umask 022

# Some tests go beyond the 1,024 descriptors that many systems begin with.
ulimit -Sn 4096 2>/dev/null || ulimit -Sn "$(ulimit -Hn)"

# A test that aborts on purpose must not leave core files behind.
ulimit -c 0

# The inner shell stays as the first process: it collects orphans, and the program keeps the default
# effect of signals, which a namespace's first process does not have.
# shellcheck disable=SC2016 # expanded by the inner shell
exec env --default-signal unshare "${flags[@]}" -f --kill-child bash -c '
    set -euo pipefail
    kept=("${@:2:$1}")
    shift $(($1 + 1))
    ip link set lo up
    mount -t tmpfs -o mode=755 tmpfs /run
    [[ -L /var/run ]] || mount --bind /run /var/run
    for name in "${kept[@]}"; do
        mkdir -p "/run/kept/$name"
        mount --rbind "/tmp/$name" "/run/kept/$name"
    done
    mount -t tmpfs -o mode=1777 tmpfs /tmp
    for name in "${kept[@]}"; do
        mkdir "/tmp/$name"
        mount --move "/run/kept/$name" "/tmp/$name"
    done
    [[ ! -d /run/kept ]] || rm -r --one-file-system /run/kept
    # The working folder is entered again, for it may now be below another mount.
    cd "$PWD"
    code=0
    "$@" || code=$?
    exit "$code"
' in-namespace "${#kept[@]}" "${!kept[@]}" "$@"
