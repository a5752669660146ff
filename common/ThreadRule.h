#pragma once
// Which thread may make a class's calls: bound once to one thread, then checked, with the rule's
// name, on every call that the rule covers. A thread of the class's own binds itself first thing,
// so its own checks never read the rule unbound, and its creator binds it to the same thread as
// soon as it knows the id, so that its checks after the start never read it unbound either; the
// owner unbinds it once that thread has ended.
//
// Threads: Bind and Unbind as above; every other member on any thread.

#include "common/FailFast.h"

#include <windows.h>

#include <atomic>

namespace NS_Utils {

class ThreadRule {
public:
    ThreadRule() noexcept = default;
    ThreadRule(const ThreadRule&) = delete;
    ThreadRule& operator=(const ThreadRule&) = delete;

    void BindToCurrentThread() noexcept { m_threadId.store(::GetCurrentThreadId()); }
    void Bind(DWORD threadId) noexcept { m_threadId.store(threadId); }
    void Unbind() noexcept { m_threadId.store(0); }
    bool IsBound() const noexcept { return m_threadId.load() != 0; }
    bool IsCurrentThread() const noexcept { return m_threadId.load() == ::GetCurrentThreadId(); }
    // 0 while unbound: for posting to the thread, never for deciding who may call.
    DWORD ThreadId() const noexcept { return m_threadId.load(); }

    // Ends the process, naming `rule`, unless called on the bound thread.
    void Check(const wchar_t* rule, const std::source_location& where = std::source_location::current()) const {
        FailFastUnless(IsCurrentThread(), rule, where);
    }
    // Ends the process, naming `rule`, when called on the bound thread: for what would wait for
    // that thread, or free what it is running.
    void CheckNot(const wchar_t* rule, const std::source_location& where = std::source_location::current()) const {
        FailFastUnless(!IsCurrentThread(), rule, where);
    }
    // Ends the process, naming `rule`, once the rule is bound: for what must be set before the
    // thread starts.
    void CheckUnbound(const wchar_t* rule, const std::source_location& where = std::source_location::current()) const {
        FailFastUnless(!IsBound(), rule, where);
    }

private:
    std::atomic<DWORD> m_threadId{0};
};

}  // namespace NS_Utils
