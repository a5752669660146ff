#pragma once
// A thread-pool wait from RegisterWaitForSingleObject, ended by Unregister with a completion event
// of its owner's. Windows documents that after UnregisterWaitEx with an event a callback may still
// be queued or running, whether the call succeeds or fails with ERROR_IO_PENDING: only the event,
// once signalled, says that none can run any more. The owner keeps the callback's context and the
// event until then. A wait still registered when its owner is destroyed is ended without waiting
// for a callback that runs, which never blocks the destroying thread.
//
// Wine runs a fired callback at once and signals the event on time; tests switch registrations
// made from then on to run each callback late, on another thread, after Unregister has answered
// success, and to signal the completion event only once it has returned.
//
// Threads: Register and Unregister once each, by the owner; Unregister from any thread, the
// callback's own included. The switch is set by a test before the registrations it should affect.

#include <windows.h>

namespace NS_Utils {

class WaitRegistration {
public:
    WaitRegistration() = default;
    WaitRegistration(const WaitRegistration&) = delete;
    WaitRegistration& operator=(const WaitRegistration&) = delete;
    ~WaitRegistration();

    // As RegisterWaitForSingleObject; false with the system's error as the thread's last error.
    [[nodiscard]] bool Register(HANDLE object, WAITORTIMERCALLBACK callback, void* context, ULONG milliseconds,
                                ULONG flags);
    // As UnregisterWaitEx(wait, completion): true, or false with ERROR_IO_PENDING (a callback
    // runs) or another error. The wait is ended by this call whatever it answers; after true or
    // ERROR_IO_PENDING, `completion` is signalled once no callback runs or can run.
    [[nodiscard]] bool Unregister(HANDLE completion);
    bool Registered() const noexcept { return m_wait != nullptr; }

    static void SetLateCallbacksForTesting(bool late) noexcept;
    // Late callbacks that began after their wait's Unregister had answered, so far.
    static unsigned LateCallbacksAfterUnregister() noexcept;

private:
    struct Late;
    HANDLE m_wait = nullptr;
    Late* m_late = nullptr;
};

}  // namespace NS_Utils
