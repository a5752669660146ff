#pragma once
// A CRITICAL_SECTION with its lifetime tied to the owner, and a guard that leaves it on every path.
// The lock records its owner as it is entered and left, so that rules that say a call is made
// with it held, or never with it held, can be checked.
//
// Threads: any; the owner record is written only by the thread inside.

#include "common/FailFast.h"

#include <windows.h>

#include <atomic>

namespace NS_Utils {

class CriticalSection {
public:
    CriticalSection() noexcept { ::InitializeCriticalSection(&m_cs); }
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;
    ~CriticalSection() { ::DeleteCriticalSection(&m_cs); }

    void Enter() noexcept {
        ::EnterCriticalSection(&m_cs);
        if (m_depth++ == 0) m_owner.store(::GetCurrentThreadId());
    }
    void Leave() noexcept {
        if (--m_depth == 0) m_owner.store(0);
        ::LeaveCriticalSection(&m_cs);
    }
    bool HeldByThisThread() const noexcept { return m_owner.load() == ::GetCurrentThreadId(); }

    // End the process, naming `rule`, unless (or when) the calling thread is inside.
    void CheckHeld(const wchar_t* rule, const std::source_location& where = std::source_location::current()) const {
        FailFastUnless(HeldByThisThread(), rule, where);
    }
    void CheckNotHeld(const wchar_t* rule, const std::source_location& where = std::source_location::current()) const {
        FailFastUnless(!HeldByThisThread(), rule, where);
    }

private:
    CRITICAL_SECTION m_cs;
    std::atomic<DWORD> m_owner{0};
    unsigned m_depth = 0;  // the owner's own entries
};

class CritSecGuard {
public:
    explicit CritSecGuard(CriticalSection& cs) noexcept : m_cs(cs) { m_cs.Enter(); }
    CritSecGuard(const CritSecGuard&) = delete;
    CritSecGuard& operator=(const CritSecGuard&) = delete;
    ~CritSecGuard() { m_cs.Leave(); }

private:
    CriticalSection& m_cs;
};

}  // namespace NS_Utils
