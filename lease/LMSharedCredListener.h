#pragma once
// Follows one credential's holders during its lease warning: a process that takes the credential
// gets a row on the lease-expiry window, one that lets it go loses its row.
//
// Threads: called on whichever thread changes the credential's holders (the COM thread), never
// under the registry lock. Holds neither the credential nor the monitor alive.

#include "sharedid/AbsSharedCredListener.h"
#include "sharedid/SharedId.h"

#include <memory>

class CLeaseMonitor;

class LMSharedCredListener : public AbsSharedCredListener {
public:
    LMSharedCredListener(const std::weak_ptr<CSharedId>& credential, const std::weak_ptr<CLeaseMonitor>& monitor);

    void OnUserAdded(DWORD processId) override;
    void OnUserRemoved(DWORD processId) override;

private:
    std::weak_ptr<CSharedId> m_credential;
    std::weak_ptr<CLeaseMonitor> m_monitor;
};
