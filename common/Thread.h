#pragma once
// A thread that runs one virtual function of its owner. The owner joins it before the owner's
// own destructor ends, since the function belongs to the derived object.
//
// Threads: Start, Join and Terminate from the owner's thread; Rule from any thread, the new one
// included from its first instruction (it binds the rule itself before anything else).

#include "common/ThreadRule.h"
#include "common/WinHandles.h"

namespace NS_THREAD_UTILS {

class CThread {
public:
    CThread() = default;
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;
    virtual ~CThread() = default;

    // Starts ThreadMain(args) on a new thread; false when a thread was already started or
    // could not be created.
    bool Start(void* args);
    // WAIT_OBJECT_0 once the thread has ended (or when none was started), WAIT_TIMEOUT otherwise.
    DWORD Join(DWORD timeoutMs) const;
    bool Terminate(DWORD exitCode);
    // Bound to the new thread while it runs.
    const NS_Utils::ThreadRule& Rule() const noexcept { return m_rule; }

protected:
    virtual unsigned ThreadMain(void* args) = 0;

private:
    static unsigned __stdcall Entry(void* context);

    NS_Utils::UniqueHandle m_thread;
    NS_Utils::ThreadRule m_rule;
};

}  // namespace NS_THREAD_UTILS
