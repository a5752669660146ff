#pragma once
// The object's entry in the running object table, under its moniker: how clients find the one
// instance. The entry keeps the object alive, so it is revoked in the shutdown sequence; the
// destructor only covers paths that never get there.
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
                                   IMoniker* moniker) {
        if (m_cookie != 0) return S_FALSE;
        const HRESULT hr = table->Register(flags, object, moniker, &m_cookie);
        if (FAILED(hr))
            m_cookie = 0;
        else
            m_table = table;
        return hr;
    }
    bool Registered() const noexcept { return m_cookie != 0; }
    // S_FALSE when there is no entry.
    HRESULT Revoke() {
        const DWORD cookie = std::exchange(m_cookie, 0);
        NS_Utils::ComPtr<IRunningObjectTable> table = std::move(m_table);
        return cookie != 0 && table ? table->Revoke(cookie) : S_FALSE;
    }

private:
    NS_Utils::ComPtr<IRunningObjectTable> m_table;
    DWORD m_cookie = 0;
};
