#include "host/StatusVariant.h"

#include "common/ComHandles.h"
#include "host/StatusLayout.h"
#include "sharedid/ExpiryTime.h"

#include <new>

namespace NS_Status {
namespace {

// One SAFEARRAY of VARIANTs, filled in order; element VARIANTs are written in place, so each
// value's ownership passes to the array at once.
class Row {
public:
    explicit Row(ULONG size) : m_array(::SafeArrayCreateVector(VT_VARIANT, 0, size)) {
        if (!m_array.get()) throw std::bad_alloc();
    }
    Row& Text(const std::wstring& text) {
        VARIANT& slot = Next();
        slot.bstrVal = NS_Utils::AllocBstr(text).release();
        slot.vt = VT_BSTR;
        return *this;
    }
    Row& Int(LONG value) {
        VARIANT& slot = Next();
        slot.vt = VT_I4;
        slot.lVal = value;
        return *this;
    }
    Row& Bool(bool value) {
        VARIANT& slot = Next();
        slot.vt = VT_BOOL;
        slot.boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
        return *this;
    }
    // In the local time that was in force at that date (daylight saving or not by the zone's
    // rules for that day), not with today's bias: a January date read in July stays as the clock
    // showed it. (The Ex form with the year's own rules is a stub in Wine, which ends the process.)
    Row& Date(const FILETIME& utc) {
        SYSTEMTIME utcParts{};
        SYSTEMTIME parts{};
        DATE date = 0;
        VARIANT& slot = Next();
        if (::FileTimeToSystemTime(&utc, &utcParts) && ::SystemTimeToTzSpecificLocalTime(nullptr, &utcParts, &parts) &&
            ::SystemTimeToVariantTime(&parts, &date)) {
            slot.vt = VT_DATE;
            slot.date = date;
        }
        return *this;
    }
    // EMPTY for 0.
    Row& Date(__time64_t utc) {
        if (utc == 0) return Empty();
        const ULONGLONG ticks = static_cast<ULONGLONG>(utc) * 10000000ULL + 116444736000000000ULL;
        return Date(FILETIME{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)});
    }
    Row& Empty() {
        Next();
        return *this;
    }
    Row& Nested(Row&& row) {
        row.Into(Next());
        return *this;
    }
    void Into(VARIANT& out) {
        out.parray = m_array.release();
        out.vt = VT_ARRAY | VT_VARIANT;
    }

private:
    VARIANT& Next() {
        void* element = nullptr;
        LONG index = m_next++;
        ::SafeArrayPtrOfIndex(m_array.get(), &index, &element);
        return *static_cast<VARIANT*>(element);
    }

    NS_Utils::UniqueSafeArray m_array;
    LONG m_next = 0;
};

Row ServiceRow(const ServiceStatus& service, const ServiceFacts& facts) {
    Row row(kServiceFields);
    row.Text(kServiceRow).Int(service.leaseCount).Int(static_cast<LONG>(service.queuedWorkItems)).Date(facts.started);
    row.Text(facts.version);
    if (service.agent == ServiceStatus::Agent::NotAskedYet)
        row.Empty();
    else
        row.Bool(service.agent == ServiceStatus::Agent::Reachable);
    row.Bool(service.workerRunning);
    return row;
}

Row Holders(const std::vector<HolderStatus>& holders) {
    Row list(static_cast<ULONG>(holders.size()));
    for (const HolderStatus& holder : holders)
        list.Nested(std::move(Row(2).Int(static_cast<LONG>(holder.pid)).Text(holder.executable)));
    return list;
}

Row CredentialRow(const CredentialStatus& credential) {
    Row row(kCredentialFields);
    row.Text(kCredentialRow).Text(credential.displayName).Text(credential.sharedAccount).Text(credential.leaseDN);
    __time64_t expiry = 0;
    if (NS_LEASE_UTILS::ExpiryTextToTime(credential.leaseExpiry, expiry))
        row.Date(expiry);
    else
        row.Text(credential.leaseExpiry);
    row.Nested(Holders(credential.holders)).Text(credential.fileName).Text(StateText(credential.state));
    const bool retrying = credential.state == CredentialStatus::State::Retrying;
    if (retrying)
        row.Int(credential.lastResult);
    else
        row.Empty();
    row.Int(static_cast<LONG>(credential.attempts)).Date(retrying ? credential.nextAttempt : 0);
    row.Date(credential.state == CredentialStatus::State::OnExpiryWindow ? credential.holdersEndAt : 0);
    row.Date(credential.state == CredentialStatus::State::CheckingIn ? credential.checkingInSince : 0);
    return row;
}

}  // namespace

void ToVariant(const StatusSnapshot& snapshot, const ServiceFacts& facts, VARIANT* out) {
    Row rows(static_cast<ULONG>(snapshot.credentials.size() + 1));
    rows.Nested(ServiceRow(snapshot.service, facts));
    for (const CredentialStatus& credential : snapshot.credentials) rows.Nested(CredentialRow(credential));
    rows.Into(*out);
}

}  // namespace NS_Status
