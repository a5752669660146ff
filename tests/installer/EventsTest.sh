#!/usr/bin/env bash
# The event log's entries as Wine shows them (ReportEventW prints each entry's type and id on the
# advapi channel and its strings on the eventlog channel), with the writer switched on by a Group
# Policy value only: the start, a level-1 failure, a run ended by force seen at the next start,
# a burst of failures cut to ten entries, holders ended at a lease expiry (the grace time set to 0
# by the user's policy, over the machine's own 120 s), the stop at the end of the session, and no
# "ended by force" after it.
# Then the policies switched off: the service reports nothing, and nothing is left behind.
#   EventsTest.sh <folder of the programs>
set -u
. "$(dirname "$0")/lib.sh"
bin=$(cd "$1" && pwd)
use_new_prefix "${TARROW_WINE_ROOT:-$(dirname "$bin")/wine}"

machine_policy='HKLM\SOFTWARE\Policies\Orvane\Kelmar\Logging'
user_policy='HKCU\SOFTWARE\Policies\Orvane\Kelmar\Wex'
logging='HKLM\SOFTWARE\Orvane\Kelmar\Logging'
wex='HKLM\SOFTWARE\Orvane\Kelmar\Wex'
markers="$prefix/drive_c/users/$(whoami)/AppData/Local/Kel/Tarrow"
w reg add 'HKLM\SOFTWARE\Orvane\Kelmar' /v ProgramDir /t REG_SZ /d 'C:\TarrowTestInstall' /f >/dev/null
w reg add "$logging" /v WindowsEventLogEnabled /t REG_DWORD /d 0 /f >/dev/null
w reg add "$wex" /v WaitingTimeToKillProcess /t REG_DWORD /d 120 /f >/dev/null
check "Tarrow registers for this user" w "$bin/Tarrow.exe" /RegServerPerUser
ctl() { w "$bin/tarrowctl.exe" "$@"; }
out=$(mktemp -d)
trap 'rm -rf "$out"; end_prefix "$prefix"' EXIT


echo "== the writer on by the machine's policy only"
w reg add "$machine_policy" /v WindowsEventLogEnabled /t REG_DWORD /d 1 /f >/dev/null
check "Tarrow answers" start_tarrow first
ctl register --pid 0 --url https://corvin.example/auth --srv-id corvin-1 --auth-svc-id svc-17 --shared-id shared-admin-04 \
    --role role-admin --lease-dn cn=refused --lease-expiry 20301231T120000Z >/dev/null 2>&1
# A burst of failures: the event log takes the first ten of them and leaves the rest to the log file.
for _ in $(seq 12); do
    ctl register --pid 0 --url https://corvin.example/auth --srv-id corvin-1 --auth-svc-id svc-17 \
        --shared-id shared-admin-04 --role role-admin --lease-dn cn=refused --lease-expiry 20301231T120000Z >/dev/null 2>&1
done
kill -9 "$tarrow"
wait "$tarrow" 2>/dev/null
events "$out/first"
check "the start is reported (1, information) with the version" has_event "$out/first" '^1 4 | [0-9]* | [0-9.]*$'
check "a refused registration is reported (100, error)" has_event "$out/first" '^100 1 | .*Invalid PID'
check "no more than ten failures are reported in a burst" test "$(events "$out/first" | grep -c '^100 ')" -eq 10
first_pid=$(events "$out/first" | sed -n 's/^1 4 | \([0-9]*\) .*/\1/p')

echo "== the next start, a lease that has run out, the end of the session"
w reg add "$user_policy" /v WaitingTimeToKillProcess /t REG_DWORD /d 0 /f >/dev/null
check "Tarrow answers again" start_tarrow second
check "the run ended by force is reported (3, warning) with its process" has_event "$out/second" "^3 2 | $first_pid | "
holder=$(ctl register --hold --url https://corvin.example/auth --srv-id corvin-1 --auth-svc-id svc-17 \
    --shared-id shared-admin-04 --role role-admin --lease-dn cn=expired --lease-expiry 20010101T000000Z | tr -d '\r' | sed -n 's/^holder pid //p')
# The lease poller looks once a minute; the user's policy leaves no grace time.
for _ in $(seq 90); do has_event "$out/second" '^102 ' && break; sleep 1; done
events "$out/second"
check "the holder ended at the expiry is reported (102, warning) with its lease, program and process" \
    has_event "$out/second" "^102 2 | cn=expired | tarrowctl.exe ($holder)$"
# No agent is installed here: the ended holder's credential is kept on the disk.
for _ in $(seq 30); do has_event "$out/second" '^104 ' && break; sleep 1; done
check "the agent's absence is reported (104, error) with the files kept" has_event "$out/second" '^104 1 | 1$'
end_session
check "the stop at the end of the session is reported (2, information)" has_event "$out/second" '^2 4 | [0-9]*$'
check "no marker of a running instance is left" test -z "$(ls "$markers"/*.running 2>/dev/null)"
# The agent's folder named by ProgramDir does not exist here: the log went to the user's own folder.
check "the log is in the user's folder when the agent's cannot be written" test -s "$markers/logs/brisk_observer.log"
check "Tarrow answers after the session" start_tarrow third
check "a stop at the end of the session is no run ended by force" eval '! has_event "$out/third" "^3 "'
end_session

echo "== the policies switched off"
w reg delete "$machine_policy" /v WindowsEventLogEnabled /f >/dev/null
w reg delete "$user_policy" /v WaitingTimeToKillProcess /f >/dev/null
check "Tarrow answers without the policies" start_tarrow fourth
ctl register --pid 0 --url https://corvin.example/auth --srv-id corvin-1 --auth-svc-id svc-17 --shared-id shared-admin-04 \
    --role role-admin --lease-dn cn=refused --lease-expiry 20301231T120000Z >/dev/null 2>&1
end_session
check "nothing is reported" test -z "$(events "$out/fourth")"
check "no policy value is left" test -z "$(value_of "$machine_policy" WindowsEventLogEnabled)$(value_of "$user_policy" WaitingTimeToKillProcess)"
check "the service's own values are as they were" \
    test "$(value_of "$logging" WindowsEventLogEnabled) $(value_of "$wex" WaitingTimeToKillProcess)" = "0x0 0x78"
check "no marker of a running instance is left" test -z "$(ls "$markers"/*.running 2>/dev/null)"

summary
