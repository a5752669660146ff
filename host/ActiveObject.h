#pragma once
// The object's entry as the active object of its class: what scripts reach by ProgID
// (VBScript's GetObject(, "Tarrow.Tarrow"), PowerShell's GetActiveObject), since they cannot walk
// the running object table. Weak: the entry never keeps the object alive.
//
// Threads: the main thread.

#include <objbase.h>
#include <oleauto.h>

#include <utility>

class CActiveObject {
public:
    CActiveObject() = default;
    CActiveObject(const CActiveObject&) = delete;
    CActiveObject& operator=(const CActiveObject&) = delete;
    ~CActiveObject() { Revoke(); }

    // S_FALSE when the object is already registered.
    [[nodiscard]] HRESULT Register(IUnknown* object, REFCLSID clsid) {
        if (m_cookie != 0) return S_FALSE;
        return ::RegisterActiveObject(object, clsid, ACTIVEOBJECT_WEAK, &m_cookie);
    }
    bool Registered() const noexcept { return m_cookie != 0; }
    HRESULT Revoke() {
        const DWORD cookie = std::exchange(m_cookie, 0);
        return cookie != 0 ? ::RevokeActiveObject(cookie, nullptr) : S_FALSE;
    }

private:
    DWORD m_cookie = 0;
};
