#include "checkin/CheckInRow.h"

namespace NS_CheckInRow {

namespace {
constexpr VARTYPE kVariantArray = VT_ARRAY | VT_VARIANT;

NS_Utils::UniqueSafeArray MakeVariantVector(ULONG count) {
    NS_Utils::UniqueSafeArray array(::SafeArrayCreateVector(VT_VARIANT, 0, count));
    if (!array.get()) throw NS_Utils::BstrAllocError();
    return array;
}

// The row as a VARIANT array of BSTRs, owned by the caller once returned.
NS_Utils::UniqueSafeArray MakeRowArray(const CSharedId& credential, const std::wstring& enterpriseId) {
    const std::array<std::wstring, 5> row = MakeRow(credential, enterpriseId);
    NS_Utils::UniqueSafeArray array = MakeVariantVector(static_cast<ULONG>(row.size()));
    NS_Utils::SafeArrayLock lock(array.get());
    VARIANT* cells = lock.Data<VARIANT>();
    for (size_t i = 0; i < row.size(); ++i) {
        cells[i].bstrVal = NS_Utils::AllocBstr(row[i]).release();
        cells[i].vt = VT_BSTR;
    }
    return array;
}

SAFEARRAY* ResultArray(const VARIANT& output) {
    if ((output.vt & ~VT_BYREF) != kVariantArray) return nullptr;
    if (output.vt & VT_BYREF) return output.pparray ? *output.pparray : nullptr;
    return output.parray;
}
}  // namespace

std::wstring MakeRowKey(const CSharedId& credential) {
    return L";" + credential.GetAuthSvcId() + L";" + (credential.GetFlag() ? credential.GetAuxText4() : L"") + L";" +
           credential.GetSharedId() + L";" + credential.GetAuxText3() + L";{ERROR_CODE};;" + credential.GetLeaseDN();
}

std::array<std::wstring, 5> MakeRow(const CSharedId& credential, const std::wstring& enterpriseId) {
    const std::wstring& identity = credential.GetEnterpriseId().empty() ? enterpriseId : credential.GetEnterpriseId();
    return {credential.GetLeaseDN(), credential.GetAuxText1(), MakeRowKey(credential), identity,
            credential.GetLeaseExpiry()};
}

void MakeInput(std::span<const CSharedId* const> credentials, const std::wstring& enterpriseId,
               NS_Utils::UniqueVariant& input) {
    NS_Utils::UniqueSafeArray rows = MakeVariantVector(static_cast<ULONG>(credentials.size()));
    {
        NS_Utils::SafeArrayLock lock(rows.get());
        VARIANT* cells = lock.Data<VARIANT>();
        for (size_t i = 0; i < credentials.size(); ++i) {
            cells[i].parray = MakeRowArray(*credentials[i], enterpriseId).release();
            cells[i].vt = kVariantArray;
        }
    }
    VARIANT* target = input.put();
    target->parray = rows.release();
    target->vt = kVariantArray;
}

std::vector<LONG> ReadResults(const VARIANT& output, size_t most) {
    SAFEARRAY* array = ResultArray(output);
    LONG lower = 0;
    LONG upper = -1;
    if (!array || ::SafeArrayGetDim(array) != 1 || FAILED(::SafeArrayGetLBound(array, 1, &lower)) ||
        FAILED(::SafeArrayGetUBound(array, 1, &upper)))
        return {};
    // In 64 bits: an upper bound of LONG_MAX would never end a 32-bit count.
    const long long count = static_cast<long long>(upper) - lower + 1;
    if (count <= 0 || static_cast<unsigned long long>(count) > most) return {};
    std::vector<LONG> results;
    for (long long at = lower; at <= upper; ++at) {
        LONG i = static_cast<LONG>(at);
        NS_Utils::UniqueVariant element;
        if (FAILED(::SafeArrayGetElement(array, &i, element.put())) ||
            FAILED(::VariantChangeType(element.get(), element.get(), 0, VT_I4)))
            return {};
        results.push_back(element.get()->lVal);
    }
    return results;
}

}  // namespace NS_CheckInRow
