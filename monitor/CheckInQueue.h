#pragma once
// Credentials waiting for check-in, in the order they were let go, so that the collector's
// worker can send several in one call to the agent: the collector's own queue holds work items,
// which cannot be looked into or taken together.
//
// Threads: Push on whichever thread lets a credential go (often under the registry lock) and on
// the worker; Take on the worker. The lock is a leaf: nothing is taken or called under it.

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
    // Up to `most` from the front that go to one identity server (its URL and server id, the
    // call's own arguments), in order; empty when none waits.
    std::vector<PendingCheckIn> Take(size_t most);

private:
    NS_Utils::CriticalSection m_lock;
    std::deque<PendingCheckIn> m_waiting;
};
