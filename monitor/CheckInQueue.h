#pragma once
// Credentials waiting for check-in, in the order they were let go, so that the collector's
// worker can send several in one call to the agent: the collector's own queue holds work items,
// which cannot be looked into or taken together.
//
// Threads: Push on whichever thread lets a credential go (often under the registry lock) and on
// the worker; Take and PutBack on the worker. The lock is a leaf: nothing is taken or called
// under it.

#include "common/CriticalSection.h"
#include "sharedid/SharedId.h"

#include <deque>
#include <memory>
#include <vector>

struct PendingCheckIn {
    std::shared_ptr<CSharedId> credential;
    bool released;  // let go by its holders: its signature entry is still to be erased
};

class CCheckInQueue {
public:
    void Push(PendingCheckIn pending);
    // Rows that no call carried go back to the front, in their order, as if never taken.
    void PutBack(std::vector<PendingCheckIn> rows);
    // Up to `most` waiting rows of the identity server (its URL and server id, the call's own
    // arguments) of the oldest waiting row, wherever they stand, in order; empty when none waits.
    // The server's rows left over go behind every other server's, so that no server waits behind
    // another for more than one call.
    std::vector<PendingCheckIn> Take(size_t most);
    size_t Size() const;

private:
    mutable NS_Utils::CriticalSection m_lock;
    std::deque<PendingCheckIn> m_waiting;
};
