#!/usr/bin/env bash
# Each package installed over an older version of itself (1.0.0, made here from the same
# programs), in a Wine prefix of its own: the newer one replaces the older one, and the
# credential files that wait for check-in stay as they were.
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
kept=$(cd "$credentials" && ls -l --time-style=+%s.%N)
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

# $1 the wxs, $2 the current package, $3 the product's name, $4 msiexec's extra properties.
upgrade() {
    local old_msi="$old/$(basename "$1" .wxs)-1.0.0.msi" current
    current=$(sed -n 's/.*Tarrow-\([0-9.]*[0-9]\).*\.msi$/\1/p' <<<"$2")
    echo "== $3: 1.0.0, then $current"
    check "the older package is made" build_package "$sources/$1" "$old_msi" 1.0.0 "$bin"
    check "1.0.0 installs" timed w msiexec /i "Z:${old_msi//\//\\}" $4 /qn
    check "1.0.0 is installed" test "$(installed_versions "$3")" = "1.0.0 "
    package=$(own_package "$2")
    check "$current installs over it" timed w msiexec /i "$package" $4 /qn
    check "only $current is installed" test "$(installed_versions "$3")" = "$current "
    check "the credential files are untouched" test "$(cd "$credentials" && ls -l --time-style=+%s.%N)" = "$kept"
    check "$current uninstalls" w msiexec /x "$package" /qn
}
upgrade Tarrow.wxs "$(ls "$bin"/Tarrow-*[0-9].msi)" Tarrow ""
upgrade TarrowMachine.wxs "$(ls "$bin"/Tarrow-*-machine.msi)" "Tarrow (all users)" ALLUSERS=1

summary
