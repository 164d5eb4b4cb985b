#!/bin/bash
# must-not-compile.sh
#
# Plants mistakes that the compiler has to find: a value that does not fit its format, in a call of
# each log helper; a guarded member that is used without its lock; a lock that is taken and dropped
# at once. Each file must be refused with the expected warning, and compile once it is mended.
set -euo pipefail
cd "$(dirname "$0")/.."

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
failures=0

# plant NAME WARNING COMPILER... <<<CODE
# The code says PLANT(mistake, mended) where the mistake is; a comma in either stands in parentheses.
plant() {
    local name=$1 warning=$2 file=$folder/planted.cpp output
    shift 2
    cat >"$file"
    if output=$("$@" -std=c++20 -Isrc -fsyntax-only -Werror '-DPLANT(mistake,mended)=mistake' \
        "$file" 2>&1); then
        echo "$name: compiles with the mistake" >&2
        failures=$((failures + 1))
    elif [[ $output != *"$warning"* ]]; then
        printf '%s: refused without "%s":\n%s\n' "$name" "$warning" "$output" >&2
        failures=$((failures + 1))
    fi
    if ! output=$("$@" -std=c++20 -Isrc -fsyntax-only -Werror '-DPLANT(mistake,mended)=mended' \
        "$file" 2>&1); then
        printf '%s: refused without the mistake:\n%s\n' "$name" "$output" >&2
        failures=$((failures + 1))
    fi
}

# --- Formats -------------------------------------------------------------------------------------

# format HELPER HEADER OBJECT CALL: the call gets %s for an int, then %d.
format() {
    plant "$1" "-Werror=format" g++ -Wformat=2 <<<"
        #include \"$2\"
        #include \"RuntimeParam.h\"
        void Tell($3) { ${4//FORMAT/PLANT(\"%s\", \"%d\"), 7}; }"
}

for kind in LogInfo LogError LogRaw; do
    format "CUtilities::$kind" Utilities.h "CUtilities& o, CRuntimeParam* p" "o.$kind(p, FORMAT)"
done
format CUtilities::SetStatus Utilities.h "char* p" "CUtilities::SetStatus(p, FORMAT)"
for kind in LogInfo LogError; do
    format "CIpcBasic::$kind" IpcBasic.h "CIpcBasic& o" "o.$kind(FORMAT)"
    format "CRpcCall::$kind" RpcCall.h "CRpcCall& o" "o.$kind(CRpcCall::LOG_ALWAYS, FORMAT)"
done
format CRpcCall::Trace RpcCall.h "CRpcCall& o" "o.Trace(FORMAT)"
format CStandardOutput::Print StandardOutput.h "" "CStandardOutput::Print(FORMAT)"

# A helper that is not named above must at least say that it takes a format.
for header in src/*.h; do
    unchecked=$(tr '\n' ' ' <"$header" | grep -oE '\([^()]*(pcFmt|pcFormat), \.\.\.\)[^;{]*[;{]' |
        grep -v VELOCAST_PRINTF || true)
    if [[ -n $unchecked ]]; then
        echo "$header: a format that the compiler does not check: $unchecked" >&2
        failures=$((failures + 1))
    fi
done

# --- Locks ---------------------------------------------------------------------------------------

plant "a guarded member without its lock" "requires holding mutex" \
    clang++ -Wthread-safety -Wthread-safety-beta <<'CODE'
#include "Mutex.h"
class Counter {
public:
    void Add() {
        PLANT(, const CMutexLock lock(m_hMutex));
        ++m_iCount;
    }

private:
    CMutex m_hMutex;
    int m_iCount GUARDED_BY(m_hMutex) = 0;
};
void Use(Counter& counter) { counter.Add(); }
CODE

plant "a function that needs a lock" "requires holding mutex" \
    clang++ -Wthread-safety -Wthread-safety-beta <<'CODE'
#include "Mutex.h"
CMutex mutex;
void Step() REQUIRES(mutex);
void Use() {
    PLANT(, const CMutexLock lock(mutex));
    Step();
}
CODE

plant "a descriptor given up and forgotten" "nodiscard" g++ -Wall <<'CODE'
#include "Descriptor.h"
int Use(CDescriptor& descriptor) { PLANT(, return) descriptor.Release(); PLANT(return 0;, ) }
CODE

plant "a thread whose start is not looked at" "nodiscard" g++ -Wall <<'CODE'
#include "Thread.h"
struct Object {
    void Run();
};
int Use(CThread& thread, Object* pObject) {
    PLANT(, return) thread.Start<&Object::Run>(pObject);
    PLANT(return 0;, )
}
CODE

plant "the lock of a cached file taken and dropped" "nodiscard" g++ -Wall <<'CODE'
#include "UsedFile.h"
void Use(const CUsedFile& file) { PLANT(, const auto lock =) file.Lock(); }
CODE

if ((failures > 0)); then
    echo "must-not-compile.sh: $failures failures" >&2
    exit 1
fi
echo "Every planted mistake was found."
