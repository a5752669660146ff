#include "monitor/WaitInfo.h"

#include "common/ComHandles.h"
#include "common/FailFast.h"
#include "common/Log.h"
#include "monitor/SharedIdMonitor.h"
#include "sharedid/HolderList.h"

#include <algorithm>
#include <new>

namespace {
// Out of memory in the exit callback: pauses from the first, doubling up to the longest, for at
// most the given number of tries.
constexpr DWORD kFirstOutOfMemoryPauseMs = 10;
constexpr DWORD kLongestOutOfMemoryPauseMs = 1000;
constexpr int kOutOfMemoryTries = 70;  // about a minute

// A line that may not be written when memory has run out; the caller goes on either way.
void LogUnlessOutOfMemory(unsigned short level, const wchar_t* text, DWORD pid) {
    try {
        NS_Log::Log(level, text + std::to_wstring(pid) + L")");
    } catch (const std::bad_alloc&) {
    }
}
}  // namespace

WaitInfo::WaitInfo(std::weak_ptr<SharedIdMonitor> monitor, DWORD pid, NS_Utils::HolderProcessHandle process)
    : m_monitor(std::move(monitor)),
      m_pid(pid),
      m_process(std::move(process)),
      m_created(NS_SHAREDID_UTILS::ProcessCreationTime(m_process.Handle())) {}

WaitInfo::~WaitInfo() {
    NS_Utils::FailFastUnless(m_terminating.load() == 0 || m_callbacksDone.load(),
                             L"[WaitInfo::~WaitInfo]\t a wait freed before the pool said no callback can run");
}

bool WaitInfo::Register(const std::shared_ptr<WaitInfo>& self, WAITORTIMERCALLBACK callback) {
    m_context = std::make_unique<std::shared_ptr<WaitInfo>>(self);
    if (!m_wait.Register(m_process.Handle(), callback, m_context.get(), INFINITE, WT_EXECUTEONLYONCE)) {
        NS_Log::Log(1,
                    L"SharedIdMonitor::StartWaitForProcess\t Error while trying to register wait for single "
                    L"object. Error code = " +
                        std::to_wstring(::GetLastError()));
        m_context.reset();
        return false;
    }
    return true;
}

void WaitInfo::OnWaitDone(bool timedOut) {
    DWORD pause = kFirstOutOfMemoryPauseMs;
    for (int tries = 1;; ++tries) {
        try {
            std::shared_ptr<SharedIdMonitor> monitor = m_monitor.lock();
            if (!monitor) {
                NS_Log::Log(2, L"WaitInfo::OnWaitDone\t Unable to get the shared_ptr for SharedIdMonitor.");
                return;
            }
            if (timedOut) {
                NS_Log::Log(2, L"WaitInfo::OnWaitDone\t Wait timeout.");
                return;
            }
            // Done again after a failure: an entry already erased is not found, a wait already
            // ended is not ended twice.
            monitor->OnProcessExit(&m_pid);
            return;
        } catch (const std::bad_alloc&) {
            if (tries == kOutOfMemoryTries) {
                // Its credentials stay registered, and their files name it: the next start
                // finds it gone and checks them in.
                LogUnlessOutOfMemory(
                    1, L"WaitInfo::OnWaitDone\t Out of memory: the exit is left for the next start. PID (", m_pid);
                return;
            }
            LogUnlessOutOfMemory(2, L"WaitInfo::OnWaitDone\t Out of memory: the exit is handled again. PID (", m_pid);
        }
        ::Sleep(pause);
        pause = std::min(pause * 2, kLongestOutOfMemoryPauseMs);
    }
}

bool WaitInfo::EnsureCancelEvent() {
    if (!m_hWaitCancel) m_hWaitCancel.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    return m_hWaitCancel.valid();
}

void WaitInfo::ReleaseContext() {
    // Moved out first: the context may be what keeps this object alive for the caller.
    std::unique_ptr<std::shared_ptr<WaitInfo>> context = std::move(m_context);
}

void WaitInfo::OnCallbacksDone() {
    m_callbacksDone.store(true);
    ReleaseContext();
}

void WaitInfo::TerminateWait() {
    LONG expected = 0;
    if (!m_terminating.compare_exchange_strong(expected, 1)) {
        NS_Log::Log(3, L"WaitInfo::TerminateWait\t There is already other thread trying to terminate the wait.");
        if (m_unregistered.load() && !m_freeQueued.load()) RegisterToGC();
        return;
    }
    if (!EnsureCancelEvent()) {
        NS_Log::Log(1, L"WaitInfo::TerminateWait\t Unable to create m_hWaitCancel.");
        return;
    }
    // Ended by this call whatever it answers. Success does not say that no callback is queued:
    // in both cases only the cancel event does, and the collector frees this object once it is set.
    const bool unregistered = m_wait.Unregister(m_hWaitCancel.get());
    const DWORD error = unregistered ? ERROR_SUCCESS : ::GetLastError();
    if (unregistered || error == ERROR_IO_PENDING) {
        m_unregistered.store(true);
        RegisterToGC();
        NS_Log::Log(4, unregistered
                           ? L"WaitInfo::TerminateWait\t Wait unregistered, object is being queued for GC."
                           : L"WaitInfo::TerminateWait\t GLE is ERROR_IO_PENDING, object is being queued for GC.");
        return;
    }
    // Kept for good: whether a callback can still come is unknown.
    NS_Log::Log(1, L"WaitInfo::TerminateWait\t Error while trying to register the WaitCancel. Error code = " +
                       std::to_wstring(error));
}

void WaitInfo::RegisterToGC() {
    // Without a monitor (it is being destroyed) the context keeps this object for good: the pool
    // may still call back, and finds the monitor gone.
    if (!m_context || !QueueFree(*m_context)) {
        NS_Log::Log(2, L"WaitInfo::RegisterToGC\t Unable to get the shared_ptr for SharedIdMonitor.");
        return;
    }
    m_freeQueued.store(true);
}

bool WaitInfo::QueueFree(const std::shared_ptr<WaitInfo>& self) {
    std::shared_ptr<SharedIdMonitor> monitor = self->m_monitor.lock();
    if (!monitor) return false;
    monitor->Collector().Queue([self] { FreeWaitInfo(self); });
    return true;
}

void FreeWaitInfo(const std::shared_ptr<WaitInfo>& waitInfo) {
    if (!waitInfo) {
        NS_Log::Log(1, L"FreeWaitInfo\t Invalid WaitInfo object shared_ptr.");
        return;
    }
    // On the collector's worker, an apartment's thread: the wait lets COM's calls and messages in.
    const HANDLE cancel[] = {waitInfo->CancelEvent()};
    const DWORD result = NS_Utils::WaitInApartment(cancel, 100);
    if (result == WAIT_OBJECT_0) {
        NS_Log::Log(4, L"FreeWaitInfo\t Deleting WaitInfo shared_ptr.");
        waitInfo->OnCallbacksDone();
        return;
    }
    if (result == WAIT_TIMEOUT) {
        NS_Log::Log(4, L"FreeWaitInfo\t Trying to re-register FreeWaitInfo object.");
        // False only once the monitor is gone: the context then keeps the object for good.
        (void)WaitInfo::QueueFree(waitInfo);
        return;
    }
    NS_Log::Log(1, L"FreeWaitInfo\t Wait failed, not going to GC the object. nRet = " + std::to_wstring(result) +
                       L", Last Error = " + std::to_wstring(::GetLastError()));
}
