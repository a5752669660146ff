#include "monitor/StatusSnapshot.h"

#include "common/ModulePath.h"
#include "sharedid/SharedId.h"

CredentialStatus DescribeCredential(const CSharedId& record, CredentialStatus::State state) {
    CredentialStatus status;
    status.displayName = record.GetSignature();
    status.sharedAccount = record.GetSharedId();
    status.leaseDN = record.GetLeaseDN();
    status.leaseExpiry = record.GetLeaseExpiry();
    status.fileName = NS_Utils::FileNameOf(record.GetFileName());
    status.state = state;
    return status;
}
