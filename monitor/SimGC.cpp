#include "monitor/SimGC.h"

#include "common/Log.h"
#include "monitor/SharedIdMonitor.h"

void SimGC::AcceptVisitor(NS_Utils::IGCVisitor* visitor) {
    if (!visitor) {
        NS_Log::Log(1, L"[SimGC::AcceptVisitor]\t null IGCVisitor object");
        return;
    }
    auto* credential = dynamic_cast<ShrId_GCVisitor*>(visitor);
    if (!credential) {
        NS_Log::Log(1, L"[SimGC::AcceptVisitor]\t dynamic cast to ShrId_GCVisitor* failed");
        return;
    }
    std::shared_ptr<SharedIdMonitor> monitor = m_container.lock();
    if (!monitor) {
        NS_Log::Log(1, L"[SimGC::AcceptVisitor]\t reference to container is null");
        return;
    }
    monitor->OnSharedIDReadyForGC(credential->GetSignature(), credential->Record());
}
