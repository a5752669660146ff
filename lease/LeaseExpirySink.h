#pragma once
// Where the registry hands each new credential so that its lease expiry is watched.

#include "sharedid/SharedId.h"

#include <memory>

class ILeaseExpirySink {
public:
    virtual ~ILeaseExpirySink() = default;
    virtual void AddLeaseExpirationInfo(const std::shared_ptr<CSharedId>& credential) = 0;
};
