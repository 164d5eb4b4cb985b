#!/bin/bash
# install-packages.sh PACKAGE...
#
# Installs those of the Debian packages that are missing; says what it does, does nothing when
# nothing is missing.
set -euo pipefail

missing=()
for package in "$@"; do
    if [[ $(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) != installed ]]; then
        missing+=("$package")
    fi
done
((${#missing[@]} > 0)) || exit 0

echo "Installing missing packages: ${missing[*]}"
if ((EUID == 0)); then
    as_root=()
elif command -v sudo >/dev/null; then
    echo "(with sudo, which may ask for your password)"
    as_root=(sudo)
else
    echo "This needs root. Run as root: apt-get update && apt-get install ${missing[*]}" >&2
    exit 1
fi
log=$(mktemp)
trap 'rm -f "$log"' EXIT
# RUNLEVEL keeps init scripts from starting what is installed; nothing here needs a running service.
{
    "${as_root[@]}" apt-get update &&
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive RUNLEVEL=1 \
            apt-get install -y --no-install-recommends "${missing[@]}"
} </dev/null >"$log" 2>&1 || {
    cat "$log" >&2
    echo "The packages could not be installed." >&2
    exit 1
}
