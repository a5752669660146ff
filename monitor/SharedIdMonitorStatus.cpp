// The monitor's status snapshot: a short copy under the monitor lock, the rest without it.

#include "common/ModulePath.h"
#include "monitor/SharedIdMonitor.h"

#include <algorithm>
#include <map>
#include <set>

namespace {
// Asked of the process itself, outside every lock: a process that has just gone gives no name.
std::wstring ExecutableName(DWORD pid) {
    NS_Utils::UniqueHandle process(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
    return NS_Utils::FileNameOf(NS_Utils::ProcessImagePath(process.get()));
}

void NameHolders(std::vector<CredentialStatus>& credentials) {
    std::map<DWORD, std::wstring> names;
    for (CredentialStatus& credential : credentials)
        for (HolderStatus& holder : credential.holders) {
            auto known = names.find(holder.pid);
            if (known == names.end()) known = names.emplace(holder.pid, ExecutableName(holder.pid)).first;
            holder.executable = known->second;
        }
}

bool SameRecord(const std::weak_ptr<CSharedId>& a, const std::weak_ptr<CSharedId>& b) {
    return !a.owner_before(b) && !b.owner_before(a);
}

// A credential with a row on the window is reported with the first moment one of its holders is ended.
void AddWindowState(std::vector<CredentialStatus>& held, const std::vector<std::weak_ptr<CSharedId>>& records,
                    const std::vector<LMListedRow>& rows) {
    for (size_t i = 0; i < held.size(); ++i)
        for (const LMListedRow& row : rows) {
            if (!SameRecord(records[i], row.credential)) continue;
            CredentialStatus& status = held[i];
            const bool first = status.state != CredentialStatus::State::OnExpiryWindow;
            status.state = CredentialStatus::State::OnExpiryWindow;
            status.holdersEndAt = first ? row.endTime : std::min(status.holdersEndAt, row.endTime);
        }
}
// Files that no credential listed so far stands for; only those are read.
void AddFilesOnDisk(std::vector<CredentialStatus>& credentials, const PersistantStorage& storage) {
    std::set<std::wstring> listed;
    for (const CredentialStatus& credential : credentials) listed.insert(credential.fileName);
    for (const CSharedId& file : storage.StoredFiles(listed))
        credentials.push_back(DescribeCredential(file, CredentialStatus::State::OnDisk));
}
}  // namespace

void SharedIdMonitor::CopyHeldLocked(std::vector<CredentialStatus>& held,
                                     std::vector<std::weak_ptr<CSharedId>>& records) const {
    m_lock.CheckHeld(L"[SharedIdMonitor::CopyHeldLocked]\t called without the monitor lock");
    for (const auto& [signature, entry] : m_AuthToCredMap) {
        // A reference of our own: another thread's passing one may be the last, and the record
        // would go to the collector while it is read here.
        const std::shared_ptr<CSharedId> live = entry.weak.lock();
        if (!live) continue;
        CredentialStatus status = DescribeCredential(*live, CredentialStatus::State::Held);
        for (DWORD pid : live->GetHolderPids()) status.holders.push_back({pid, {}});
        held.push_back(std::move(status));
        records.push_back(entry.weak);
    }
}

StatusSnapshot SharedIdMonitor::TakeStatusSnapshot() {
    StatusSnapshot snapshot;
    std::vector<std::weak_ptr<CSharedId>> records;
    std::vector<CredentialStatus> pending;
    std::shared_ptr<ILeaseWatcher> leaseMonitor;
    {
        LockGuard lock(*this);
        CopyHeldLocked(snapshot.credentials, records);
        pending = m_pipeline.Board();
        leaseMonitor = m_leaseMonitor;
    }
    m_lock.CheckNotHeld(L"[SharedIdMonitor::TakeStatusSnapshot]\t the window asked under the monitor lock");
    if (leaseMonitor) AddWindowState(snapshot.credentials, records, leaseMonitor->ListedRows());
    NameHolders(snapshot.credentials);
    std::move(pending.begin(), pending.end(), std::back_inserter(snapshot.credentials));
    AddFilesOnDisk(snapshot.credentials, m_storage);
    snapshot.service.leaseCount = m_leaseCount.load();
    snapshot.service.queuedWorkItems = m_gc->QueuedCount();
    snapshot.service.agent = m_pipeline.AgentState();
    snapshot.service.workerRunning = !m_gc->Broken();
    return snapshot;
}
