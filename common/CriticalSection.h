#pragma once
// A CRITICAL_SECTION with its lifetime tied to the owner, and a guard that leaves it on every path.

#include <windows.h>

namespace NS_Utils {

class CriticalSection {
public:
    CriticalSection() noexcept { ::InitializeCriticalSection(&m_cs); }
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;
    ~CriticalSection() { ::DeleteCriticalSection(&m_cs); }

    void Enter() noexcept { ::EnterCriticalSection(&m_cs); }
    void Leave() noexcept { ::LeaveCriticalSection(&m_cs); }
    // Whether the calling thread is inside: for rules that say a call is never made with it held.
    bool HeldByThisThread() const noexcept {
        return m_cs.OwningThread == ULongToHandle(::GetCurrentThreadId()) && m_cs.RecursionCount > 0;
    }

private:
    CRITICAL_SECTION m_cs;
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
