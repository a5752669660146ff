#pragma once
// Who may call into the service. The object is published in the running object table for any
// client, and a record it returns carries a memory-only text: so every call is checked against
// a descriptor that lets only the user the service runs as, and SYSTEM, in, and only locally.

#include <windows.h>

#include <vector>

class CCallerSecurity {
public:
    // Main thread, after COM is initialised and before the object is published.
    // S_OK, or the HRESULT of the step that failed.
    [[nodiscard]] HRESULT Build();
    [[nodiscard]] HRESULT Apply();

    // The descriptor in absolute form, as COM wants it; valid after a successful Build.
    PSECURITY_DESCRIPTOR Descriptor() { return &m_descriptor; }

    static constexpr DWORD kCallRights = COM_RIGHTS_EXECUTE | COM_RIGHTS_EXECUTE_LOCAL;

private:
    std::vector<BYTE> m_tokenUser;  // TOKEN_USER: the user's SID lives inside
    std::vector<BYTE> m_systemSid;
    std::vector<BYTE> m_acl;
    SECURITY_DESCRIPTOR m_descriptor{};
};
