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

void Log(unsigned short level, const wchar_t* tag, const std::wstring& text) {
    NS_Log::Log(level, tag + text);
}

std::wstring Pid(DWORD pid) { return L"(" + std::to_wstring(pid) + L")"; }

bool IsHolder(const CSharedId& credential, DWORD pid) {
    const std::vector<DWORD>& holders = credential.GetHolderPids();
    return std::find(holders.begin(), holders.end(), pid) != holders.end();
}
}  // namespace

std::shared_ptr<SharedIdMonitor> SharedIdMonitor::Create() {
    std::shared_ptr<SharedIdMonitor> monitor(new SharedIdMonitor());
    monitor->m_simGC = std::make_unique<SimGC>(monitor);
    // The agent's objects live in the worker's apartment and are let go there. The worker has
    // ended before the monitor is destroyed, so the hook never outlives it.
    SharedIdMonitor* raw = monitor.get();
    monitor->m_gc->SetWorkerExitHook([raw] { raw->m_releaser.Reset(); });
    // A user who never logs on to the agent must not hold up the end of the service.
    monitor->m_releaser.SetPause([gc = monitor->m_gc.get()](DWORD ms) { return gc->WaitUnlessStopping(ms); });
    monitor->m_releaser.SetWorkerRule([gc = monitor->m_gc.get()] { return gc->IsWorkerThread(); });
    return monitor;
}

SharedIdMonitor::SharedIdMonitor() : m_gc(std::make_shared<NS_Utils::CGarbageCollector>()) {}

SharedIdMonitor::~SharedIdMonitor() {
    // Destroyed on the worker, the monitor would free the collector that is running the item.
    NS_Utils::FailFastUnless(!m_gc->IsWorkerThread(), L"[SharedIdMonitor::~SharedIdMonitor]\t destroyed on the collector's worker");
    NS_Utils::FailFastUnless(Shutdown(), L"[SharedIdMonitor::~SharedIdMonitor]\t destroyed after a thread was ended by force");
    // Credentials still held are not checked in now; their files bring them back at the next start.
    LockGuard lock(*this);
    while (!processMap.empty()) ErasePMEntry(processMap.begin());
}

bool SharedIdMonitor::Shutdown() {
    ::SetEvent(m_stopping.get());
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

void SharedIdMonitor::ExpectUnlocked(const wchar_t* call) const {
    NS_Utils::FailFastUnless(!m_lock.HeldByThisThread(), call);
}

void SharedIdMonitor::ExpectLocked(const wchar_t* call) const { NS_Utils::FailFastUnless(m_lock.HeldByThisThread(), call); }

void SharedIdMonitor::ExpectWorker(const wchar_t* call) const { NS_Utils::FailFastUnless(m_gc->IsWorkerThread(), call); }

void SharedIdMonitor::TellAdded(const Listeners& listeners, DWORD pid) const {
    ExpectUnlocked(L"[SharedIdMonitor]\t a listener called under the monitor lock");
    for (const auto& listener : listeners) listener->OnUserAdded(pid);
}

void SharedIdMonitor::TellRemoved(const Listeners& listeners, DWORD pid) const {
    ExpectUnlocked(L"[SharedIdMonitor]\t a listener called under the monitor lock");
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

std::shared_ptr<CSharedId> SharedIdMonitor::MakeCredential(CSharedId record) {
    // Never destroyed where the last holder lets go (often under the monitor lock): the record
    // goes to the collector, whose worker checks it in. A record released after the monitor is
    // gone is only freed; its file brings it back at the next start.
    return std::shared_ptr<CSharedId>(new CSharedId(std::move(record)), [weak = weak_from_this()](CSharedId* raw) {
        std::shared_ptr<CSharedId> released(raw);
        if (std::shared_ptr<SharedIdMonitor> monitor = weak.lock()) monitor->QueueRelease(std::move(released));
    });
}

void SharedIdMonitor::QueueRelease(std::shared_ptr<CSharedId> credential) {
    m_checkIns.Queued(*credential);
    QueueCheckIn({std::move(credential), true});
}

void SharedIdMonitor::QueueFreeSharedId(std::shared_ptr<CSharedId> credential) {
    QueueCheckIn({std::move(credential), false});
}

void SharedIdMonitor::QueueCheckIn(PendingCheckIn pending) {
    m_checkInQueue.Push(std::move(pending));
    // An item per credential: the first to run takes as many as wait, the others find fewer or none.
    m_gc->Queue([weak = weak_from_this()] {
        if (std::shared_ptr<SharedIdMonitor> monitor = weak.lock()) monitor->RunCheckIns();
    });
}

void SharedIdMonitor::RunCheckIns() {
    ExpectWorker(L"[SharedIdMonitor::RunCheckIns]\t called off the collector's worker");
    std::vector<PendingCheckIn> taken = m_checkInQueue.Take(kMaxRowsPerCall);
    if (taken.empty()) return;
    std::vector<std::shared_ptr<CSharedId>> batch;
    for (PendingCheckIn& pending : taken) {
        if (pending.released) {
            ShrId_GCVisitor visitor(pending.credential);
            m_simGC->AcceptVisitor(&visitor);
        }
        batch.push_back(std::move(pending.credential));
    }
    FreeSharedIds(std::move(batch));
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
    return result;
}

std::shared_ptr<CSharedId> SharedIdMonitor::FindLiveForRegistration(const std::wstring& signature) {
    auto [it, end] = m_AuthToCredMap.equal_range(signature);
    while (it != end) {
        if (std::shared_ptr<CSharedId> live = it->second.weak.lock()) {
            Log(3, kRegisterTag, L" There exists an already registered credential with signature = " + signature);
            return live;
        }
        Log(3, kRegisterTag, L" AuthToCredMap found, but weak_ptr is invalid.");
        it = m_AuthToCredMap.erase(it);
    }
    return nullptr;
}

DWORD SharedIdMonitor::RegisterLocked(const CSharedId& credential, DWORD pid, Listeners& listeners) {
    ExpectLocked(L"[SharedIdMonitor::RegisterLocked]\t called without the monitor lock");
    Log(3, kRegisterTag, L" Started registering shared credential.");
    if (!credential.IsComplete()) {
        Log(1, kRegisterTag, L" Error: Shared ID information not completed. Credential Content: " + credential.Dump());
        return kIncomplete;
    }
    if (const wchar_t* field = NS_SHAREDID_UTILS::UnfitStoredField(credential)) {
        // Answered 0, it would be written and then never read back: never checked in.
        Log(1, kRegisterTag, L" Error: the credential file cannot hold the text of " + std::wstring(field));
        return kIncomplete;
    }
    if (NS_Log::IsEnabled(4)) Log(4, kRegisterTag, L" Debug, SharedCred Content: " + credential.Dump());
    if (pid == 0) {
        Log(1, kRegisterTag, L" Error: Invalid PID" + Pid(pid));
        return kInvalidPid;
    }
    const std::wstring signature = credential.GetSignature();
    if (signature.empty()) return kEmptySignature;

    std::shared_ptr<CSharedId> stored = FindLiveForRegistration(signature);
    const bool isNew = !stored;
    if (isNew) stored = MakeCredential(credential);

    auto entry = InsertAndGetPMEntry(pid);
    if (entry == processMap.end()) {
        DWORD error = ::GetLastError();
        Log(1, kRegisterTag, L"InsertAndGetPMEntry failed. GLE = 0x" + NS_Log::Hex(error));
        // The new credential is released at once and checked in; its release lowers the lease
        // count, so it is counted here first.
        if (isNew) LeaseIncrease();
        return kProcessEntryFailed;
    }
    if (!IsHolder(*stored, pid)) listeners = stored->GetListeners();
    stored->AddHolderPid(pid);
    entry->second.credentials.push_back(stored);
    // Before the file is written: an invalid expiry is rewritten in the record (under the lock,
    // for the other threads that read it), and the file must keep that deadline across restarts.
    if (isNew && m_leaseMonitor) m_leaseMonitor->AddLeaseExpirationInfo(stored);
    PersistLocked(*stored);

    if (isNew) {
        m_AuthToCredMap.emplace(signature, CredentialRef{stored, stored.get()});
        LeaseIncrease();
    }
    RefreshCorvinCredLater();
    Log(3, kRegisterTag, L" Completed successfully.");
    return kOk;
}

void SharedIdMonitor::PersistLocked(CSharedId& credential) {
    ExpectLocked(L"[SharedIdMonitor::PersistLocked]\t called without the monitor lock");
    const std::vector<HolderProcess> holders = HoldersOfLocked(credential);
    int result = m_storage.Persist(credential, &holders);
    if (result != PersistantStorage::kOk)
        Log(1, kRegisterTag, L"Failed to write credential to persistent storage, return value = " +
                                 std::to_wstring(result));
}

std::vector<HolderProcess> SharedIdMonitor::HoldersOfLocked(const CSharedId& credential) const {
    ExpectLocked(L"[SharedIdMonitor::HoldersOfLocked]\t called without the monitor lock");
    std::vector<HolderProcess> holders;
    for (DWORD pid : credential.GetHolderPids()) {
        auto entry = processMap.find(pid);
        if (entry == processMap.end()) continue;
        holders.push_back({pid, NS_SHAREDID_UTILS::ProcessCreationTime(entry->second.waitInfo->Process())});
    }
    return holders;
}

void SharedIdMonitor::WriteHoldersLocked(const CSharedId& credential) {
    ExpectLocked(L"[SharedIdMonitor::WriteHoldersLocked]\t called without the monitor lock");
    // A record whose file could not be written has no list either.
    if (!credential.HoldsFileClaim()) return;
    // A list that cannot be written is logged there; a restart would then check the credential in.
    (void)m_storage.WriteHolders(credential, HoldersOfLocked(credential));
}

DWORD SharedIdMonitor::UnregisterSharedCreds(const CSharedId& credential, const DWORD* pid) {
    const DWORD processId = pid ? *pid : 0;
    Listeners listeners;
    DWORD result;
    {
        LockGuard lock(*this);
        result = UnregisterLocked(credential, processId, listeners);
    }
    TellRemoved(listeners, processId);
    return result;
}

DWORD SharedIdMonitor::UnregisterLocked(const CSharedId& credential, DWORD pid, Listeners& listeners) {
    ExpectLocked(L"[SharedIdMonitor::UnregisterLocked]\t called without the monitor lock");
    Log(3, kUnregisterTag, L" Start unregistering shared credential.");
    if (!credential.HasSignature()) {
        Log(1, kUnregisterTag, L" Error: Shared ID information not completed.");
        return kIncomplete;
    }
    // These two carry the registering operation's tag: the log's vocabulary has them so.
    if (pid == 0) {
        Log(1, kRegisterTag, L" Error: Invalid PID" + Pid(pid));
        return kInvalidPid;
    }
    const std::wstring signature = credential.GetSignature();
    if (signature.empty()) {
        Log(1, kRegisterTag, L" Error: Empty Credentials Signature.");
        return kEmptySignature;
    }
    auto entry = processMap.find(pid);
    if (entry == processMap.end()) {
        Log(2, kUnregisterTag, L" No ProcessMap found for PID" + Pid(pid));
        return kProcessNotRegistered;
    }
    auto [first, end] = m_AuthToCredMap.equal_range(signature);
    if (first == end) {
        Log(2, kUnregisterTag, L" Error: No existing auth service to credential mapping found.");
        return kNotAlive;
    }
    Log(3, kUnregisterTag, L" Found " + std::to_wstring(std::distance(first, end)) +
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
            Log(3, kUnregisterTag, L" Shared credentials for PID" + Pid(pid) + L" was already released.");
            continue;
        }
        auto mine = std::find(held.begin(), held.end(), live);
        if (mine == held.end()) {
            Log(2, kUnregisterTag, L" could not find the shared object in the process shared cred list for pid = " +
                                       std::to_wstring(pid));
            continue;
        }
        Log(3, kUnregisterTag, L" Strong pointer to shared id object found. Removing it from the vector of that "
                               L"ProcessMapValue for PID" + Pid(pid));
        held.erase(mine);
        // A process that registered the credential twice, or took it over as well, still holds it.
        if (std::find(held.begin(), held.end(), live) == held.end()) {
            live->RemoveHolderPid(pid);
            listeners = live->GetListeners();
            // Even when none is left: the process runs on, and a restart must not hold it for it.
            WriteHoldersLocked(*live);
        }
        Log(3, kUnregisterTag, L" found shared object with signature " + signature + L" Count = " + std::to_wstring(count));
        matched = true;
    }
    if (!matched)
        Log(2, kUnregisterTag, L" could not find shared object with signature " + signature +
                                   L" in the process list for pid = " + std::to_wstring(pid) + L" tried to look for " +
                                   std::to_wstring(count) +
                                   L" different shared objects (that has the same sig) in the process list");
    if (held.empty()) {
        Log(3, kUnregisterTag, L" Process not holding anymore shared credentials. Removing PID" + Pid(pid) +
                                   L" from processMap");
        ErasePMEntry(entry);
    }
    return lastAlive ? kOk : kNotAlive;
}

std::pair<SharedIdMonitor::SignatureMap::iterator, SharedIdMonitor::SignatureMap::iterator>
SharedIdMonitor::EntriesForLookUp(const wchar_t* tag, const CSharedId& credential) {
    Log(4, tag, L" Start checking for registered shared credential.");
    if (!credential.HasSignature()) {
        Log(1, tag, L" Error: Shared ID information not completed.");
        return {m_AuthToCredMap.end(), m_AuthToCredMap.end()};
    }
    auto range = m_AuthToCredMap.equal_range(credential.GetSignature());
    if (range.first == range.second) Log(3, tag, L" No existing auth service to credential mapping found.");
    return range;
}

bool SharedIdMonitor::IsCredsRegistered(const CSharedId& credential, CSharedId* registered) {
    LockGuard lock(*this);
    auto [it, end] = EntriesForLookUp(kIsTag, credential);
    if (it == end) return false;
    for (; it != end; ++it) {
        if (std::shared_ptr<CSharedId> live = it->second.weak.lock()) {
            *registered = *live;
            Log(3, kIsTag, L" Shared credential was already registered.");
            return true;
        }
    }
    Log(3, kIsTag, L" No previously registered shared credential found.");
    return false;
}

bool SharedIdMonitor::GetCredsRegistered(DWORD pid, const CSharedId& credential, CSharedId* registered) {
    if (pid == 0) {
        Log(1, kGetTag, L" Error: Invalid PID" + Pid(pid));
        return false;
    }
    Listeners listeners;
    bool found;
    {
        LockGuard lock(*this);
        found = GetLocked(pid, credential, registered, listeners);
    }
    TellAdded(listeners, pid);
    return found;
}

bool SharedIdMonitor::GetLocked(DWORD pid, const CSharedId& credential, CSharedId* registered,
                                Listeners& listeners) {
    ExpectLocked(L"[SharedIdMonitor::GetLocked]\t called without the monitor lock");
    auto [it, end] = EntriesForLookUp(kGetTag, credential);
    for (; it != end; ++it) {
        std::shared_ptr<CSharedId> live = it->second.weak.lock();
        if (!live) {
            Log(3, kGetTag, L" Found a matching shared credential but the object reference is null");
            continue;
        }
        Log(3, kGetTag, L" Shared credential was already registered.");
        auto entry = InsertAndGetPMEntry(pid);
        if (entry == processMap.end()) {
            Log(1, kRegisterTag, L" . GLE = 0x" + NS_Log::Hex(::GetLastError()));
            return false;
        }
        const bool added = !IsHolder(*live, pid);
        live->AddHolderPid(pid);
        entry->second.credentials.push_back(live);
        if (added) {
            listeners = live->GetListeners();
            WriteHoldersLocked(*live);
        }
        *registered = *live;
        return true;
    }
    return false;
}

SharedIdMonitor::ProcessMap::iterator SharedIdMonitor::InsertAndGetPMEntry(DWORD pid) {
    ExpectLocked(L"[SharedIdMonitor::InsertAndGetPMEntry]\t called without the monitor lock");
    auto existing = processMap.find(pid);
    if (existing != processMap.end()) return existing;

    if (pid == ::GetCurrentProcessId()) {
        // The wait on itself would never fire, and a lease expiry or the end of the session
        // would then end the service.
        Log(1, kInsertTag, L" Refusing PID (" + std::to_wstring(pid) + L"): it is the service's own process.");
        ::SetLastError(ERROR_ACCESS_DENIED);
        return processMap.end();
    }
    NS_Utils::UniqueHandle process(::OpenProcess(PROCESS_ALL_ACCESS, TRUE, pid));
    if (!process) {
        Log(1, kInsertTag, L" Unable to open process handle for PID (" + std::to_wstring(pid) + L"). Error = " +
                               std::to_wstring(::GetLastError()));
        return processMap.end();
    }
    Log(4, kInsertTag, L" Process handle opened for PID (" + std::to_wstring(pid) + L")");
    std::shared_ptr<WaitInfo> waitInfo = StartWaitForProcess(std::move(process), pid);
    if (!waitInfo) {
        Log(1, kInsertTag, L" Unable to get WaitInfo shared_ptr.");
        return processMap.end();
    }
    return processMap.emplace(pid, ProcessMapValue{std::move(waitInfo), {}}).first;
}
