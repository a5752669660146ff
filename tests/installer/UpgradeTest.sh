#!/usr/bin/env bash
# Each package installed over an older version of itself (1.0.0, made here from the same
# programs), in a Wine prefix of its own: the newer one replaces the older one, and the
# credential files that wait for check-in stay as they were. Each install starts Tarrow; a
# holder registered with it runs on while Tarrow is closed for the upgrade as the Restart Manager
# closes it (Wine has none), and afterwards the new Tarrow runs and holds its credential again:
# nothing checked in, no holder ended.
#   UpgradeTest.sh <folder of the programs and the packages>
set -u
. "$(dirname "$0")/lib.sh"
bin=$(cd "$1" && pwd)
sources=$(cd "$here/../../installer" && pwd)
use_new_prefix "${TARROW_WINE_ROOT:-$(dirname "$bin")/wine}"
old=$(mktemp -d)
trap 'rm -rf "$old"; end_prefix "$prefix"' EXIT

credentials="$prefix/drive_c/users/$(whoami)/AppData/Roaming/Kel/Tarrow"
mkdir -p "$credentials"
echo waiting > "$credentials/20010101000000.dat"
kept=$(cd "$credentials" && ls -l --time-style=+%s.%N 20010101000000.dat)
w reg add 'HKLM\SOFTWARE\Orvane\Kelmar' /v ProgramDir /t REG_SZ /d 'C:\TarrowTestInstall' /f >/dev/null
# The versions of the installed products called $1, from the uninstall entries of both scopes.
installed_versions() {
    local where
    for where in HKLM HKCU; do
        w reg query "$where\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall" /s 2>/dev/null | tr -d '\r' |
            awk -v name="$1" '/^HKEY/ {found = 0} $1 == "DisplayName" && substr($0, index($0, $3)) == name {found = 1}
                              $1 == "DisplayVersion" {version = $3} found && version {print version; found = 0; version = ""}'
    done | sort -u | tr '\n' ' '
}

ctl() { w "$bin/tarrowctl.exe" "$@"; }
w reg add 'HKLM\SOFTWARE\Orvane\Kelmar\Logging' /v LogLevel /t REG_DWORD /d 3 /f >/dev/null
log="$prefix/drive_c/TarrowTestInstall/logs/brisk_observer.log"
mkdir -p "$(dirname "$log")"
# The status's line of the credential of lease $1: "<state>,<holders>".
status_of() {
    ctl status --csv | tr -d '\r' | awk -F, -v dn="$1" '$3 == dn {print $7 "," $5}'
}
# The credential files (not the holder lists, which are rewritten at every start) with their times.
dat_files() { (cd "$credentials" && ls -l --time-style=+%s.%N ./*.dat); }

# $1 the wxs, $2 the current package, $3 the product's name, $4 msiexec's extra properties.
upgrade() {
    local old_msi="$old/$(basename "$1" .wxs)-1.0.0.msi" current
    current=$(sed -n 's/.*Tarrow-\([0-9.]*[0-9]\).*\.msi$/\1/p' <<<"$2")
    echo "== $3: 1.0.0, then $current"
    check "the older package is made" build_package "$sources/$1" "$old_msi" 1.0.0 "$bin"
    check "1.0.0 installs" timed w msiexec /i "Z:${old_msi//\//\\}" $4 /qn
    check "1.0.0 is installed" test "$(installed_versions "$3")" = "1.0.0 "
    check "the install started Tarrow" wait_for_service "$bin/tarrowctl.exe"
    local holder held files dn=cn=upgrade-$(basename "$1" .wxs)
    local key=(--url https://corvin.example/auth --auth-svc-id svc-17 --role "role-$dn")
    holder=$(ctl register --hold --srv-id corvin-1 --shared-id shared-admin-04 --lease-dn "$dn" \
        --lease-expiry 20301231T120000Z "${key[@]}" | tr -d '\r' | sed -n 's/^holder pid //p')
    held=$(status_of "$dn")
    check "a holder's credential is held" test "$held" = "held,$holder tarrowctl.exe"
    files=$(dat_files)
    check "Tarrow is closed as for an installer, in order" w "$bin/tarrow_closeapp.exe"
    package=$(own_package "$2")
    check "$current installs over it" timed w msiexec /i "$package" $4 /qn
    check "only $current is installed" test "$(installed_versions "$3")" = "$current "
    check "the credential files are untouched" test "$(cd "$credentials" && ls -l --time-style=+%s.%N 20010101000000.dat)" = "$kept"
    check "the upgrade started Tarrow again" wait_for_service "$bin/tarrowctl.exe"
    check "Tarrow registered for restart by the Restart Manager" \
        eval 'iconv -f UTF-16LE -t UTF-8 "$log" | grep -q "RegisterApplicationRestart; hr = 0x0"'
    check "the holder's credential is held again, by the same holder" test "$(status_of "$dn")" = "$held"
    ctl query "${key[@]}" >/dev/null 2>&1
    check "tarrowctl finds it" test $? -eq 0
    check "nothing was checked in: its file is as it was" test "$(dat_files)" = "$files"
    check "Tarrow is closed again" w "$bin/tarrow_closeapp.exe"
    check "$current uninstalls" w msiexec /x "$package" /qn
}
upgrade Tarrow.wxs "$(ls "$bin"/Tarrow-*[0-9].msi)" Tarrow ""
upgrade TarrowMachine.wxs "$(ls "$bin"/Tarrow-*-machine.msi)" "Tarrow (all users)" ALLUSERS=1

summary
