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
# Starts Tarrow of folder $bin with Wine's event output going to $out/$1 (see events) and waits
# until it answers; $tarrow is its process.
tarrow=
start_tarrow() {
    WINEDEBUG=fixme+advapi,+eventlog "$WINE" "$bin/Tarrow.exe" 2>"$out/$1" &
    tarrow=$!
    wait_for_service "$bin/tarrowctl.exe"
}
# The end of the session, as Windows ends it: the service ends in its handler.
end_session() {
    w wineboot --end-session >/dev/null 2>&1
    wait "$tarrow" 2>/dev/null
}
# Makes package $2 of version $3 from the wxs source $1 with the programs of folder $4.
build_package() {
    local source=$1 msi=$2 version=$3 bin=$4
    (cd "$bin" && wixl -a x64 -D Version="$version" -D NextVersion="$version" -o "$msi" "$source" 2>/dev/null)
}
# The event log's entries in Wine's output $1, one a line: "<id> <type> | <string> | <string>...",
# type 1 error, 2 warning, 4 information. ReportEventW prints each entry's type and id on the
# advapi channel and its strings on the eventlog channel (errors as err, warnings as warn,
# information as trace), so WINEDEBUG=fixme+advapi,+eventlog shows them all. Lines of one entry
# come from one thread, which prefixes them.
events() {
    tr -d '\r' <"$1" | awk '
        function hex(h,   n, i) { n = 0; h = tolower(substr(h, 3))
                                  for (i = 1; i <= length(h); i++) n = n * 16 + index("0123456789abcdef", substr(h, i, 1)) - 1
                                  return n }
        { thread = substr($0, 1, index($0, ":") - 1) }
        /fixme:advapi:ReportEventW/ { split($0, a, ","); entry[thread] = hex(a[4]) " " hex(a[2]); left[thread] = hex(a[6])
                                      if (!left[thread]) print entry[thread]; next }
        /:eventlog:ReportEventW L"/ && left[thread] > 0 {
            s = $0; sub(/^[^"]*"/, "", s); sub(/"$/, "", s); entry[thread] = entry[thread] " | " s
            if (--left[thread] == 0) print entry[thread] }'
}
has_event() { events "$1" | grep -q "$2"; }
