#pragma once
// The object's entry in the running object table, under its moniker: how clients find the one
// instance. The entry keeps the object alive, so it is revoked in the shutdown sequence; the
// destructor only covers paths that never get there.
//
// Windows lets a server publish for any client (ROTFLAGS_ALLOWANYCLIENT) only when the AppID of
// its executable carries "ROTFlags" 1 under HKEY_LOCAL_MACHINE, and otherwise answers
// CO_E_WRONG_SERVER_IDENTITY. Wine ignores the flag. With the environment variable
// "TARROW_ROT_CHECKS_APPID" set to 1, the entry makes that check itself before it registers, so
// that the tests see what a desktop sees.
//
// Threads: the main thread.

#include "common/ComHandles.h"

#include <objbase.h>

#include <utility>

class CRunningObjectEntry {
public:
    CRunningObjectEntry() = default;
    CRunningObjectEntry(const CRunningObjectEntry&) = delete;
    CRunningObjectEntry& operator=(const CRunningObjectEntry&) = delete;
    ~CRunningObjectEntry() { (void)Revoke(); }

    // S_FALSE when the object is already registered.
    [[nodiscard]] HRESULT Register(const NS_Utils::ComPtr<IRunningObjectTable>& table, DWORD flags, IUnknown* object,
                                   IMoniker* moniker);
    bool Registered() const noexcept { return m_cookie != 0; }
    // Whether the entry was made for clients of every account, not only of this one.
    bool AnyClient() const noexcept { return m_anyClient; }
    // S_FALSE when there is no entry.
    HRESULT Revoke() {
        const DWORD cookie = std::exchange(m_cookie, 0);
        NS_Utils::ComPtr<IRunningObjectTable> table = std::move(m_table);
        return cookie != 0 && table ? table->Revoke(cookie) : S_FALSE;
    }

    // What Windows checks before it grants ROTFLAGS_ALLOWANYCLIENT: the executable's name under
    // HKLM\Software\Classes\AppID names an AppID whose "ROTFlags" has bit 1.
    static bool MachineAllowsAnyClient();

private:
    NS_Utils::ComPtr<IRunningObjectTable> m_table;
    DWORD m_cookie = 0;
    bool m_anyClient = false;
};
