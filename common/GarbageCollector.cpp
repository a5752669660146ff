#include "common/GarbageCollector.h"

#include "common/ComHandles.h"
#include "common/FailFast.h"
#include "common/Log.h"
#include "common/Thread.h"

#include <algorithm>
#include <new>

namespace NS_Utils {

namespace {
constexpr DWORD kStopGraceMs = 500;
constexpr DWORD kOutOfMemoryPauseMs = 1000;
constexpr const wchar_t* kTag = L"[NS_Utils::CGarbageCollector]\t";
}  // namespace

CGarbageCollector::~CGarbageCollector() {
    // An owner that did not stop the worker in order ends the process before it gets here.
    (void)Stop();
}

void CGarbageCollector::SetWorkerExitHook(WorkItem hook) {
    CritSecGuard guard(m_startStopLock);
    FailFastUnless(!m_worker, L"[NS_Utils::CGarbageCollector::SetWorkerExitHook]\t set while the worker runs");
    m_exitHook = std::move(hook);
}

bool CGarbageCollector::Start() {
    CritSecGuard guard(m_startStopLock);
    if (m_worker || m_running.load() != 0) return true;
    if (!m_queue.Valid()) {
        m_broken.store(true);
        NS_Log::Log(1, kTag + std::wstring(L" The work queue's events could not be made; nothing will be checked in."));
        return false;
    }
    m_running.store(1);
    ::ResetEvent(m_queue.StopEvent());
    m_worker = NS_THREAD_UTILS::StartThread(NS_THREAD_UTILS::kWorkerStackBytes, &CGarbageCollector::WorkerEntry, this);
    if (!m_worker) {
        m_running.store(0);
        m_broken.store(true);
        NS_Log::Log(1, kTag + std::wstring(L" The worker could not be started; nothing will be checked in. GLE = ") +
                           std::to_wstring(::GetLastError()));
        return false;
    }
    return true;
}

bool CGarbageCollector::Stop() {
    CritSecGuard guard(m_startStopLock);
    if (!m_worker || m_running.load() != 1) return true;
    m_running.store(0);
    ::SetEvent(m_queue.StopEvent());
    bool orderly = true;
    // The worker cannot wait for itself; it leaves its loop once the current item returns.
    if (!IsWorkerThread() && ::WaitForSingleObject(m_worker.get(), kStopGraceMs) != WAIT_OBJECT_0) {
        ::TerminateThread(m_worker.get(), 0);
        orderly = false;
    }
    m_worker.reset();
    m_workerRule.Unbind();
    return orderly;
}

void CGarbageCollector::Queue(WorkItem item) { m_queue.Push(std::move(item)); }

void CGarbageCollector::QueueAfter(DWORD milliseconds, WorkItem item) {
    m_workerRule.Check(L"[NS_Utils::CGarbageCollector::QueueAfter]\t a delayed item queued off the worker thread");
    m_delayed.emplace(::GetTickCount64() + milliseconds, std::move(item));
}

bool CGarbageCollector::WaitUnlessStopping(DWORD milliseconds) const {
    m_workerRule.Check(L"[NS_Utils::CGarbageCollector::WaitUnlessStopping]\t a pause off the worker thread");
    const HANDLE stop[] = {m_queue.StopEvent()};
    return WaitInApartment(stop, milliseconds) == WAIT_TIMEOUT;
}

CGarbageCollector::Pause CGarbageCollector::PauseUnlessWork(DWORD milliseconds) {
    m_workerRule.Check(L"[NS_Utils::CGarbageCollector::PauseUnlessWork]\t a pause off the worker thread");
    const HANDLE events[] = {m_queue.StopEvent(), m_queue.ItemEvent()};
    switch (WaitInApartment(events, milliseconds)) {
    case WAIT_TIMEOUT: return Pause::Elapsed;
    case WAIT_OBJECT_0 + 1:
        // The wake-up was the worker loop's: it must still see the item.
        ::SetEvent(m_queue.ItemEvent());
        return Pause::Work;
    default: return Pause::Stopping;
    }
}

DWORD WINAPI CGarbageCollector::WorkerEntry(void* self) {
    auto* collector = static_cast<CGarbageCollector*>(self);
    // Left after the exit hook, which lets the apartment's objects go.
    const ComApartment apartment(COINIT_APARTMENTTHREADED);
    // Before the first item, which may check that it runs here.
    collector->m_workerRule.BindToCurrentThread();
    collector->WorkerLoop();
    return 0;
}

void CGarbageCollector::WorkerLoop() {
    const HANDLE events[] = {m_queue.StopEvent(), m_queue.ItemEvent()};
    while (m_running.load() != 0) {
        const DWORD wait = WaitInApartment(events, QueueDueItems());
        if (wait == WAIT_OBJECT_0 + 1)
            RunFront();
        else if (wait == WAIT_FAILED)
            break;
    }
    if (m_running.load() != 0) {
        m_broken.store(true);
        NS_Log::Log(1, kTag +
                           std::wstring(L" The worker ended without being stopped; nothing will be checked in. "
                                        L"GLE = ") +
                           std::to_wstring(::GetLastError()));
    }
    m_delayed.clear();
    if (m_exitHook) m_exitHook();
}

DWORD CGarbageCollector::QueueDueItems() {
    const ULONGLONG now = ::GetTickCount64();
    try {
        while (!m_delayed.empty() && m_delayed.begin()->first <= now) {
            // Copied, not moved: a push that runs out of memory leaves the item where it was.
            m_queue.Push(m_delayed.begin()->second);
            m_delayed.erase(m_delayed.begin());
        }
    } catch (const std::bad_alloc&) {
        return kOutOfMemoryPauseMs;  // the rest are queued at the next look
    }
    if (m_delayed.empty()) return INFINITE;
    return static_cast<DWORD>(std::min<ULONGLONG>(m_delayed.begin()->first - now, INFINITE - 1));
}

void CGarbageCollector::RunFront() {
    std::optional<WorkItem> item = m_queue.TakeFront();
    if (!item) return;
    try {
        (*item)();
    } catch (const std::bad_alloc&) {
        RunAgainLater(*item);
    }
}

void CGarbageCollector::RunAgainLater(const WorkItem& item) noexcept {
    try {
        NS_Log::Log(1, kTag + std::wstring(L" Out of memory in a work item: it is run again after a pause."));
    } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): the item matters more than its line
    }
    // Items own what they work on (a credential on its way back): one dropped here would be lost.
    const HANDLE stop[] = {m_queue.StopEvent()};
    while (WaitInApartment(stop, kOutOfMemoryPauseMs) == WAIT_TIMEOUT) {
        try {
            m_queue.Push(item);
            return;
        } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): tried again after the next pause
        }
    }
}

}  // namespace NS_Utils
