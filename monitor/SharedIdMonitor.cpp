#include "monitor/SharedIdMonitor.h"

#include "common/FailFast.h"
#include "common/Log.h"
#include "sharedid/SharedIdFile.h"

#include <algorithm>

namespace {
constexpr const wchar_t* kRegisterTag = L"[SharedIdMonitor::RegisterSharedCreds]\t";
constexpr const wchar_t* kUnregisterTag = L"[SharedIdMonitor::UnregisterSharedCreds]\t";
constexpr const wchar_t* kIsTag = L"[SharedIdMonitor::IsCredsRegistered]\t";
constexpr const wchar_t* kGetTag = L"[SharedIdMonitor::GetCredsRegistered]\t";
constexpr const wchar_t* kInsertTag = L"[SharedIdMonitor::InsertAndGetPMEntry]\t";

std::wstring Pid(DWORD pid) { return L"(" + std::to_wstring(pid) + L")"; }

// A reference made when files were taken up, now claimed by the holder's own call.
bool ClaimTakenUp(SharedIdMonitor::ProcessMapValue& value, const CSharedId* credential) {
    auto mark = std::find(value.takenUp.begin(), value.takenUp.end(), credential);
    if (mark == value.takenUp.end()) return false;
    value.takenUp.erase(mark);
    return true;
}

bool IsHolder(const CSharedId& credential, DWORD pid) {
    const std::vector<DWORD>& holders = credential.GetHolderPids();
    return std::find(holders.begin(), holders.end(), pid) != holders.end();
}
}  // namespace

std::shared_ptr<SharedIdMonitor> SharedIdMonitor::Create() {
    std::shared_ptr<SharedIdMonitor> monitor(new SharedIdMonitor());
    monitor->m_simGC = std::make_unique<SimGC>(monitor);
    monitor->m_pipeline.Bind(monitor, monitor->m_lock);
    monitor->m_pipeline.SetAuditTrail(monitor->m_audit);
    return monitor;
}

SharedIdMonitor::SharedIdMonitor() : m_gc(std::make_shared<NS_Utils::CGarbageCollector>()) {}

SharedIdMonitor::~SharedIdMonitor() {
    // Destroyed on the worker, the monitor would free the collector that is running the item.
    m_gc->WorkerRule().CheckNot(L"[SharedIdMonitor::~SharedIdMonitor]\t destroyed on the collector's worker");
    NS_Utils::FailFastUnless(Shutdown(),
                             L"[SharedIdMonitor::~SharedIdMonitor]\t destroyed after a thread was ended by force");
    // Credentials still held are not checked in now; their files bring them back at the next start.
    LockGuard lock(*this);
    while (!processMap.empty()) ErasePMEntry(processMap.begin());
}

bool SharedIdMonitor::Shutdown() {
    ::SetEvent(m_stopping.get());
    // No retry of files in use is queued from now on; one that runs still finds the monitor.
    NS_Utils::UniqueTimerQueueTimer busyRetry;
    {
        LockGuard lock(*this);
        busyRetry = std::move(m_busyRetry);
    }
    busyRetry.reset();
    // No new warning starts while the collector finishes; the window's thread may still end
    // holders until the lease monitor is destroyed below.
    std::shared_ptr<ILeaseWatcher> leaseMonitor = LeaseMonitor();
    const bool pollerStopped = !leaseMonitor || leaseMonitor->Shutdown();
    // Once the worker has ended, none of the strong references it takes while it runs an item
    // is left, so the monitor never dies on the worker.
    if (!m_gc->Stop() || !pollerStopped) {
        // A thread ended by force may have held the monitor lock: nothing more is taken down.
        (void)new std::shared_ptr<ILeaseWatcher>(std::move(leaseMonitor));
        return false;
    }
    {
        LockGuard lock(*this);
        m_leaseMonitor.reset();
    }
    // The last reference: the window's thread ends here, on the owner's thread, before the
    // registry that its callbacks use goes.
    leaseMonitor.reset();
    return true;
}

void SharedIdMonitor::TellAdded(const Listeners& listeners, DWORD pid) const {
    m_lock.CheckNotHeld(L"[SharedIdMonitor]\t a listener called under the monitor lock");
    for (const auto& listener : listeners) listener->OnUserAdded(pid);
}

void SharedIdMonitor::TellRemoved(const Listeners& listeners, DWORD pid) const {
    m_lock.CheckNotHeld(L"[SharedIdMonitor]\t a listener called under the monitor lock");
    for (const auto& listener : listeners) listener->OnUserRemoved(pid);
}

size_t SharedIdMonitor::ProcessCount() const {
    NS_Utils::CritSecGuard lock(m_lock);
    return processMap.size();
}

size_t SharedIdMonitor::SignatureEntryCount() const {
    NS_Utils::CritSecGuard lock(m_lock);
    return m_AuthToCredMap.size();
}

void SharedIdMonitor::ReleaseAction::operator()(CSharedId* raw) const {
    std::shared_ptr<CSharedId> released(raw);
    if (std::shared_ptr<SharedIdMonitor> owner = monitor.lock()) owner->m_pipeline.Release(std::move(released));
}

std::shared_ptr<CSharedId> SharedIdMonitor::MakeCredential(CSharedId record) {
    // Never destroyed where the last holder lets go (often under the monitor lock): the record
    // goes to the collector, whose worker checks it in. A record released after the monitor is
    // gone is only freed; its file brings it back at the next start.
    return std::shared_ptr<CSharedId>(new CSharedId(std::move(record)), ReleaseAction{weak_from_this()});
}

void SharedIdMonitor::Unmake(std::shared_ptr<CSharedId> credential) {
    // Its registration was refused: the client still answers for the credential, so it must not
    // be checked in behind its back. The lease monitor's entry expires with it.
    if (ReleaseAction* action = std::get_deleter<ReleaseAction>(credential)) action->monitor.reset();
    credential.reset();
}

void SharedIdMonitor::OnCheckInTaken(const std::shared_ptr<CSharedId>& released) {
    ShrId_GCVisitor visitor(released);
    m_simGC->AcceptVisitor(&visitor);
}

DWORD SharedIdMonitor::RegisterSharedCreds(const CSharedId& credential, const DWORD* pid) {
    // A worker that cannot start logs it and shows in the status; the registration stands.
    (void)m_gc->Start();
    const DWORD processId = pid ? *pid : 0;
    Listeners listeners;
    DWORD result;
    {
        LockGuard lock(*this);
        result = RegisterLocked(credential, processId, listeners);
    }
    UpdateCredentialsHeld();
    TellAdded(listeners, processId);
    m_audit.Report();
    return result;
}

std::shared_ptr<CSharedId> SharedIdMonitor::FindLiveForRegistration(const std::wstring& signature) {
    auto [it, end] = m_AuthToCredMap.equal_range(signature);
    while (it != end) {
        if (std::shared_ptr<CSharedId> live = it->second.weak.lock()) {
            NS_Log::Log(3, kRegisterTag,
                        L" There exists an already registered credential with signature = " + signature);
            return live;
        }
        NS_Log::Log(3, kRegisterTag, L" AuthToCredMap found, but weak_ptr is invalid.");
        it = m_AuthToCredMap.erase(it);
    }
    return nullptr;
}

DWORD SharedIdMonitor::RegisterLocked(const CSharedId& credential, DWORD pid, Listeners& listeners) {
    m_lock.CheckHeld(L"[SharedIdMonitor::RegisterLocked]\t called without the monitor lock");
    NS_Log::Log(3, kRegisterTag, L" Started registering shared credential.");
    if (!credential.IsComplete()) {
        NS_Log::Log(1, kRegisterTag,
                    L" Error: Shared ID information not completed. Credential Content: " + credential.Dump());
        return kIncomplete;
    }
    if (const wchar_t* field = NS_SHAREDID_UTILS::UnfitStoredField(credential)) {
        // Answered 0, it would be written and then never read back: never checked in.
        NS_Log::Log(1, kRegisterTag, L" Error: the credential file cannot hold the text of " + std::wstring(field));
        return kIncomplete;
    }
    if (NS_Log::IsEnabled(4)) NS_Log::Log(4, kRegisterTag, L" Debug, SharedCred Content: " + credential.Dump());
    if (pid == 0) {
        NS_Log::Log(1, kRegisterTag, L" Error: Invalid PID" + Pid(pid));
        return kInvalidPid;
    }
    const std::wstring signature = credential.GetSignature();
    if (signature.empty()) return kEmptySignature;

    std::shared_ptr<CSharedId> stored = FindLiveForRegistration(signature);
    auto entry = InsertAndGetPMEntry(pid);
    if (entry == processMap.end()) {
        DWORD error = ::GetLastError();
        NS_Log::Log(1, kRegisterTag, L"InsertAndGetPMEntry failed. GLE = 0x" + NS_Log::Hex(error));
        // No credential is made: the client was told it is not registered and still uses it, so
        // it must not be checked in behind its back.
        return kProcessEntryFailed;
    }
    const bool isNew = !stored;
    if (isNew) stored = MakeCredential(credential);
    const bool wasHolder = IsHolder(*stored, pid);
    stored->AddHolderPid(pid);
    const bool claimed = ClaimTakenUp(entry->second, stored.get());
    if (!claimed) entry->second.credentials.push_back(stored);
    // Before the file is written: an invalid expiry is rewritten in the record (under the lock,
    // for the other threads that read it), and the file must keep that deadline across restarts.
    if (isNew && m_leaseMonitor) m_leaseMonitor->AddLeaseExpirationInfo(stored);
    if (!PersistLocked(*stored)) {
        // Answered 0, the credential would live in memory only: a crash, a close request or an
        // agent outage at its holder's exit would lose it. The process holds what it held before.
        if (claimed)
            entry->second.takenUp.push_back(stored.get());
        else
            entry->second.credentials.pop_back();
        if (!wasHolder) stored->RemoveHolderPid(pid);
        if (entry->second.credentials.empty()) ErasePMEntry(entry);
        if (isNew) Unmake(std::move(stored));
        NS_Log::Log(1, kRegisterTag, L" Error: the credential could not be stored; registration refused.");
        return kNotStored;
    }
    if (!wasHolder) listeners = stored->GetListeners();

    if (isNew) {
        m_AuthToCredMap.emplace(signature, CredentialRef{stored, stored.get()});
        LeaseIncrease();
    }
    m_audit.Registered(*stored, pid);
    m_pipeline.RefreshAccountLater();
    NS_Log::Log(3, kRegisterTag, L" Completed successfully.");
    return kOk;
}

bool SharedIdMonitor::PersistLocked(CSharedId& credential) {
    m_lock.CheckHeld(L"[SharedIdMonitor::PersistLocked]\t called without the monitor lock");
    const std::vector<HolderProcess> holders = HoldersOfLocked(credential);
    CListWrites& writes = credential.ListWrites();
    const ULONGLONG number = writes.Next();
    NS_Utils::CritSecGuard listLock(writes.Lock());
    int result = m_storage.Persist(credential, &holders);
    if (result == PersistantStorage::kOk) {
        writes.Written(number);
        return true;
    }
    NS_Log::Log(1, kRegisterTag,
                L"Failed to write credential to persistent storage, return value = " + std::to_wstring(result));
    return false;
}

std::vector<HolderProcess> SharedIdMonitor::HoldersOfLocked(const CSharedId& credential) const {
    m_lock.CheckHeld(L"[SharedIdMonitor::HoldersOfLocked]\t called without the monitor lock");
    std::vector<HolderProcess> holders;
    for (DWORD pid : credential.GetHolderPids()) {
        auto entry = processMap.find(pid);
        if (entry == processMap.end()) continue;
        holders.push_back({pid, entry->second.waitInfo->Created()});
    }
    return holders;
}

void SharedIdMonitor::WriteHoldersLocked(CSharedId& credential) {
    m_lock.CheckHeld(L"[SharedIdMonitor::WriteHoldersLocked]\t called without the monitor lock");
    CListWrites& writes = credential.ListWrites();
    const ULONGLONG number = writes.Next();
    NS_Utils::CritSecGuard listLock(writes.Lock());
    // A record whose file could not be written has no list either.
    if (!credential.HoldsFileClaim()) return;
    // A list that cannot be written is logged there; a restart would then check the credential in.
    (void)m_storage.WriteHolders(credential, HoldersOfLocked(credential));
    writes.Written(number);
}

SharedIdMonitor::ListWrite SharedIdMonitor::PrepareListLocked(const std::shared_ptr<CSharedId>& credential) {
    m_lock.CheckHeld(L"[SharedIdMonitor::PrepareListLocked]\t called without the monitor lock");
    return {credential, HoldersOfLocked(*credential), credential->ListWrites().Next()};
}

void SharedIdMonitor::WriteList(const ListWrite& write) {
    // The list lock is taken inside the monitor lock elsewhere (registration, take-up): never the
    // other way round.
    m_lock.CheckNotHeld(L"[SharedIdMonitor::WriteList]\t a holder list written under the monitor lock");
    CSharedId& credential = *write.credential;
    CListWrites& writes = credential.ListWrites();
    NS_Utils::CritSecGuard listLock(writes.Lock());
    // A later list is on the disk already, or the record has no file (nor list) to write.
    if (writes.Outdated(write.number) || !credential.HoldsFileClaim()) return;
    // A list that cannot be written is logged there; a restart would then check the credential in.
    (void)m_storage.WriteHolders(credential, write.holders);
    writes.Written(write.number);
}

DWORD SharedIdMonitor::UnregisterSharedCreds(const CSharedId& credential, const DWORD* pid) {
    const DWORD processId = pid ? *pid : 0;
    Listeners listeners;
    std::optional<ListWrite> write;
    DWORD result;
    {
        LockGuard lock(*this);
        result = UnregisterLocked(credential, processId, listeners, write);
    }
    // Answered once the list no longer names the process: a crash after the answer must not
    // hold the credential for it again. A credential let go is checked in only after this.
    if (write) WriteList(*write);
    write.reset();
    TellRemoved(listeners, processId);
    m_audit.Report();
    return result;
}

DWORD SharedIdMonitor::UnregisterLocked(const CSharedId& credential, DWORD pid, Listeners& listeners,
                                        std::optional<ListWrite>& write) {
    m_lock.CheckHeld(L"[SharedIdMonitor::UnregisterLocked]\t called without the monitor lock");
    NS_Log::Log(3, kUnregisterTag, L" Start unregistering shared credential.");
    if (!credential.HasSignature()) {
        NS_Log::Log(1, kUnregisterTag, L" Error: Shared ID information not completed.");
        return kIncomplete;
    }
    // These two carry the registering operation's tag: the log's vocabulary has them so.
    if (pid == 0) {
        NS_Log::Log(1, kRegisterTag, L" Error: Invalid PID" + Pid(pid));
        return kInvalidPid;
    }
    const std::wstring signature = credential.GetSignature();
    if (signature.empty()) {
        NS_Log::Log(1, kRegisterTag, L" Error: Empty Credentials Signature.");
        return kEmptySignature;
    }
    auto entry = processMap.find(pid);
    if (entry == processMap.end()) {
        NS_Log::Log(2, kUnregisterTag, L" No ProcessMap found for PID" + Pid(pid));
        return kProcessNotRegistered;
    }
    auto [first, end] = m_AuthToCredMap.equal_range(signature);
    if (first == end) {
        NS_Log::Log(2, kUnregisterTag, L" Error: No existing auth service to credential mapping found.");
        return kNotAlive;
    }
    NS_Log::Log(3, kUnregisterTag,
                L" Found " + std::to_wstring(std::distance(first, end)) +
                    L" shared credential object(s) matching the singature = " + signature);

    std::vector<std::shared_ptr<CSharedId>>& held = entry->second.credentials;
    bool lastAlive = false;
    bool matched = false;
    size_t count = 0;
    for (auto it = first; it != end && !matched; ++it) {
        ++count;
        std::shared_ptr<CSharedId> live = it->second.weak.lock();
        lastAlive = live != nullptr;
        if (!live) {
            NS_Log::Log(3, kUnregisterTag, L" Shared credentials for PID" + Pid(pid) + L" was already released.");
            continue;
        }
        auto mine = std::find(held.begin(), held.end(), live);
        if (mine == held.end()) {
            NS_Log::Log(
                2, kUnregisterTag,
                L" could not find the shared object in the process shared cred list for pid = " + std::to_wstring(pid));
            continue;
        }
        NS_Log::Log(3, kUnregisterTag,
                    L" Strong pointer to shared id object found. Removing it from the vector of that "
                    L"ProcessMapValue for PID" +
                        Pid(pid));
        held.erase(mine);
        // A process that registered the credential twice, or took it over as well, still holds it.
        if (std::find(held.begin(), held.end(), live) == held.end()) {
            std::erase(entry->second.takenUp, live.get());
            live->RemoveHolderPid(pid);
            m_audit.Released(*live, pid);
            listeners = live->GetListeners();
            // Even when none is left: the process runs on, and a restart must not hold it for it.
            write = PrepareListLocked(live);
        }
        NS_Log::Log(3, kUnregisterTag,
                    L" found shared object with signature " + signature + L" Count = " + std::to_wstring(count));
        matched = true;
    }
    if (!matched)
        NS_Log::Log(2, kUnregisterTag,
                    L" could not find shared object with signature " + signature + L" in the process list for pid = " +
                        std::to_wstring(pid) + L" tried to look for " + std::to_wstring(count) +
                        L" different shared objects (that has the same sig) in the process list");
    if (held.empty()) {
        NS_Log::Log(3, kUnregisterTag,
                    L" Process not holding anymore shared credentials. Removing PID" + Pid(pid) + L" from processMap");
        ErasePMEntry(entry);
    }
    return lastAlive ? kOk : kNotAlive;
}

std::pair<SharedIdMonitor::SignatureMap::iterator, SharedIdMonitor::SignatureMap::iterator>
SharedIdMonitor::EntriesForLookUp(const wchar_t* tag, const CSharedId& credential) {
    NS_Log::Log(4, tag, L" Start checking for registered shared credential.");
    if (!credential.HasSignature()) {
        NS_Log::Log(1, tag, L" Error: Shared ID information not completed.");
        return {m_AuthToCredMap.end(), m_AuthToCredMap.end()};
    }
    auto range = m_AuthToCredMap.equal_range(credential.GetSignature());
    if (range.first == range.second) NS_Log::Log(3, tag, L" No existing auth service to credential mapping found.");
    return range;
}

bool SharedIdMonitor::IsCredsRegistered(const CSharedId& credential, CSharedId* registered) {
    LockGuard lock(*this);
    auto [it, end] = EntriesForLookUp(kIsTag, credential);
    if (it == end) return false;
    for (; it != end; ++it) {
        if (std::shared_ptr<CSharedId> live = it->second.weak.lock()) {
            *registered = CSharedId(*live);
            NS_Log::Log(3, kIsTag, L" Shared credential was already registered.");
            return true;
        }
    }
    NS_Log::Log(3, kIsTag, L" No previously registered shared credential found.");
    return false;
}

bool SharedIdMonitor::GetCredsRegistered(DWORD pid, const CSharedId& credential, CSharedId* registered) {
    if (pid == 0) {
        NS_Log::Log(1, kGetTag, L" Error: Invalid PID" + Pid(pid));
        return false;
    }
    Listeners listeners;
    std::optional<ListWrite> write;
    bool found;
    {
        LockGuard lock(*this);
        found = GetLocked(pid, credential, registered, listeners, write);
    }
    if (write) WriteList(*write);
    write.reset();
    TellAdded(listeners, pid);
    m_audit.Report();
    return found;
}

bool SharedIdMonitor::GetLocked(DWORD pid, const CSharedId& credential, CSharedId* registered, Listeners& listeners,
                                std::optional<ListWrite>& write) {
    m_lock.CheckHeld(L"[SharedIdMonitor::GetLocked]\t called without the monitor lock");
    auto [it, end] = EntriesForLookUp(kGetTag, credential);
    for (; it != end; ++it) {
        std::shared_ptr<CSharedId> live = it->second.weak.lock();
        if (!live) {
            NS_Log::Log(3, kGetTag, L" Found a matching shared credential but the object reference is null");
            continue;
        }
        NS_Log::Log(3, kGetTag, L" Shared credential was already registered.");
        auto entry = InsertAndGetPMEntry(pid);
        if (entry == processMap.end()) {
            NS_Log::Log(1, kRegisterTag, L" . GLE = 0x" + NS_Log::Hex(::GetLastError()));
            return false;
        }
        const bool added = !IsHolder(*live, pid);
        live->AddHolderPid(pid);
        if (!ClaimTakenUp(entry->second, live.get())) entry->second.credentials.push_back(live);
        if (added) {
            listeners = live->GetListeners();
            write = PrepareListLocked(live);
            m_audit.TakenOver(*live, pid);
        }
        *registered = CSharedId(*live);
        return true;
    }
    return false;
}

SharedIdMonitor::ProcessMap::iterator SharedIdMonitor::InsertAndGetPMEntry(DWORD pid) {
    m_lock.CheckHeld(L"[SharedIdMonitor::InsertAndGetPMEntry]\t called without the monitor lock");
    auto existing = processMap.find(pid);
    if (existing != processMap.end()) return existing;

    if (pid == ::GetCurrentProcessId()) {
        // The wait on itself would never fire, and a lease expiry or the end of the session
        // would then end the service.
        NS_Log::Log(1, kInsertTag, L" Refusing PID (" + std::to_wstring(pid) + L"): it is the service's own process.");
        ::SetLastError(ERROR_ACCESS_DENIED);
        return processMap.end();
    }
    NS_Utils::HolderProcessHandle process = NS_Utils::HolderProcessHandle::Open(pid);
    if (!process.Valid()) {
        const DWORD error = ::GetLastError();
        NS_Log::Log(1, kInsertTag,
                    L" Unable to open process handle for PID (" + std::to_wstring(pid) + L"). Error = " +
                        std::to_wstring(error));
        ::SetLastError(error);
        return processMap.end();
    }
    NS_Log::Log(4, kInsertTag, L" Process handle opened for PID (" + std::to_wstring(pid) + L")");
    if (!process.CanEnd())
        NS_Log::Log(2, kInsertTag,
                    L" PID (" + std::to_wstring(pid) +
                        L") may be watched but not ended (it runs elevated or as another user): it is named where "
                        L"it would be ended.");
    std::shared_ptr<WaitInfo> waitInfo = StartWaitForProcess(std::move(process), pid);
    if (!waitInfo) {
        NS_Log::Log(1, kInsertTag, L" Unable to get WaitInfo shared_ptr.");
        return processMap.end();
    }
    return processMap.emplace(pid, ProcessMapValue{std::move(waitInfo), {}, {}, {}}).first;
}
