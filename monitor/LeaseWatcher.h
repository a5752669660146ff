#pragma once
// What the registry asks of whatever watches lease expiries. The registry owns this interface and
// the lease monitor implements it, so the registry is built and tested without the window.
//
// Threads: AddLeaseExpirationInfo on the registering thread under the registry lock (an invalid
// expiry is rewritten in the record the other threads read); UpdateCredentialsHeld and ListedRows
// never under it; Shutdown on the registry owner's thread.

#include "sharedid/ListedRow.h"
#include "sharedid/SharedId.h"

#include <windows.h>

#include <atomic>
#include <memory>
#include <vector>

class ILeaseWatcher {
public:
    virtual ~ILeaseWatcher() = default;

    virtual void AddLeaseExpirationInfo(const std::shared_ptr<CSharedId>& credential) = 0;
    // After the count may have crossed 0.
    virtual void UpdateCredentialsHeld(const std::atomic<LONG>& leaseCount) = 0;
    // The holders on the warning window now.
    virtual std::vector<LMListedRow> ListedRows() const = 0;
    // Stops watching; false when a thread had to be ended by force (it may have held any lock).
    [[nodiscard]] virtual bool Shutdown() = 0;
};
