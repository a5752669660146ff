#include "sharedid/SharedId.h"

#include <algorithm>
#include <sstream>

CSharedId::CSharedId(const std::wstring& corvinAuthSvcUrl, const std::wstring& corvinAuthSrvId,
                     const std::wstring& auxText1, const std::wstring& authSvcId, const std::wstring& sharedId,
                     const std::wstring& auxText2, const std::wstring& roleId, const std::wstring& auxText4,
                     const std::wstring& leaseDN, const std::wstring& leaseExpiry, bool flag,
                     const std::wstring& auxText3, const std::wstring& auxText6)
    : m_flag(flag),
      m_corvinAuthSvcUrl(corvinAuthSvcUrl),
      m_corvinAuthSrvId(corvinAuthSrvId),
      m_auxText1(auxText1),
      m_authSvcId(authSvcId),
      m_sharedId(sharedId),
      m_auxText2(auxText2),
      m_roleId(roleId),
      m_leaseDN(leaseDN),
      m_auxText3(auxText3),
      m_leaseExpiry(leaseExpiry),
      m_auxText4(auxText4),
      m_auxText6(auxText6) {}

CSharedId::CSharedId(const CSharedId& other)
    : m_flag(other.m_flag),
      m_corvinAuthSvcUrl(other.m_corvinAuthSvcUrl),
      m_corvinAuthSrvId(other.m_corvinAuthSrvId),
      m_auxText1(other.m_auxText1),
      m_authSvcId(other.m_authSvcId),
      m_sharedId(other.m_sharedId),
      m_auxText2(other.m_auxText2),
      m_roleId(other.m_roleId),
      m_leaseDN(other.m_leaseDN),
      m_auxText3(other.m_auxText3),
      m_leaseExpiry(other.m_leaseExpiry),
      m_enterpriseId(other.m_enterpriseId),
      m_auxText4(other.m_auxText4),
      m_auxText5(other.m_auxText5),
      m_holderPids(other.m_holderPids),
      m_listeners(other.m_listeners),
      m_auxText6(other.m_auxText6),
      m_fileName(other.m_fileName) {}

CSharedId CSharedId::SignatureKey(const std::wstring& corvinAuthSvcUrl, const std::wstring& authSvcId,
                                  const std::wstring& roleId) {
    CSharedId key;
    key.m_corvinAuthSvcUrl = corvinAuthSvcUrl;
    key.m_authSvcId = authSvcId;
    key.m_roleId = roleId;
    return key;
}

bool CSharedId::IsComplete() const {
    return !m_corvinAuthSvcUrl.empty() && !m_corvinAuthSrvId.empty() && !m_authSvcId.empty() && !m_sharedId.empty() &&
           !m_roleId.empty() && !m_leaseDN.empty();
}

bool CSharedId::HasSignature() const {
    return !m_authSvcId.empty() && !m_roleId.empty() && !m_corvinAuthSvcUrl.empty();
}

std::wstring CSharedId::GetSignature() const {
    if (!HasSignature()) return {};
    return m_authSvcId + L":" + m_roleId + L":" + m_corvinAuthSvcUrl;
}

std::wstring CSharedId::Dump() const {
    std::wostringstream out;
    out << L"\n" << L"Creds Object Content: " << L"\n";
    out << L"Corvin Auth Svc Url = " << m_corvinAuthSvcUrl << L"," << L"\n";
    out << L"Corvin Auth Srv ID = " << m_corvinAuthSrvId << L"," << L"\n";
    out << L"Auth Svc ID = " << m_authSvcId << L"," << L"\n";
    out << L"Shared ID = " << m_sharedId << L"," << L"\n";
    out << L"Role ID = " << m_roleId << L"," << L"\n";
    out << L"LeaseDN = " << m_leaseDN << L"," << L"\n";
    out << L"Filename = " << m_fileName << L"\n";
    return out.str();
}

void CSharedId::AddHolderPid(DWORD pid) {
    if (std::find(m_holderPids.begin(), m_holderPids.end(), pid) == m_holderPids.end()) m_holderPids.push_back(pid);
}

void CSharedId::RemoveHolderPid(DWORD pid) {
    auto found = std::find(m_holderPids.begin(), m_holderPids.end(), pid);
    if (found != m_holderPids.end()) m_holderPids.erase(found);
}
