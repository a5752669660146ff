#include "host/CallerSecurity.h"

#include "common/Log.h"
#include "common/WinHandles.h"
#include "host/TarrowModule.h"

#include <objbase.h>

namespace {
HRESULT LastError() { return HRESULT_FROM_WIN32(::GetLastError()); }

bool ReadTokenUser(std::vector<BYTE>& out) {
    NS_Utils::UniqueHandle token;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put())) return false;
    DWORD size = 0;
    ::GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size);
    out.resize(size);
    return size != 0 && ::GetTokenInformation(token.get(), TokenUser, out.data(), size, &size);
}
}  // namespace

HRESULT CCallerSecurity::Build() {
    if (!ReadTokenUser(m_tokenUser)) return LastError();
    PSID user = reinterpret_cast<TOKEN_USER*>(m_tokenUser.data())->User.Sid;

    DWORD systemSize = SECURITY_MAX_SID_SIZE;
    m_systemSid.resize(systemSize);
    if (!::CreateWellKnownSid(WinLocalSystemSid, nullptr, m_systemSid.data(), &systemSize)) return LastError();
    PSID system = m_systemSid.data();

    DWORD aclSize = sizeof(ACL) + 2 * (sizeof(ACCESS_ALLOWED_ACE) - sizeof(DWORD)) + ::GetLengthSid(user) +
                    ::GetLengthSid(system);
    m_acl.assign(aclSize, 0);
    auto* acl = reinterpret_cast<PACL>(m_acl.data());
    if (!::InitializeAcl(acl, aclSize, ACL_REVISION) || !::AddAccessAllowedAce(acl, ACL_REVISION, kCallRights, user) ||
        !::AddAccessAllowedAce(acl, ACL_REVISION, kCallRights, system))
        return LastError();

    // COM refuses a descriptor without owner and group.
    if (!::InitializeSecurityDescriptor(&m_descriptor, SECURITY_DESCRIPTOR_REVISION) ||
        !::SetSecurityDescriptorOwner(&m_descriptor, user, FALSE) ||
        !::SetSecurityDescriptorGroup(&m_descriptor, user, FALSE) ||
        !::SetSecurityDescriptorDacl(&m_descriptor, TRUE, acl, FALSE))
        return LastError();
    return S_OK;
}

HRESULT CCallerSecurity::Apply() {
    // Only on the main thread is this known to come before the object is published.
    CTarrowModule::Instance().MainThread().Check(L"[CCallerSecurity::Apply]\t called off the main thread");
    HRESULT hr = Build();
    if (SUCCEEDED(hr))
        hr = ::CoInitializeSecurity(Descriptor(), -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_PKT_PRIVACY,
                                    RPC_C_IMP_LEVEL_IDENTIFY, nullptr, EOAC_NONE, nullptr);
    if (FAILED(hr))
        NS_Log::Log(1, L"[CCallerSecurity::Apply]\t Call security could not be set - HRESULT = 0x" +
                           NS_Log::Hex(static_cast<unsigned long>(hr)));
    return hr;
}
