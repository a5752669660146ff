#pragma once
// Credentials waiting for check-in, in the order they were let go, so that the collector's
// worker can send several in one call to the agent: the collector's own queue holds work items,
// which cannot be looked into or taken together. A row in its retry pause waits here too, with
// the time it is due at, so that rows let go meanwhile go out at once instead of behind it.
//
// Threads: Push and MakeAllDue on whichever thread lets a credential go or ends the session
// (often under the registry lock) and on the worker; Take, PutBack and NextDue on the worker.
// The lock is a leaf: nothing is taken or called under it.

#include "common/CriticalSection.h"
#include "sharedid/SharedId.h"

#include <windows.h>

#include <deque>
#include <memory>
#include <optional>
#include <vector>

struct PendingCheckIn {
    std::shared_ptr<CSharedId> credential;
    bool released;                 // let go by its holders: its signature entry is still to be erased
    ULONGLONG dueAt = 0;           // GetTickCount64 from which it may be sent; 0: at once
    unsigned attempts = 0;         // calls that carried it and got no final answer
    bool reportedAsStuck = false;  // its many attempts are in the event log already
};

class CCheckInQueue {
public:
    // A row that cannot be added for want of memory stays with the caller.
    void Push(PendingCheckIn&& pending);
    // Rows that no call carried go back to the front, in their order, as if never taken; `rows`
    // is left empty, or with the rows that could not be put back for want of memory.
    void PutBack(std::vector<PendingCheckIn>& rows);
    // Up to `most` rows due at `now` of the identity server (its URL and server id, the call's
    // own arguments) of the oldest due row, wherever they stand, in order; empty when none is due.
    // The server's due rows left over go behind every other row, so that no server waits behind
    // another for more than one call. Rows not due keep their places.
    std::vector<PendingCheckIn> Take(size_t most, ULONGLONG now);
    // The earliest time a waiting row is due at; none when nothing waits.
    std::optional<ULONGLONG> NextDue() const;
    // Every waiting row is due at once (the session ends: nothing waits out a pause).
    void MakeAllDue();
    size_t Size() const;

private:
    mutable NS_Utils::CriticalSection m_lock;
    std::deque<PendingCheckIn> m_waiting;
};
