#pragma once
// A one-shot thread-pool wait on a holder process. It owns the process handle, which is closed
// with the WaitInfo, and that happens only once the pool can no longer run its callback.
//
// Threads: made by the registry under its lock (on the COM thread, or where files are taken up:
// the owner's thread at start, the worker when the agent is back);
// OnWaitDone on a thread-pool thread; TerminateWait under the registry lock on whichever thread
// erases the process's entry, once (an atomic flag lets only the first through); the free of a
// wait whose callback may still run on the collector's worker.

#include "common/WinHandles.h"

#include <atomic>
#include <memory>

class SharedIdMonitor;

class WaitInfo {
public:
    WaitInfo(std::weak_ptr<SharedIdMonitor> monitor, DWORD pid, NS_Utils::UniqueHandle process);
    WaitInfo(const WaitInfo&) = delete;
    WaitInfo& operator=(const WaitInfo&) = delete;

    // Registers the wait with a strong reference to `self` as the callback's context.
    [[nodiscard]] bool Register(const std::shared_ptr<WaitInfo>& self, WAITORTIMERCALLBACK callback);

    void OnWaitDone(bool timedOut);
    // Ends the wait without blocking; only the first caller does anything.
    void TerminateWait();
    void RegisterToGC();
    // Queues FreeWaitInfo for `self` on its monitor's collector; false when the monitor is gone.
    [[nodiscard]] static bool QueueFree(const std::shared_ptr<WaitInfo>& self);
    // The event the pool signals once no callback of this wait runs any more; made on first use.
    [[nodiscard]] bool EnsureCancelEvent();
    HANDLE CancelEvent() const { return m_hWaitCancel.get(); }
    // Drops the callback's context once the wait can no longer fire.
    void ReleaseContext();

    DWORD Pid() const { return m_pid; }
    HANDLE Process() const { return m_process.get(); }
    // Asked once: the holder list names the process by it at every rewrite.
    ULONGLONG Created() const { return m_created; }

private:
    std::weak_ptr<SharedIdMonitor> m_monitor;
    DWORD m_pid;
    NS_Utils::UniqueHandle m_process;
    ULONGLONG m_created;
    NS_Utils::UniqueWaitRegistration m_wait;
    std::atomic<LONG> m_terminating{0};
    NS_Utils::UniqueHandle m_hWaitCancel;
    std::unique_ptr<std::shared_ptr<WaitInfo>> m_context;
};

// The collector's work item: frees the WaitInfo once its cancel event is signalled, and queues
// itself again until then.
void FreeWaitInfo(const std::shared_ptr<WaitInfo>& waitInfo);
