#include "sharedid/ClaimMark.h"

#include <cstdio>
#include <cwctype>

namespace NS_SHAREDID_UTILS {

namespace {
// Paths are longer than a kernel object's name may be: a hash of the path, which the file
// system compares without case.
std::wstring MarkName(const std::wstring& path) {
    unsigned long long hash = 14695981039346656037ull;
    for (wchar_t c : path) {
        hash ^= static_cast<unsigned long long>(std::towlower(c));
        hash *= 1099511628211ull;
    }
    wchar_t hex[17] = {};
    std::swprintf(hex, std::size(hex), L"%016llx", hash);
    return std::wstring(L"Global\\KEL_Tarrow_Claim_") + hex;
}
}  // namespace

NS_Utils::UniqueHandle MarkClaim(const std::wstring& path) {
    return NS_Utils::UniqueHandle(::CreateMutexW(nullptr, FALSE, MarkName(path).c_str()));
}

bool IsClaimMarked(const std::wstring& path) {
    NS_Utils::UniqueHandle mark(::OpenMutexW(SYNCHRONIZE, FALSE, MarkName(path).c_str()));
    // A mark this user may not open is still a mark.
    return mark.valid() || ::GetLastError() == ERROR_ACCESS_DENIED;
}

}  // namespace NS_SHAREDID_UTILS
