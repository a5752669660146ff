// The monitor's release paths: process-exit waits, the collector's callbacks, and the lease count.

#include "checkin/KelSettingsImpl.h"
#include "common/Log.h"
#include "monitor/SharedIdMonitor.h"

#include <algorithm>
#include <sstream>

namespace {
constexpr const wchar_t* kExitTag = L"[SharedIdMonitor::OnProcessExit]\t";
constexpr const wchar_t* kFreeTag = L"[SharedIdMonitor::FreeSharedId]\t";
constexpr const wchar_t* kGcTag = L"[SharedIdMonitor::GCUncheckedInCredentials]\t";
constexpr const wchar_t* kReadyTag = L"[SharedIdMonitor::OnSharedIDReadyForGC]\t";
}  // namespace

std::shared_ptr<WaitInfo> SharedIdMonitor::StartWaitForProcess(NS_Utils::UniqueHandle process, DWORD pid) {
    auto waitInfo = std::make_shared<WaitInfo>(weak_from_this(), pid, std::move(process));
    if (!waitInfo->Register(waitInfo, &SharedIdMonitor::WaitCallback)) return nullptr;
    return waitInfo;
}

void CALLBACK SharedIdMonitor::WaitCallback(void* context, BOOLEAN timerOrWaitFired) {
    if (!context) {
        NS_Log::Log(1, L"[SharedIdMonitor::WaitCallback]\t Unable to get shared_ptr to WaitInfo object.");
        return;
    }
    // A copy first: ending the wait from inside this callback may free the context.
    std::shared_ptr<WaitInfo> waitInfo = *static_cast<std::shared_ptr<WaitInfo>*>(context);
    waitInfo->OnWaitDone(timerOrWaitFired != 0);
}

void SharedIdMonitor::OnProcessExit(const DWORD* pid) {
    const DWORD processId = pid ? *pid : 0;
    {
        LockGuard lock(*this);
        NS_Log::Log(3, kExitTag + std::wstring(L" Start clearing shared credentials for PID(") +
                           std::to_wstring(processId) + L") exits.");
        if (processId == 0) {
            NS_Log::Log(1, kExitTag + std::wstring(L" Error: Invalid PID (") + std::to_wstring(processId) + L")");
            return;
        }
        auto entry = processMap.find(processId);
        if (entry == processMap.end()) {
            NS_Log::Log(3, kExitTag + std::wstring(L" Error: PID(") + std::to_wstring(processId) +
                               L") not found in processMap.");
            return;
        }
        ErasePMEntry(entry);
    }
    NS_Log::Log(3, kExitTag + std::wstring(L" Completed successfully."));
}

void SharedIdMonitor::ErasePMEntry(ProcessMap::iterator entry) {
    const DWORD pid = entry->first;
    NS_Log::Log(4, L"[SharedIdMonitor::ErasePMEntry]\t unregistering wait for PID (" + std::to_wstring(pid) + L")");
    entry->second.waitInfo->TerminateWait();
    for (const auto& credential : entry->second.credentials) credential->RemoveHolderPid(pid);
    processMap.erase(entry);
}

void SharedIdMonitor::OnSharedIDReadyForGC(const std::wstring& signature, const CSharedId* record) {
    LockGuard lock(*this);
    auto [it, end] = m_AuthToCredMap.equal_range(signature);
    for (; it != end; ++it) {
        if (it->second.address == record) {
            m_AuthToCredMap.erase(it);
            NS_Log::Log(3, kReadyTag + std::wstring(L" entry with signature ") + signature + L" removed from m_AuthToCredMap");
            return;
        }
    }
    std::wostringstream pointer;
    pointer << static_cast<const void*>(record);
    NS_Log::Log(2, kReadyTag + std::wstring(L" could not find sharedid object with signature ") + signature +
                       L" and object pointer = " + pointer.str());
}

bool SharedIdMonitor::GCUncheckedInCredentials() {
    std::list<CSharedId> stored;
    int result = m_storage.EnumCreds(stored);
    if (result != PersistantStorage::kOk) {
        NS_Log::Log(1, kGcTag + std::wstring(L" Unable to enumerate credentials in persistent storage, ret = ") +
                           std::to_wstring(result));
        return false;
    }
    size_t count = 0;
    for (CSharedId& record : stored) {
        NS_Log::Log(3, kGcTag + std::wstring(L" Queue to GC the shared id with leaseDN = ") + record.GetLeaseDN());
        LeaseIncrease();
        auto credential = std::make_shared<CSharedId>(std::move(record));
        m_checkIns.Queued(*credential);
        QueueFreeSharedId(std::move(credential));
        ++count;
    }
    NS_Log::Log(3, kGcTag + std::wstring(L" Number of unchecked-in credentials added to GC = ") + std::to_wstring(count));
    UpdateCredentialsHeld();
    // Nothing holds these any more: they are checked in now, not at the first registration.
    m_gc->Start();
    return true;
}

void SharedIdMonitor::FreeSharedId(std::shared_ptr<CSharedId> credential, SharedIdMonitor* monitor) {
    NS_Log::Log(3, kFreeTag + std::wstring(L"Start to free shared credentials."));
    if (!credential || !monitor) return;
    // Without the agent's check-in object and runtime there is no check-in: the credential is
    // forgotten all the same, so that the service never keeps a credential it cannot return.
    monitor->m_releaser.Init();
    monitor->m_checkIns.SetAgentReachable(monitor->m_releaser.IsReady());
    if (monitor->m_releaser.IsReady()) {
        int result = CheckIn(*credential, monitor->m_releaser);
        if (SharedIdReleaser::IsRetryable(result)) {
            NS_Log::Log(2, kFreeTag + std::wstring(L"Checkin failed due to an error that does not prohibit retrying. "
                                                   L"Will retry checkin. Error code : ") + std::to_wstring(result));
            const DWORD pauseMs = KelSettingsImpl::GetFreeSharedIdWaitTime();
            monitor->m_checkIns.Attempted(*credential, result, ::_time64(nullptr) + (pauseMs + 999) / 1000);
            monitor->QueueFreeSharedId(std::move(credential));
            monitor->m_gc->WaitUnlessStopping(pauseMs);
            return;
        }
        if (result == SharedIdReleaser::kDifferentUser)
            NS_Log::Log(2, kFreeTag + std::wstring(L" Checkin failed due to different Corvin user, give up checkin. "
                                                   L"Error code : ") + std::to_wstring(result));
    }
    credential->ReleaseFileClaim();
    int deleted = monitor->m_storage.Delete(*credential);
    if (deleted != PersistantStorage::kOk)
        NS_Log::Log(1, kFreeTag + std::wstring(L"Failed to delete from persistent storage, return value = ") +
                           std::to_wstring(deleted));
    NS_Log::Log(3, kFreeTag + std::wstring(L" Deleting SharedCred."));
    monitor->m_checkIns.Finished(*credential);
    credential.reset();
    monitor->LeaseDecrease();
}

int SharedIdMonitor::CheckIn(const CSharedId& credential, SharedIdReleaser& releaser) {
    HRESULT hrCIRes = S_OK;
    try {
        return releaser.ReleaseCredInternal(credential, &hrCIRes);
    } catch (const std::bad_alloc&) {
        // Out of memory for the call's texts: nothing was sent, so the credential is kept for
        // another attempt rather than forgotten.
        NS_Log::Log(1, kFreeTag + std::wstring(L" Out of memory while building the check-in."));
        return kRetryAfterNoMemory;
    }
}

void SharedIdMonitor::RefreshCorvinCredLater() {
    // One refresh waiting is enough however many registrations ask for it.
    if (m_corvinRefreshQueued.exchange(true)) return;
    m_gc->Queue([weak = weak_from_this()] {
        std::shared_ptr<SharedIdMonitor> monitor = weak.lock();
        if (!monitor) return;
        monitor->m_corvinRefreshQueued.store(false);
        monitor->m_releaser.Init();
        monitor->m_releaser.UpdateCorvinCred();
    });
}

void SharedIdMonitor::LeaseIncrease() {
    LONG count = ++m_leaseCount;
    NS_Log::Log(3, L"[SharedIdMonitor::LeaseIncrease]\t Number of leases: " + std::to_wstring(count));
}

void SharedIdMonitor::LeaseDecrease() {
    LONG count = --m_leaseCount;
    NS_Log::Log(3, L"[SharedIdMonitor::LeaseDecrease]\t Number of leases: " + std::to_wstring(count));
    UpdateCredentialsHeld();
}
