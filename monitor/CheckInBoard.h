#pragma once
// The credentials that have been released and are not yet checked in, with how their check-ins
// went so far, and whether the agent answered at the last attempt: the collector's queue cannot
// be looked into, so the status view reads this instead.
//
// Threads: Queued on whichever thread lets a credential go (the COM thread and thread-pool wait
// callbacks under the registry lock, the lease monitor's and the window's threads without it) and
// on the owner's thread at start, or on the worker when the agent is back; CheckingIn, NotSent,
// Attempted, Finished and SetAgentReachable on the collector's worker; Copy and AgentState on the
// COM thread for the status. The board's lock is a leaf: nothing is taken or called under it, so
// it may be taken with the registry lock held.

#include "checkin/CheckInDecision.h"
#include "common/CriticalSection.h"
#include "monitor/StatusSnapshot.h"
#include "sharedid/SharedId.h"

#include <atomic>
#include <map>
#include <vector>

class CCheckInBoard {
public:
    // A record is known by its address from Queued to Finished: it lives in the collector's work
    // items, which hold it until Finished is called.
    void Queued(const CSharedId& credential);
    // The call to the agent began at `since`.
    void CheckingIn(const CSharedId& credential, __time64_t since);
    // No call carried it after all: it waits as it did before.
    void NotSent(const CSharedId& credential);
    // An attempt that is retried at `nextAttempt` at the earliest; an answer's result is kept.
    void Attempted(const CSharedId& credential, const NS_CheckIn::RowOutcome& outcome, __time64_t nextAttempt);
    void Finished(const CSharedId& credential);
    // Oldest first.
    std::vector<CredentialStatus> Copy() const;

    void SetAgentReachable(bool reachable) noexcept {
        m_agent = reachable ? ServiceStatus::Agent::Reachable : ServiceStatus::Agent::Unreachable;
    }
    ServiceStatus::Agent AgentState() const noexcept { return m_agent.load(); }

private:
    struct Entry {
        unsigned long long order;
        CredentialStatus status;
    };

    mutable NS_Utils::CriticalSection m_lock;
    std::map<const CSharedId*, Entry> m_pending;
    unsigned long long m_nextOrder = 0;
    std::atomic<ServiceStatus::Agent> m_agent{ServiceStatus::Agent::NotAskedYet};
};
