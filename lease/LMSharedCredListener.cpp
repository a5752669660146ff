#include "lease/LMSharedCredListener.h"

#include "common/Log.h"
#include "lease/LeaseMonitor.h"

LMSharedCredListener::LMSharedCredListener(const std::weak_ptr<CSharedId>& credential,
                                           const std::weak_ptr<CLeaseMonitor>& monitor)
    : m_credential(credential), m_monitor(monitor) {}

void LMSharedCredListener::OnUserAdded(DWORD processId) {
    std::shared_ptr<CLeaseMonitor> monitor = m_monitor.lock();
    if (!monitor) {
        NS_Log::Log(1, L"[LMSharedCredListener::OnUserAdded]/tCannot get pointer to LeaseMonitor.");
        return;
    }
    monitor->OnProcListChanged_ForSharedCredOnNotice(processId, m_credential);
}

void LMSharedCredListener::OnUserRemoved(DWORD processId) {
    std::shared_ptr<CLeaseMonitor> monitor = m_monitor.lock();
    if (!monitor) {
        NS_Log::Log(1, L"[LMSharedCredListener::OnUserRemoved]/tCannot get pointer to LeaseMonitor.");
        return;
    }
    monitor->RemoveProcessInfo(processId, m_credential);
}
