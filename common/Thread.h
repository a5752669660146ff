#pragma once
// A thread that runs one virtual function of its owner. The owner joins it before the owner's
// own destructor ends, since the function belongs to the derived object.
//
// Threads: Start, Join and Terminate from the owner's thread; Rule from any thread, the new one
// included from its first instruction (it binds the rule itself before anything else).

#include "common/ThreadRule.h"
#include "common/WinHandles.h"

namespace NS_THREAD_UTILS {

// The stacks the service's own threads reserve. Windows commits a stack's pages as they are first
// touched, but Wine commits the whole reservation at the start, so there each thread's
// reservation is private memory (the default, 1 MB a thread, was most of the service's). Each is
// the deepest use measured in the tests, the soak and the crash sweep, times four at least, and
// the guard below ends the process when a thread used more than half of its own.
inline constexpr unsigned kPollerStackBytes = 128 * 1024;  // the lease poller: file names, log lines
inline constexpr unsigned kWorkerStackBytes = 256 * 1024;  // the check-in worker: COM calls to the agent
// The lease window's thread: user32 and GDI, and the hooks other programs (accessibility tools,
// input methods) run on it, which no measurement here sees: the most generous.
inline constexpr unsigned kWindowStackBytes = 512 * 1024;
inline constexpr unsigned kLastWordsStackBytes = 64 * 1024;  // one log line at a forced stop

// Starts proc(arg) on a thread of `reservation` bytes of stack. When proc returns, the thread's
// deepest stack use is logged (level 3) and checked: more than half the reservation ends the
// process (NS_Utils::FailFast), so that a tighter reservation than the work needs shows in every
// test run instead of as a stack overflow on a desktop. An empty handle when the thread could not
// be started. The writer of the last words at a forced stop does not use it: it must not take
// the heap's lock, which a thread ended by force may have held.
NS_Utils::UniqueHandle StartThread(unsigned reservation, unsigned(__stdcall* proc)(void*), void* arg,
                                   unsigned* id = nullptr);
NS_Utils::UniqueHandle StartThread(unsigned reservation, DWORD(WINAPI* proc)(void*), void* arg);
// The deepest the calling thread's stack has reached so far, in bytes; 0 when it cannot be read.
size_t DeepestStackUse() noexcept;

class CThread {
public:
    CThread() = default;
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;
    virtual ~CThread() = default;

    // Starts ThreadMain(args) on a new thread of `reservation` bytes of stack (guarded as
    // StartThread's); false when a thread was already started or could not be created.
    bool Start(void* args, unsigned reservation = kPollerStackBytes);
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
