#pragma once
// A one-shot thread-pool wait on a holder process. It owns the process handle, which is closed
// with the WaitInfo, and that happens only once the pool has said, by the cancel event, that it
// can no longer run the callback: until then the callback's context keeps it alive.
//
// Threads: made by the registry under its lock (on the COM thread, or where files are taken up:
// the owner's thread at start, the worker when the agent is back);
// OnWaitDone on a thread-pool thread; TerminateWait under the registry lock on whichever thread
// erases the process's entry (only the first call ends the wait); the free on the collector's
// worker.

#include "common/HolderProcessHandle.h"
#include "common/WaitRegistration.h"
#include "common/WinHandles.h"

#include <atomic>
#include <memory>

class SharedIdMonitor;

class WaitInfo {
public:
    WaitInfo(std::weak_ptr<SharedIdMonitor> monitor, DWORD pid, NS_Utils::HolderProcessHandle process);
    WaitInfo(const WaitInfo&) = delete;
    WaitInfo& operator=(const WaitInfo&) = delete;
    // Checks that a wait once ended was freed only after the pool's signal.
    ~WaitInfo();

    // Registers the wait with a strong reference to `self` as the callback's context.
    [[nodiscard]] bool Register(const std::shared_ptr<WaitInfo>& self, WAITORTIMERCALLBACK callback);

    // The process exited: its entry is erased. Out of memory, it is tried again after a pause, so
    // that the pool thread never ends with an exception and the exit is not lost.
    void OnWaitDone(bool timedOut);
    // Ends the wait without blocking and hands this object to the collector, which frees it once
    // the cancel event is signalled. Only the first call ends the wait; a later one only queues
    // the free again if allocation failure kept the first from queueing it.
    void TerminateWait();
    void RegisterToGC();
    // Queues FreeWaitInfo for `self` on its monitor's collector; false when the monitor is gone.
    [[nodiscard]] static bool QueueFree(const std::shared_ptr<WaitInfo>& self);
    // The event the pool signals once no callback of this wait runs or can run; made on first use.
    [[nodiscard]] bool EnsureCancelEvent();
    HANDLE CancelEvent() const { return m_hWaitCancel.get(); }
    // The pool has signalled the cancel event: the callback's context is dropped, and with it,
    // unless a caller holds another reference, this object.
    void OnCallbacksDone();

    DWORD Pid() const { return m_pid; }
    HANDLE Process() const { return m_process.Handle(); }
    // Whether the process may be ended (an elevated holder or one of another account may not).
    bool CanEnd() const { return m_process.CanEnd(); }
    // Asked once: the holder list names the process by it at every rewrite.
    ULONGLONG Created() const { return m_created; }

private:
    void ReleaseContext();

    std::weak_ptr<SharedIdMonitor> m_monitor;
    DWORD m_pid;
    NS_Utils::HolderProcessHandle m_process;
    ULONGLONG m_created;
    NS_Utils::WaitRegistration m_wait;
    std::atomic<LONG> m_terminating{0};
    std::atomic<bool> m_unregistered{false};
    std::atomic<bool> m_freeQueued{false};
    std::atomic<bool> m_callbacksDone{false};
    NS_Utils::UniqueHandle m_hWaitCancel;
    std::unique_ptr<std::shared_ptr<WaitInfo>> m_context;
};

// The collector's work item: frees the WaitInfo once its cancel event is signalled, and queues
// itself again until then.
void FreeWaitInfo(const std::shared_ptr<WaitInfo>& waitInfo);
