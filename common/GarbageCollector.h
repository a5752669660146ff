#pragma once
// One worker thread that runs queued work items one at a time, in the order queued. Releases of
// credentials and frees of finished waits go here, so that they never run on the thread that
// dropped the last reference, which may hold the monitor lock.
//
// The worker is a single-threaded apartment (the agent's objects are made and called there), and
// every wait of it pumps what COM needs, so that a call it makes out of its apartment can be
// answered and broadcasts to its apartment's window are not held up. An item that runs out of
// memory is logged and run again after a pause; the worker goes on.
//
// Threads: Queue, Broken and Start from any thread, the worker included (Start and Stop are
// serialised by the start/stop lock). Stop from the owner's thread; from the worker it only marks
// the end, since the worker cannot wait for itself. SetWorkerExitHook before the first Start.
// QueueAfter, WaitUnlessStopping and PauseUnlessWork from the worker, inside an item: checked.

#include "common/ConcurrentQueue.h"
#include "common/CriticalSection.h"
#include "common/ThreadRule.h"
#include "common/WinHandles.h"

#include <atomic>
#include <functional>
#include <map>

namespace NS_Utils {

class CGarbageCollector {
public:
    using WorkItem = std::function<void()>;

    CGarbageCollector() = default;
    CGarbageCollector(const CGarbageCollector&) = delete;
    CGarbageCollector& operator=(const CGarbageCollector&) = delete;
    virtual ~CGarbageCollector();

    // Run by the worker as it leaves its loop, when stopped or after a failed wait: what lives in
    // the worker's apartment is let go there. Set before the first Start (checked).
    void SetWorkerExitHook(WorkItem hook);

    // Starts the worker unless it runs; false, logged, when its events or its thread could not
    // be made.
    [[nodiscard]] bool Start();
    // Ends the worker: it gets 500 ms to finish its current item, then it is ended by force.
    // Items still queued are not run; they are destroyed with the collector. False when the
    // worker was ended by force: whatever lock it held (the registry's, the log's, the heap's)
    // may stay taken for good, so the caller must take none and end the process.
    [[nodiscard]] bool Stop();
    // No check-in can happen: the worker could not be started or ended without being stopped.
    bool Broken() const { return m_broken.load(); }

    // Any thread, including the worker itself.
    void Queue(WorkItem item);
    // Worker only, inside an item: `item` is queued once `milliseconds` have passed, without the
    // worker waiting for it meanwhile. Dropped, as queued items are, when the collector stops.
    void QueueAfter(DWORD milliseconds, WorkItem item);
    // An item's pause that Stop cuts short, so that a long wait between retries never holds up
    // the end of the service. False when the collector is stopping.
    bool WaitUnlessStopping(DWORD milliseconds) const;
    enum class Pause { Elapsed, Work, Stopping };
    // Worker only, inside an item: a pause that also ends when another item is queued (it runs
    // once this item returns) or the collector stops.
    Pause PauseUnlessWork(DWORD milliseconds);
    size_t QueuedCount() const { return m_queue.Count(); }
    bool IsWorkerThread() const { return m_workerRule.IsCurrentThread(); }
    // Bound to the worker while it runs: the rule of whatever must run there.
    const ThreadRule& WorkerRule() const noexcept { return m_workerRule; }

private:
    static DWORD WINAPI WorkerEntry(void* self);
    void WorkerLoop();
    void RunFront();
    // Queues the delayed items that are due; the milliseconds until the next one (INFINITE: none).
    DWORD QueueDueItems();
    void RunAgainLater(const WorkItem& item) noexcept;

    CriticalSection m_startStopLock;
    UniqueHandle m_worker;
    std::atomic<LONG> m_running{0};
    ThreadRule m_workerRule;
    std::atomic<bool> m_broken{false};
    CConcurrentQueue<WorkItem> m_queue;
    std::multimap<ULONGLONG, WorkItem> m_delayed;  // by the tick count they are due at; worker only
    WorkItem m_exitHook;
};

}  // namespace NS_Utils
