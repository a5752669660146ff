#!/usr/bin/env bash
# The per-user package through Windows Installer, in a Wine prefix of its own: a quiet install
# puts the programs in the user's programs folder, registers Tarrow for the user and for logon;
# Tarrow, started by the install (the logon command then finds it running), answers a real
# holder's credential; closed as an installer closes it, a quiet uninstall removes all of it and
# leaves the credential files that were never checked in.
#   InstallTest.sh <Tarrow-x.y.z.msi>
set -u
. "$(dirname "$0")/lib.sh"
msi=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
closeapp=$(dirname "$msi")/tarrow_closeapp.exe
use_new_prefix "${TARROW_WINE_ROOT:-$(dirname "$(dirname "$msi")")/wine}"
package=$(own_package "$msi")

user_dir="$prefix/drive_c/users/$(whoami)"
programs="$user_dir/AppData/Local/Programs/Tarrow"
credentials="$user_dir/AppData/Roaming/Kel/Tarrow"
classes='HKCU\Software\Classes'
run='HKCU\Software\Microsoft\Windows\CurrentVersion\Run'
clsid='{3ADD7A24-A617-4FF3-8E48-0D3B85DF4619}'
typelib='{B6A57EE2-3022-44AA-9E24-04C8632479F1}'
interface='{05C892BC-AEDA-4A86-8AD4-2F2A9DA4BBE9}'
com_keys=("$classes\\CLSID\\$clsid\\LocalServer32" "$classes\\Tarrow.Tarrow" "$classes\\Tarrow.Tarrow.1"
          "$classes\\AppID\\Tarrow.EXE")
# The type library's keys, which marshaling needs: Windows writes them for the user, Wine's
# registration for the user writes them for the machine.
marshaling_keys=("TypeLib\\$typelib" "Interface\\$interface")
for_user_or_machine() { key_exists "$classes\\$1" || key_exists "HKLM\\Software\\Classes\\$1"; }
in_neither() { ! for_user_or_machine "$1"; }
# The log goes to the agent's folder, as on a desktop with the agent, not into the programs folder.
w reg add 'HKLM\SOFTWARE\Orvane\Kelmar' /v ProgramDir /t REG_SZ /d 'C:\TarrowTestInstall' /f >/dev/null

echo "== msiexec /i"
check "install exits 0" timed w msiexec /i "$package" /qn
for file in Tarrow.exe Tarrow.tlb TarrowEvents.dll tarrowctl.exe smoke.cmd; do check "$file installed" test -f "$programs/$file"; done
for key in "${com_keys[@]}"; do check "$key present" key_exists "$key"; done
for key in "${marshaling_keys[@]}"; do check "$key present" for_user_or_machine "$key"; done
command=$(value_of "$run" Tarrow)
check "the logon command is the quoted Tarrow.exe" test "$command" = "\"$(w winepath -w "$programs/Tarrow.exe" | tr -d '\r')\""
check "the class is served by the installed Tarrow.exe" \
    test "$(value_of "$classes\\CLSID\\$clsid\\LocalServer32" '(Default)')" = "${command//\"/}"

echo "== Tarrow started by the install"
ctl() { w "$programs/tarrowctl.exe" "$@"; }
check "the install started Tarrow" wait_for_service "$programs/tarrowctl.exe"
"$WINE" "${command//\"/}"
check "the logon command finds it running and ends (3)" test $? -eq 3
cred=(--url https://corvin.example/auth --auth-svc-id svc-17 --role role-admin)
holder=$(ctl register --hold "${cred[@]}" --srv-id corvin-1 --shared-id shared-admin-04 \
    --lease-dn 'cn=lease-881,ou=leases' --lease-expiry 20301231T120000Z --flag true | tr -d '\r' |
    sed -n 's/^holder pid //p')
check "a holder registers a credential (process $holder)" test -n "$holder"
record=$(ctl query "${cred[@]}" | tr -d '\r')
check "tarrowctl query answers it" test -n "$record"
held_file=$(sed -n 's/^fileName = .*\\//p' <<<"$record")
check "its file ($held_file) is written" test -f "$credentials/$held_file"
status=$(ctl status --csv | tr -d '\r')
check "tarrowctl status shows it held by $holder" \
    grep -q "^svc-17:role-admin:https://corvin.example/auth,shared-admin-04,.*$holder .*,held," <<<"$status"

echo "== a credential left behind, Tarrow stopped, msiexec /x"
echo left > "$credentials/20010101000000.dat"
check "Tarrow is closed as an installer closes it" w "$closeapp"
check "Tarrow has stopped" eval 'ctl query "${cred[@]}" >/dev/null 2>&1; [ $? -eq 101 ]'
check "the holder has ended" eval 'w taskkill /f /pid "$holder" >/dev/null 2>&1'
left_before=$(cd "$credentials" && ls -l --time-style=+%s.%N)
check "uninstall exits 0" timed w msiexec /x "$package" /qn
check "the programs folder is gone" test ! -e "$programs"
for key in "${com_keys[@]}" "$classes\\CLSID\\$clsid"; do check "$key gone" key_gone "$key"; done
for key in "${marshaling_keys[@]}"; do check "$key gone" in_neither "$key"; done
check "the logon value is gone" test -z "$(value_of "$run" Tarrow)"
check "the credential files are untouched" test "$(cd "$credentials" && ls -l --time-style=+%s.%N)" = "$left_before"
check "the registered credential's file is among them" test -f "$credentials/$held_file"

summary
