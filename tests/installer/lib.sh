# Shared by the installer's tests: a Wine prefix of the test's own (WINEPREFIX, gone at exit), the
# counting of checks, and registry look-ups. Sourced after `set -u`.
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/../../scripts/wine-env.sh"

# Starts a prefix below ROOT for the rest of the script.
use_new_prefix() {
    ensure_template "$1"
    prefix=$(new_prefix "$1")
    trap 'end_prefix "$prefix"' EXIT
    trap 'exit 143' TERM INT
    export WINEPREFIX=$prefix
    "$WINESERVER" -p
}
w() { "$WINE" "$@"; }
# Copies package $1 into the prefix and prints its Windows path. Tests that run at once must not
# share a package file: Windows Installer under Wine fails at once (1627) on a package that
# another test's msiexec holds locked.
own_package() {
    mkdir -p "$prefix/drive_c/packages"
    cp "$1" "$prefix/drive_c/packages/" && echo "C:\\packages\\$(basename "$1")"
}

passed=0
failures=0
check() {
    local what=$1
    shift
    if "$@"; then echo "ok: $what"; passed=$((passed + 1)); else echo "FAILED: $what"; failures=$((failures + 1)); fi
}
# The last line of every run, and its exit code.
summary() {
    echo "$passed passed, $failures failed"
    [ "$failures" -eq 0 ]
}
timed() {
    local start result tenths
    start=$(date +%s%N)
    "$@"
    result=$?
    tenths=$((($(date +%s%N) - start) / 100000000))
    echo "($* took $((tenths / 10)).$((tenths % 10)) s)"
    return $result
}
windows_path() { w winepath -w "$1" | tr -d '\r'; }
key_exists() { w reg query "$1" >/dev/null 2>&1; }
key_gone() { ! key_exists "$1"; }
# The data of value $2 of key $1; "(Default)" is the key's default value.
value_of() {
    local which=(/v "$2")
    [ "$2" = "(Default)" ] && which=(/ve)
    w reg query "$1" "${which[@]}" 2>/dev/null | tr -d '\r' | sed -n "s/^ *$2 *REG_[A-Z_]* *//p"
}
# Waits until the running Tarrow answers tarrowctl $1 (100 tries, 0.1 s apart).
wait_for_service() {
    for _ in $(seq 100); do w "$1" status >/dev/null 2>&1; [ $? -ne 101 ] && return 0; sleep 0.1; done
    return 1
}
# Makes package $2 of version $3 from the wxs source $1 with the programs of folder $4.
build_package() {
    local source=$1 msi=$2 version=$3 bin=$4
    (cd "$bin" && wixl -a x64 -D Version="$version" -D NextVersion="$version" -o "$msi" "$source" 2>/dev/null)
}
