#!/usr/bin/env bash
# A registration is answered only once its credential file is on the disk: under Wine,
# FlushFileBuffers reaches the kernel as fsync, which strace sees with the file's path. The holder
# list beside it is not flushed (it only matters while the machine runs). Runs the real Tarrow.exe
# under strace in a Wine prefix of its own.
#   FlushTest.sh <build/bin folder>
set -u
here=$(cd "$(dirname "$0")" && pwd)
. "$here/../../scripts/wine-env.sh"
bin=$(cd "$1" && pwd)
root=${TARROW_WINE_ROOT:-$(dirname "$bin")/wine}

ensure_template "$root"
prefix=$(new_prefix "$root")
trace=$prefix/fsync.strace
trap 'end_prefix "$prefix"' EXIT
trap 'exit 143' TERM INT
export WINEPREFIX=$prefix
"$WINESERVER" -p
ctl() { "$WINE" "$bin/tarrowctl.exe" "$@" | tr -d '\r'; return "${PIPESTATUS[0]}"; }

"$WINE" "$bin/Tarrow.exe" /RegServerPerUser
strace -f -y -e trace=fsync,fdatasync -o "$trace" "$WINE" "$bin/Tarrow.exe" &
for _ in $(seq 300); do ctl status >/dev/null 2>&1 && break; sleep 0.1; done
cred=(--url https://corvin/auth --auth-svc-id svc --role flushed)
ctl register --hold "${cred[@]}" --srv-id srv --shared-id acct --lease-dn cn=flushed --lease-expiry 20301231T120000Z
file=$(ctl query "${cred[@]}" | sed -n 's/^fileName = .*\\//p')
stem=${file%.dat}
# strace writes its last lines as it ends.
"$WINESERVER" -k
wait
failures=0
if [ -n "$stem" ] && grep -q "^[0-9]* *fsync([0-9]*<.*/Kel/Tarrow/$file>) = 0" "$trace"; then
    echo "ok: $file flushed before the answer"
else
    echo "FAILED: no fsync of '$file'"
    failures=$((failures + 1))
fi
if [ -n "$stem" ] && ! grep -q "fsync([0-9]*<.*/Kel/Tarrow/$stem.holders" "$trace"; then
    echo "ok: $stem.holders not flushed"
else
    echo "FAILED: the holder list of '$file' was flushed"
    failures=$((failures + 1))
fi
[ "$failures" -eq 0 ] && echo "2 passed, 0 failed" || echo "$((2 - failures)) passed, $failures failed"
[ "$failures" -eq 0 ]
