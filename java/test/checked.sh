#!/bin/bash
# checked.sh PROGRAM [ARGUMENT...]
#
# Runs a virtual machine under -Xcheck:jni; fails when it fails or complains about our use of JNI.
#
# Nothing is excepted: that each call back into Java ends with DetachCurrentThread draws no complaint,
# because the machine quietly refuses it (JNI_ERR) for a thread that came from Java, and because the
# checks cover JNIEnv's functions but not JavaVM's.
set -uo pipefail

output=$(mktemp)
trap 'rm -f "$output"' EXIT
"$@" >"$output" 2>&1
code=$?
cat "$output"
((code == 0)) || exit "$code"
if grep -E '(WARNING|FATAL ERROR) in native method|WARNING: JNI|handler (modified|flags)' "$output"; then
    echo "checked.sh: the virtual machine complains (see above)" >&2
    exit 1
fi
