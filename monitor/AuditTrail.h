#pragma once
// The audit trail in the event log: which program of which user held which shared account, from
// when to when, and how it went back. One entry per fact: a registration, a take-over, a holder
// letting go (released, exited, ended at the lease's expiry or at logoff), the final answer of a
// check-in (with the attempts before it, never an entry per attempt), and a credential held again
// after a restart. Only texts that the credential file holds anyway go out: never a memory-only
// text, never the identity-server password.
//
// Threads: the registry's facts are noted under the registry lock, from its threads (the COM
// thread, thread-pool wait callbacks, the window's thread, the owner's thread at start), and
// Report sends them once the caller has left that lock; a fact noted without it (a check-in's
// answer, on the collector's worker) is sent at once. Sending may be slow, so it is never done
// under the registry lock (checked): one thread sends at a time, in the order the facts were
// noted, and a thread that finds another sending leaves its entries to that one. The trail's own
// lock is a leaf.

#include "checkin/CheckInDecision.h"
#include "common/CriticalSection.h"
#include "common/EventLog.h"
#include "sharedid/SharedId.h"

#include <windows.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

class CAuditTrail {
public:
    enum class EndReason { AtExpiry, AtLogoff };

    // `folder` holds the credential files: a credential from an earlier run counts as held since
    // its file was written.
    CAuditTrail(const NS_Utils::CriticalSection& registryLock, std::wstring folder);
    CAuditTrail(const CAuditTrail&) = delete;
    CAuditTrail& operator=(const CAuditTrail&) = delete;

    // `pid` is a holder of the credential now, with a process entry.
    void Registered(const CSharedId& credential, DWORD pid);
    void TakenOver(const CSharedId& credential, DWORD pid);
    // `pid` is no longer a holder of it, its process runs on.
    void Released(const CSharedId& credential, DWORD pid);
    // The process has gone, after what it `held` no longer counts it among the holders.
    void Exited(DWORD pid, const std::vector<std::shared_ptr<CSharedId>>& held);
    // Before the service ends these holders: their exits say why.
    void Ending(const std::vector<DWORD>& pids, EndReason why);
    // Held again for its holders, read from its file at a start.
    void HeldAgain(const CSharedId& credential);
    // What became of one attempt: counted, or sent with the count when it is final.
    void CheckInAnswered(const CSharedId& credential, const NS_CheckIn::RowOutcome& outcome);

    // Sends what was noted; never under the registry lock.
    void Report();

private:
    struct Holder {
        std::wstring program;    // the full path
        std::vector<BYTE> user;  // the SID of the process's user; its name is looked up when sent
    };
    struct Entry {
        NS_EventLog::Event event;
        std::vector<std::wstring> texts;
        std::vector<BYTE> user;  // when not empty, its name goes in place of the last empty text
        size_t userAt = 0;
    };
    struct Held {
        ULONGLONG since;  // FILETIME, UTC
        unsigned attempts;
    };

    // Under m_lock: what the trail knows of a holder, asked of its process when first seen.
    const Holder& KnowHolder(DWORD pid, bool askAgain);
    void NoteHolderEntry(NS_EventLog::Event event, const CSharedId& credential, DWORD pid, std::wstring last);
    void Note(Entry entry);
    void NoteDone();
    Held& HeldEntry(const CSharedId& credential);
    std::vector<Entry> TakeNoted();
    void Send(std::vector<Entry>& entries);
    std::wstring UserName(const std::vector<BYTE>& sid);

    // Reads the two switches again when a second has passed since they were last read: the
    // registry is never read under the registry lock, nor for every fact.
    void ReadSwitches();

    const NS_Utils::CriticalSection& m_registryLock;
    const std::wstring m_folder;
    NS_Utils::CriticalSection m_lock;
    std::vector<Entry> m_noted;
    std::map<DWORD, Holder> m_holders;
    std::map<DWORD, EndReason> m_ending;
    std::map<std::wstring, Held> m_held;  // by the credential file's name
    // Facts are noted whether the trail is on or not (the registry is not read under the registry
    // lock, and the first fact after a switch is turned on must not be lost); sending decides.
    std::atomic<bool> m_on{false};
    std::atomic<ULONGLONG> m_switchesReadAt{0};
    // Set by the one thread that sends; the user names are that thread's while it is set.
    std::atomic<bool> m_sending{false};
    std::map<std::vector<BYTE>, std::wstring> m_userNames;
};
