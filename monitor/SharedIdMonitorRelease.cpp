// The monitor's release paths: process-exit waits, the pipeline's callbacks, taking files up, and
// the lease count.

#include "common/Log.h"
#include "monitor/SharedIdMonitor.h"

#include <algorithm>
#include <sstream>

namespace {
constexpr const wchar_t* kExitTag = L"[SharedIdMonitor::OnProcessExit]\t";
constexpr const wchar_t* kGcTag = L"[SharedIdMonitor::GCUncheckedInCredentials]\t";
constexpr const wchar_t* kReadyTag = L"[SharedIdMonitor::OnSharedIDReadyForGC]\t";
}  // namespace

std::shared_ptr<WaitInfo> SharedIdMonitor::StartWaitForProcess(NS_Utils::HolderProcessHandle process, DWORD pid) {
    auto waitInfo = std::make_shared<WaitInfo>(weak_from_this(), pid, std::move(process));
    if (!waitInfo->Register(waitInfo, &SharedIdMonitor::WaitCallback)) return nullptr;
    return waitInfo;
}

void CALLBACK SharedIdMonitor::WaitCallback(void* context, BOOLEAN timerOrWaitFired) {
    if (!context) {
        NS_Log::Log(1, L"[SharedIdMonitor::WaitCallback]\t Unable to get shared_ptr to WaitInfo object.");
        return;
    }
    // A reference of the call's own; the context itself stays until the pool says this call returned.
    std::shared_ptr<WaitInfo> waitInfo = *static_cast<std::shared_ptr<WaitInfo>*>(context);
    waitInfo->OnWaitDone(timerOrWaitFired != 0);
}

void SharedIdMonitor::OnProcessExit(const DWORD* pid) {
    const DWORD processId = pid ? *pid : 0;
    // Released if this was their last holder, once the lists are written and the lock is left.
    std::vector<std::shared_ptr<CSharedId>> held;
    std::vector<ListWrite> writes;
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
        held = entry->second.credentials;
        ErasePMEntry(entry);
        m_audit.Exited(processId, held);
        for (auto it = held.begin(); it != held.end(); ++it)
            if (!(*it)->GetHolderPids().empty() && std::find(held.begin(), it, *it) == it)
                writes.push_back(PrepareListLocked(*it));
    }
    // Outside the lock: on a slow share no other caller waits for them. The process has gone, so
    // a crash before its list is rewritten does not hold the credential for it again.
    for (const ListWrite& write : writes) WriteList(write);
    writes.clear();
    // Before the last references go: their check-ins are audited after this exit.
    m_audit.Report();
    held.clear();
    NS_Log::Log(3, kExitTag + std::wstring(L" Completed successfully."));
}

void SharedIdMonitor::ErasePMEntry(ProcessMap::iterator entry) {
    m_lock.CheckHeld(L"[SharedIdMonitor::ErasePMEntry]\t called without the monitor lock");
    const DWORD pid = entry->first;
    NS_Log::Log(4, L"[SharedIdMonitor::ErasePMEntry]\t unregistering wait for PID (" + std::to_wstring(pid) + L")");
    entry->second.waitInfo->TerminateWait();
    for (const auto& credential : entry->second.credentials) credential->RemoveHolderPid(pid);
    processMap.erase(entry);
}

void SharedIdMonitor::OnSharedIDReadyForGC(const std::wstring& signature, const CSharedId* record) {
    m_gc->WorkerRule().Check(L"[SharedIdMonitor::OnSharedIDReadyForGC]\t called off the collector's worker");
    LockGuard lock(*this);
    auto [it, end] = m_AuthToCredMap.equal_range(signature);
    for (; it != end; ++it) {
        if (it->second.address == record) {
            m_AuthToCredMap.erase(it);
            NS_Log::Log(
                3, kReadyTag + std::wstring(L" entry with signature ") + signature + L" removed from m_AuthToCredMap");
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
    TakeUp(stored);
    return true;
}

void SharedIdMonitor::TakeUp(std::list<CSharedId>& stored) {
    size_t count = 0;
    const std::set<std::wstring> listed = m_storage.FilesWithHolderLists();
    // Files with running holders first: another file of a lease held again (the one its last
    // registration replaced) must not be checked in under those holders, whatever the folder's order.
    std::list<CSharedId> unheld;
    for (CSharedId& record : stored) {
        const std::vector<HolderProcess> running = RunningHolders(record, listed);
        if (!running.empty()) {
            LockGuard lock(*this);
            if (AdoptLocked(record, running)) continue;
        }
        unheld.push_back(std::move(record));
    }
    for (CSharedId& record : unheld) {
        {
            LockGuard lock(*this);
            if (AdoptLocked(record, {})) continue;
        }
        NS_Log::Log(3, kGcTag + std::wstring(L" Queue to GC the shared id with leaseDN = ") + record.GetLeaseDN());
        if (!listed.count(record.GetFileName())) record.FileClaim().KnowNoList();
        LeaseIncrease();
        auto credential = std::make_shared<CSharedId>(std::move(record));
        m_pipeline.CheckInFromFile(std::move(credential));
        ++count;
    }
    NS_Log::Log(3,
                kGcTag + std::wstring(L" Number of unchecked-in credentials added to GC = ") + std::to_wstring(count));
    UpdateCredentialsHeld();
    m_audit.Report();
    // Nothing holds these any more: they are checked in now, not at the first registration.
    (void)m_gc->Start();  // a failure is logged and shown in the status
    if (m_storage.HasBusyFiles()) ScheduleBusyRetry();
}

void SharedIdMonitor::ScheduleBusyRetry() {
    LockGuard lock(*this);
    if (m_busyRetry || ::WaitForSingleObject(m_stopping.get(), 0) == WAIT_OBJECT_0) return;
    HANDLE timer = nullptr;
    // A one-shot timer that only queues the retry: the worker never sleeps for it, and the
    // retry runs in turn with the check-ins.
    if (!::CreateTimerQueueTimer(&timer, nullptr, &SharedIdMonitor::BusyRetryDue, this, kBusyRetryMs, 0,
                                 WT_EXECUTEONLYONCE)) {
        NS_Log::Log(1, kGcTag + std::wstring(L" Cannot schedule the files in use to be tried again. Error = ") +
                           std::to_wstring(::GetLastError()));
        return;
    }
    m_busyRetry = NS_Utils::UniqueTimerQueueTimer(timer);
}

void CALLBACK SharedIdMonitor::BusyRetryDue(void* context, BOOLEAN) {
    // The timer is deleted (waiting for this callback) before the monitor goes.
    auto* monitor = static_cast<SharedIdMonitor*>(context);
    monitor->m_gc->Queue([weak = monitor->weak_from_this()] {
        if (std::shared_ptr<SharedIdMonitor> owner = weak.lock()) owner->RetryBusyFiles();
    });
}

void SharedIdMonitor::RetryBusyFiles() {
    m_gc->WorkerRule().Check(L"[SharedIdMonitor::RetryBusyFiles]\t called off the collector's worker");
    NS_Utils::UniqueTimerQueueTimer done;
    {
        LockGuard lock(*this);
        done = std::move(m_busyRetry);
    }
    // Deleted outside the lock: it has fired, and its callback only queues.
    done.reset();
    std::list<CSharedId> stored;
    m_storage.TakeUpBusyFiles(stored);
    TakeUp(stored);
}

std::vector<HolderProcess> SharedIdMonitor::RunningHolders(const CSharedId& record,
                                                           const std::set<std::wstring>& listed) const {
    std::vector<HolderProcess> running;
    if (!listed.count(record.GetFileName())) return running;
    // A file without a list was written before lists were kept: checked in, as it always was. A
    // list that cannot be read (a power cut cut it short) names no running holder either.
    if (std::optional<std::vector<HolderProcess>> holders = m_storage.ReadHolders(record))
        for (const HolderProcess& holder : *holders)
            if (holder.pid != ::GetCurrentProcessId() && NS_SHAREDID_UTILS::IsStillRunning(holder))
                running.push_back(holder);
    return running;
}

bool SharedIdMonitor::AdoptLocked(CSharedId& record, const std::vector<HolderProcess>& running) {
    m_lock.CheckHeld(L"[SharedIdMonitor::AdoptLocked]\t called without the monitor lock");
    std::vector<ProcessMap::iterator> entries;
    for (const HolderProcess& holder : running) {
        auto entry = InsertAndGetPMEntry(holder.pid);
        // The id may have passed to another process since it was looked at.
        if (entry == processMap.end()) continue;
        if (entry->second.waitInfo->Created() == holder.created)
            entries.push_back(entry);
        else if (entry->second.credentials.empty())
            ErasePMEntry(entry);
    }
    // A lease is its signature and its lease DN. Two files of one lease are a registration's new
    // file and the old one it replaced (the service ended between the two, or the old one could
    // not be deleted): the record held answers for both. Two leases of one signature (two
    // instances ended by force, or a dead sibling's file) stay two records, each with its own
    // file, expiry and holders, each checked in once its own holders have gone.
    const std::wstring signature = record.GetSignature();
    std::shared_ptr<CSharedId> credential;
    for (auto [it, end] = m_AuthToCredMap.equal_range(signature); it != end && !credential; ++it)
        if (std::shared_ptr<CSharedId> live = it->second.weak.lock(); live && live->GetLeaseDN() == record.GetLeaseDN())
            credential = std::move(live);
    if (entries.empty() && !credential) return false;
    const bool isNew = !credential;
    if (credential) {
        (void)m_storage.Delete(record);  // a failure keeps the file and its list for the next take-up
    } else {
        credential = MakeCredential(std::move(record));
        m_AuthToCredMap.emplace(signature, CredentialRef{credential, credential.get()});
        LeaseIncrease();
    }
    bool added = false;
    for (auto entry : entries) {
        // One strong reference per holder and record, however many files named the holder.
        std::vector<std::shared_ptr<CSharedId>>& held = entry->second.credentials;
        if (std::find(held.begin(), held.end(), credential) != held.end()) continue;
        credential->AddHolderPid(entry->first);
        held.push_back(credential);
        entry->second.takenUp.push_back(credential.get());
        added = true;
    }
    const std::wstring expiry = credential->GetLeaseExpiry();
    if (isNew && m_leaseMonitor) m_leaseMonitor->AddLeaseExpirationInfo(credential);
    // An expiry that could not be read was replaced: written, so that the next start keeps it.
    // A failure keeps the file as it was: the next start gives it a deadline again.
    if (credential->GetLeaseExpiry() != expiry)
        (void)PersistLocked(*credential);
    else if (added)
        WriteHoldersLocked(*credential);
    if (added) m_audit.HeldAgain(*credential);
    NS_Log::Log(
        3, kGcTag +
               std::wstring(entries.empty() ? L" Already held for its running holders: the shared id with leaseDN = "
                                            : L" Held again for its running holders: the shared id with leaseDN = ") +
               credential->GetLeaseDN());
    return true;
}

void SharedIdMonitor::LeaseIncrease() {
    LONG count = ++m_leaseCount;
    NS_Log::Log(3, L"[SharedIdMonitor::LeaseIncrease]\t Number of leases: " + std::to_wstring(count));
}

void SharedIdMonitor::LeaseDecrease() {
    LONG count = --m_leaseCount;
    ::SetEvent(m_leaseFell.get());
    NS_Log::Log(3, L"[SharedIdMonitor::LeaseDecrease]\t Number of leases: " + std::to_wstring(count));
    UpdateCredentialsHeld();
}
