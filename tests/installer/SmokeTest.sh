#!/usr/bin/env bash
# The administrator's smoke script as it runs after an install, in Wine's cmd from the programs'
# folder: with Tarrow registered for one user and the running object table refusing "any client"
# as Windows does for that registration (the script starts Tarrow itself), then registered for
# all users with Tarrow already running. Wine's processes are never elevated, so the script's
# elevated half is not run here.
#   SmokeTest.sh <folder of the programs>
set -u
. "$(dirname "$0")/lib.sh"
bin=$(cd "$1" && pwd)
use_new_prefix "${TARROW_WINE_ROOT:-$(dirname "$bin")/wine}"
w reg add 'HKLM\SOFTWARE\Orvane\Kelmar' /v ProgramDir /t REG_SZ /d 'C:\TarrowTestInstall' /f >/dev/null
w reg add 'HKLM\SOFTWARE\Orvane\Kelmar\Logging' /v LogLevel /t REG_DWORD /d 3 /f >/dev/null
mkdir -p "$prefix/drive_c/TarrowTestInstall"
log="$prefix/drive_c/TarrowTestInstall/logs/brisk_observer.log"
smoke=$(windows_path "$bin/smoke.cmd")
out=$(mktemp)
trap 'rm -f "$out"; end_prefix "$prefix"' EXIT
export TARROW_ROT_CHECKS_APPID=1

# Runs smoke.cmd; its output in $out, shown.
run_smoke() {
    w cmd /c "$smoke" >"$out" 2>&1
    local result=$?
    tr -d '\r' <"$out" | sed 's/^/    /'
    return $result
}
log_has() { iconv -f UTF-16LE -t UTF-8 "$log" 2>/dev/null | grep -q "$1"; }

echo "== registered for one user, Tarrow not running"
check "Tarrow registers for this user" w "$bin/Tarrow.exe" /RegServerPerUser
check "the smoke script passes" run_smoke
check "it reports every check passed" grep -q '^[1-9][0-9]* passed, 0 failed' "$out"
check "it started Tarrow itself" grep -q 'starting' "$out"
check "Tarrow published for this account's clients after the refusal" log_has "this account's clients only"

echo "== registered for all users, Tarrow running"
w wineboot --end-session >/dev/null 2>&1
check "Tarrow registers for all users" w "$bin/Tarrow.exe" /RegServer
WINEDEBUG=-all "$WINE" "$bin/Tarrow.exe" &
wait_for_service "$bin/tarrowctl.exe"
check "the smoke script passes" run_smoke
check "it reports every check passed" grep -q '^[1-9][0-9]* passed, 0 failed' "$out"
check "it found Tarrow running" eval '! grep -q starting "$out"'
check "it names the package for all users" grep -q 'package for all users' "$out"
w wineboot --end-session >/dev/null 2>&1
w "$bin/Tarrow.exe" /UnregServer
w "$bin/Tarrow.exe" /UnregServerPerUser

summary
