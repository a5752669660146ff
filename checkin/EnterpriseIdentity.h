#pragma once
// The user logged on to the agent, as the collector's worker last read it from the agent's script
// support, for the registrations on the COM thread: they must not call the agent themselves (a
// call out of the main apartment lets other calls in, and a hung agent would hang the client).
//
// Threads: Set on the collector's worker; Get on any thread. The lock is a leaf.

#include "common/CriticalSection.h"

#include <string>

class CEnterpriseIdentity {
public:
    void Set(const std::wstring& identity) {
        NS_Utils::CritSecGuard guard(m_lock);
        m_identity = identity;
    }
    // Empty until the worker has read it once with a user logged on.
    std::wstring Get() const {
        NS_Utils::CritSecGuard guard(m_lock);
        return m_identity;
    }

private:
    mutable NS_Utils::CriticalSection m_lock;
    std::wstring m_identity;
};
