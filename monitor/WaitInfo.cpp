#include "monitor/WaitInfo.h"

#include "common/Log.h"
#include "monitor/SharedIdMonitor.h"
#include "sharedid/HolderList.h"

WaitInfo::WaitInfo(std::weak_ptr<SharedIdMonitor> monitor, DWORD pid, NS_Utils::UniqueHandle process)
    : m_monitor(std::move(monitor)),
      m_pid(pid),
      m_process(std::move(process)),
      m_created(NS_SHAREDID_UTILS::ProcessCreationTime(m_process.get())) {}

bool WaitInfo::Register(const std::shared_ptr<WaitInfo>& self, WAITORTIMERCALLBACK callback) {
    m_context = std::make_unique<std::shared_ptr<WaitInfo>>(self);
    if (!::RegisterWaitForSingleObject(m_wait.put(), m_process.get(), callback, m_context.get(), INFINITE,
                                       WT_EXECUTEONLYONCE)) {
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
    std::shared_ptr<SharedIdMonitor> monitor = m_monitor.lock();
    if (!monitor) {
        NS_Log::Log(2, L"WaitInfo::OnWaitDone\t Unable to get the shared_ptr for SharedIdMonitor.");
        return;
    }
    if (timedOut) {
        NS_Log::Log(2, L"WaitInfo::OnWaitDone\t Wait timeout.");
        return;
    }
    monitor->OnProcessExit(&m_pid);
}

bool WaitInfo::EnsureCancelEvent() {
    if (!m_hWaitCancel) m_hWaitCancel.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    return m_hWaitCancel.valid();
}

void WaitInfo::ReleaseContext() {
    // Moved out first: the context may be what keeps this object alive for the caller.
    std::unique_ptr<std::shared_ptr<WaitInfo>> context = std::move(m_context);
}

void WaitInfo::TerminateWait() {
    LONG expected = 0;
    if (!m_terminating.compare_exchange_strong(expected, 1)) {
        NS_Log::Log(3, L"WaitInfo::TerminateWait\t There is already other thread trying to terminate the wait.");
        return;
    }
    if (!EnsureCancelEvent()) {
        NS_Log::Log(1, L"WaitInfo::TerminateWait\t Unable to create m_hWaitCancel.");
        return;
    }
    // Ended by this call whatever it answers: the cancel event tells when no callback runs.
    if (::UnregisterWaitEx(m_wait.release(), m_hWaitCancel.get())) {
        NS_Log::Log(4, L"WaitInfo::TerminateWait\t Deleting WaitInfo.");
        ReleaseContext();
        return;
    }
    DWORD error = ::GetLastError();
    if (error == ERROR_IO_PENDING) {
        NS_Log::Log(4, L"WaitInfo::TerminateWait\t GLE is ERROR_IO_PENDING, object is being queued for GC.");
        RegisterToGC();
        return;
    }
    NS_Log::Log(1, L"WaitInfo::TerminateWait\t Error while trying to register the WaitCancel. Error code = " +
                       std::to_wstring(error));
}

void WaitInfo::RegisterToGC() {
    if (!m_context || !QueueFree(*m_context))
        NS_Log::Log(2, L"WaitInfo::RegisterToGC\t Unable to get the shared_ptr for SharedIdMonitor.");
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
    DWORD result = ::WaitForSingleObject(waitInfo->CancelEvent(), 100);
    if (result == WAIT_OBJECT_0) {
        NS_Log::Log(4, L"FreeWaitInfo\t Deleting WaitInfo shared_ptr.");
        waitInfo->ReleaseContext();
        return;
    }
    if (result == WAIT_TIMEOUT) {
        NS_Log::Log(4, L"FreeWaitInfo\t Trying to re-register FreeWaitInfo object.");
        // False only once the monitor is gone: the service is ending, and the wait with it.
        (void)WaitInfo::QueueFree(waitInfo);
        return;
    }
    NS_Log::Log(1, L"FreeWaitInfo\t Wait failed, not going to GC the object. nRet = " + std::to_wstring(result) +
                       L", Last Error = " + std::to_wstring(::GetLastError()));
}
