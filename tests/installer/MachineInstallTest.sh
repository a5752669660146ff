#!/usr/bin/env bash
# The package for all users through Windows Installer, in a Wine prefix of its own: a quiet
# install with ALLUSERS=1 puts the programs in Program Files, registers Tarrow for all users, its
# own event source "Tarrow" (the agent's is left alone) and the machine's logon command, and starts
# Tarrow for the installing user;
# Tarrow started by that command answers tarrowctl
# and, with the event log writer on, reports its start and a refused registration to the event
# log (none with it off); a quiet uninstall removes all of it but the AppID key and the
# credential files.
#   MachineInstallTest.sh <Tarrow-x.y.z-machine.msi> <folder of tarrow_eventtext.exe>
set -u
. "$(dirname "$0")/lib.sh"
msi=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
eventtext=$(cd "$2" && pwd)/tarrow_eventtext.exe
closeapp=$(cd "$2" && pwd)/tarrow_closeapp.exe
use_new_prefix "${TARROW_WINE_ROOT:-$(dirname "$(dirname "$msi")")/wine}"
package=$(own_package "$msi")

programs="$prefix/drive_c/Program Files/Tarrow"
credentials="$prefix/drive_c/users/$(whoami)/AppData/Roaming/Kel/Tarrow"
classes='HKLM\Software\Classes'
run='HKLM\Software\Microsoft\Windows\CurrentVersion\Run'
source_key='HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\Tarrow'
logging='HKLM\SOFTWARE\Orvane\Kelmar\Logging'
clsid='{3ADD7A24-A617-4FF3-8E48-0D3B85DF4619}'
registered_keys=("$classes\\CLSID\\$clsid\\LocalServer32" "$classes\\Tarrow.Tarrow" "$classes\\Tarrow.Tarrow.1"
                 "$classes\\AppID\\Tarrow.EXE" "$classes\\TypeLib\\{B6A57EE2-3022-44AA-9E24-04C8632479F1}"
                 "$source_key")
w reg add 'HKLM\SOFTWARE\Orvane\Kelmar' /v ProgramDir /t REG_SZ /d 'C:\TarrowTestInstall' /f >/dev/null
# The agent's own event source, which Tarrow must leave as it is.
agent_source='HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\Quillon'
w reg add "$agent_source" /v EventMessageFile /t REG_SZ /d 'C:\Agent\AgentEvents.dll' /f >/dev/null
ctl() { w "$programs/tarrowctl.exe" "$@"; }

echo "== msiexec /i ALLUSERS=1"
check "install exits 0" timed w msiexec /i "$package" ALLUSERS=1 /qn
for file in Tarrow.exe Tarrow.tlb TarrowEvents.dll tarrowctl.exe smoke.cmd; do check "$file installed" test -f "$programs/$file"; done
for key in "${registered_keys[@]}"; do check "$key present" key_exists "$key"; done
exe=$(windows_path "$programs/Tarrow.exe")
check "the class is served by the installed Tarrow.exe" \
    test "$(value_of "$classes\\CLSID\\$clsid\\LocalServer32" '(Default)')" = "$exe"
check "the event source names the installed message library" \
    test "$(value_of "$source_key" EventMessageFile)" = "$(windows_path "$programs/TarrowEvents.dll")"
check "the event source supports errors, warnings and information" test "$(value_of "$source_key" TypesSupported)" = 0x7
command=$(value_of "$run" Tarrow)
check "the machine's logon command is the quoted Tarrow.exe" test "$command" = "\"$exe\""
for id in 1 2 3 100 101 102 103 104 105 106 107 120; do
    check "event $id has a text in the message library" eval 'w "$eventtext" "$programs/TarrowEvents.dll" $id 321 9.9.9 | grep -q .'
done
check "the start event reads as the administrator sees it" \
    test "$(w "$eventtext" "$programs/TarrowEvents.dll" 1 321 9.9.9 | tr -d '\r\n')" = "Tarrow started (process 321, version 9.9.9)."

check "the install started Tarrow for the installing user" wait_for_service "$programs/tarrowctl.exe"
check "it closes as an installer closes it" w "$closeapp"

# Runs the logon command with the event log's debug channel on, registers a credential that is
# refused (process id 0), stops Tarrow, and leaves Wine's event log output in the file $1.
run_with_refused_registration() {
    WINEDEBUG=err+eventlog,trace+eventlog "$WINE" "${command//\"/}" 2>"$1" &
    local tarrow=$!
    check "Tarrow started by the logon command answers tarrowctl" wait_for_service "$programs/tarrowctl.exe"
    ctl register --pid 0 --url https://corvin.example/auth --srv-id corvin-1 --auth-svc-id svc-17 \
        --shared-id shared-admin-04 --role role-admin --lease-dn cn=lease-1 --lease-expiry 20301231T120000Z >/dev/null 2>&1
    check "the registration of process 0 is refused with 2" test $? -eq 2
    kill "$tarrow"
    wait "$tarrow" 2>/dev/null
}
events=$(mktemp)
echo "== the event log writer on"
w reg add "$logging" /v WindowsEventLogEnabled /t REG_DWORD /d 1 /f >/dev/null
run_with_refused_registration "$events"
check "the start is reported with the version" grep -q 'trace:eventlog:ReportEventW L"1\.[0-9.]*"' "$events"
check "the refusal is reported as an error" grep -q 'err:eventlog:ReportEventW .*Invalid PID' "$events"
echo "== the event log writer off"
w reg add "$logging" /v WindowsEventLogEnabled /t REG_DWORD /d 0 /f >/dev/null
run_with_refused_registration "$events"
check "nothing is reported" test -z "$(grep eventlog: "$events")"
rm -f "$events"

echo "== msiexec /x"
mkdir -p "$credentials"
echo left > "$credentials/20010101000000.dat"
left_before=$(cd "$credentials" && ls -l --time-style=+%s.%N)
check "uninstall exits 0" timed w msiexec /x "$package" /qn
check "the programs folder is gone" test ! -e "$programs"
for key in "${registered_keys[@]}" "$classes\\CLSID\\$clsid"; do check "$key gone" key_gone "$key"; done
check "the AppID key stays" key_exists "$classes\\AppID"
check "the agent's event source is untouched" test "$(value_of "$agent_source" EventMessageFile)" = 'C:\Agent\AgentEvents.dll'
check "the logon value is gone" test -z "$(value_of "$run" Tarrow)"
check "the credential files are untouched" test "$(cd "$credentials" && ls -l --time-style=+%s.%N)" = "$left_before"

summary
