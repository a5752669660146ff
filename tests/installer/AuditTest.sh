#!/usr/bin/env bash
# The audit trail as Wine shows the event log's entries, with the real Tarrow.exe, holders started
# by tarrowctl and the stand-in agent: a lease that runs out (its holder ended, one entry for a
# check-in tried twice), one credential's whole life (registered, taken over by a second holder,
# each holder exiting, checked in) beside another released by its program, a credential held
# again after Tarrow was ended by force, and the end of the session with nine holders. No memory-only text and no
# identity-server password is in any entry. Then the trail switched off on its own by its policy.
#   AuditTest.sh <folder of the programs>
set -u
. "$(dirname "$0")/lib.sh"
bin=$(cd "$1" && pwd)
use_new_prefix "${TARROW_WINE_ROOT:-$(dirname "$bin")/wine}"

logging_policy='HKLM\SOFTWARE\Policies\Orvane\Kelmar\Logging'
standin='HKLM\SOFTWARE\TarrowStandIn'
journal="$prefix/drive_c/KelStandIn/journal.log"
w reg add 'HKLM\SOFTWARE\Orvane\Kelmar' /v ProgramDir /t REG_SZ /d 'C:\TarrowTestInstall' /f >/dev/null
w reg add 'HKLM\SOFTWARE\Orvane\Kelmar\Wex' /v FreeSharedIdWaitTime /t REG_DWORD /d 0 /f >/dev/null
w reg add 'HKCU\SOFTWARE\Policies\Orvane\Kelmar\Wex' /v WaitingTimeToKillProcess /t REG_DWORD /d 0 /f >/dev/null
w reg add "$logging_policy" /v WindowsEventLogEnabled /t REG_DWORD /d 1 /f >/dev/null
w reg add "$standin" /v WalletPassword /t REG_SZ /d SECRET-wallet /f >/dev/null
# The first row the agent sees is answered "try again later", every later one "checked in".
w reg add "$standin" /v CheckInResults /t REG_SZ /d 37,0 /f >/dev/null
mkdir -p "$prefix/drive_c/TarrowTestInstall"
cp "$bin/KelRuntime.dll" "$prefix/drive_c/TarrowTestInstall/"
check "the stand-in agent registers" w regsvr32 /s "$bin/KelAgentStandIn.dll"
check "Tarrow registers for this user" w "$bin/Tarrow.exe" /RegServerPerUser
out=$(mktemp -d)
trap 'rm -rf "$out"; end_prefix "$prefix"' EXIT

ctl() { w "$bin/tarrowctl.exe" "$@" | tr -d '\r'; }
# Credential $1 (its role and lease), with a text in every memory-only field.
credential() {
    echo --url https://corvin.example/auth --srv-id corvin-1 --auth-svc-id svc-17 --shared-id shared-admin-04 \
        --role "$1" --lease-dn "cn=$1" --lease-expiry "${2:-20301231T120000Z}" \
        --aux1 a1 --aux2 SECRET-aux2 --aux3 SECRET-aux3 --aux4 a4 --aux6 SECRET-aux6
}
# Registers credential $1 (lease expiry $2) for a new holder living $3 ms (until ended without);
# prints the holder's process id.
hold() {
    local life=(--hold)
    [ -n "${3:-}" ] && life=(--hold-for "$3")
    # shellcheck disable=SC2046
    ctl register "${life[@]}" $(credential "$1" "${2:-}") | sed -n 's/^holder pid //p'
}
# Waits up to $3 s until run $1 has an entry matching $2.
await() {
    for _ in $(seq "$3"); do has_event "$out/$1" "$2" && return 0; sleep 1; done
    return 1
}
subject='shared-admin-04 | \([a-z0-9-]*\) | corvin-1 | https://corvin.example/auth | cn=\1'
# A holder's program and its user's name.
holder='[^|]*tarrowctl.exe | [^|]*[^ |][^|]*'
entries() { events "$out/$1" | grep "^$2 4 | shared-admin-04 | $3 |"; }
count_of() { entries "$1" "$2" "$3" | wc -l; }

echo "== a lease that runs out"
check "Tarrow answers" start_tarrow run
expired=$(hold role-expired 20010101T000000Z)
# The lease poller looks once a minute; the user's policy leaves no grace time.
check "the holder is ended at the lease's expiry (204)" await run "^204 4 | $subject | $expired | " 90
check "its check-in is one entry (206): result 0 after two attempts" await run "^206 4 | $subject | 0 | [0-9]* | 2$" 30
check "the registration (200) names the lease, its expiry and the holder's program and user" \
    has_event "$out/run" "^200 4 | $subject | 20010101T000000Z | $expired | [^|]*tarrowctl.exe | [^|]*[^ |]"

echo "== one credential's whole life"
first=$(hold role-life '' 8000)
second=$(hold role-other '' 12000)
check "a second holder takes it over" ctl query --own-only --pid "$second" --url https://corvin.example/auth \
    --auth-svc-id svc-17 --role role-life
check "the other is released by its program" ctl release --pid "$second" --url https://corvin.example/auth \
    --auth-svc-id svc-17 --role role-other
check "the life ends in a check-in (206)" await run "^206 4 | shared-admin-04 | role-life | " 30
events "$out/run"
check "registered once (200)" test "$(count_of run 200 role-life)" -eq 1
check "taken over by the second holder, one of two (201)" has_event "$out/run" "^201 4 | $subject | $second | .*tarrowctl.exe | .* | 2$"
check "the first holder's exit leaves one holder (203)" has_event "$out/run" "^203 4 | $subject | $first | $holder | 1$"
check "the second's exit leaves none (203)" has_event "$out/run" "^203 4 | $subject | $second | $holder | 0$"
check "checked in once at the first attempt, held a few seconds" has_event "$out/run" "^206 4 | $subject | 0 | [0-9]* | 1$"
check "the other is let go as released (202), then checked in" \
    eval 'has_event "$out/run" "^202 4 | $subject | $second | $holder | 0$" && [ "$(count_of run 206 role-other)" -eq 1 ]'
check "its holder's exit is no second fact of it" test "$(count_of run 203 role-other)" -eq 0

echo "== held again after Tarrow was ended by force; the end of the session"
survivor=$(hold role-survivor)
sleep 4  # the time held counts from here, not from the restart
kill -9 "$tarrow"
wait "$tarrow" 2>/dev/null
check "Tarrow answers again" start_tarrow again
check "the credential is held again for its running holder (207)" \
    has_event "$out/again" "^207 4 | $subject | 20301231T120000Z | tarrowctl.exe ($survivor)$"
# Their exits and check-ins come at once from several threads: each still one entry.
for i in $(seq 8); do late=$(hold "role-late-$i"); done
end_session
events "$out/again"
check "every holder is ended at the end of the session (205), once" eval \
    'has_event "$out/again" "^205 4 | $subject | $survivor | " && has_event "$out/again" "^205 4 | $subject | $late | $holder | 0$" &&
     [ "$(events "$out/again" | grep "^205 4 | " | sort -u | wc -l)" -eq 9 ] && [ "$(events "$out/again" | grep -c "^205 4 | ")" -eq 9 ]'
check "every credential is checked in (206) once, the one held again as held since its first registration" eval \
    '[ "$(events "$out/again" | grep -c "^206 4 | ")" -eq 9 ] && [ "$(entries again 206 role-survivor | cut -d"|" -f8 | tr -d " ")" -ge 4 ]'
check "no memory-only text and no password is in any entry" eval '! grep -h "eventlog:" "$out"/* | grep -q SECRET'
check "the agent was given the password" grep -q 'pwhash=' "$journal"

echo "== the trail switched off on its own"
w reg add "$logging_policy" /v AuditTrailEnabled /t REG_DWORD /d 0 /f >/dev/null
check "Tarrow answers" start_tarrow off
hold role-off '' 1000 >/dev/null
for _ in $(seq 30); do [ "$(grep -c 'cn=role-off' "$journal")" -ge 1 ] && break; sleep 1; done
end_session
check "the start is still reported, no audit entry" \
    eval 'has_event "$out/off" "^1 4 " && ! events "$out/off" | grep -q "^20[0-9] "'

summary
