#include "lease/LeaseMonitor.h"

#include "common/EventLog.h"
#include "common/FailFast.h"
#include "common/Log.h"
#include "common/ModulePath.h"
#include "common/Registry.h"
#include "lease/LMSharedCredListener.h"
#include "monitor/SharedIdMonitor.h"
#include "sharedid/ExpiryTime.h"

namespace {
// The map lock is taken inside the registry lock (AddLeaseExpirationInfo), so it is never held on
// the way back into the registry; nor while the window, which can wait seconds for its thread, is
// called.
constexpr const wchar_t* kMapLockedRule =
    L"[CLeaseMonitor]\t the registry or the window called under the expiry map lock";
constexpr const wchar_t* kPollTag = L"[CLeaseMonitor::Poll]\t";
constexpr const wchar_t* kWaitTag = L"[CLeaseMonitor::WaitForUserActionTimerExpiry]\t";
constexpr const wchar_t* kUnderRegistryLock = L"[CLeaseMonitor]\t the window called under the monitor lock";

// The holders of `credential` as "program (pid)", comma-separated, for the event that says whom an
// expiry ended; read before they are ended, while the registry still knows their processes.
std::wstring HolderNames(SharedIdMonitor& registry, const std::shared_ptr<CSharedId>& credential) {
    std::wstring names;
    for (DWORD pid : registry.HolderPids(credential)) {
        const NS_Utils::UniqueHandle process = registry.DuplicateProcessHandle(pid);
        if (!names.empty()) names += L", ";
        names += NS_Utils::FileNameOf(NS_Utils::ProcessImagePath(process.get())) + L" (" + std::to_wstring(pid) + L")";
    }
    return names;
}

__time64_t SystemNow() {
    ::_tzset();
    return ::_time64(nullptr);
}
}  // namespace

std::shared_ptr<CLeaseMonitor> CLeaseMonitor::Create(Clock clock) {
    return Create(std::move(clock), NS_Utils::UniqueHandle(::CreateEventW(nullptr, FALSE, FALSE, nullptr)));
}

std::shared_ptr<CLeaseMonitor> CLeaseMonitor::Create(Clock clock, NS_Utils::UniqueHandle stopEvent) {
    return std::shared_ptr<CLeaseMonitor>(
        new CLeaseMonitor(clock ? std::move(clock) : Clock(&SystemNow), std::move(stopEvent)));
}

CLeaseMonitor::CLeaseMonitor(Clock clock, NS_Utils::UniqueHandle stopEvent)
    : CPoller(std::move(stopEvent)),
      m_deltaTime(GetLeaseMonitorDeltaTimeFromRegistry(NS_Settings::kLeaseMonitorDeltaTime)),
      m_defaultLeaseDuration(GetLeaseMonitorDeltaTimeFromRegistry(NS_Settings::kDefaultLeaseExpiryDuration)),
      m_clock(std::move(clock)),
      m_ui(MakeCallbacks()) {
    SetInterval(kPollIntervalMs);
}

CLeaseMonitor::~CLeaseMonitor() {
    // An owner whose stop ended the poller by force ends the process before it gets here.
    (void)Shutdown();
}

LMMainUICallbacks CLeaseMonitor::MakeCallbacks() {
    // Bound to `this`: the window's thread ends in ~LMMainUI, before the monitor's other members go.
    LMMainUICallbacks callbacks;
    callbacks.onExpiryPassed = [this](const std::weak_ptr<CSharedId>& credential) { OnProcessWaitDone(credential); };
    callbacks.onSessionEnd = [this] { OnSessionEnd(); };
    callbacks.getProcFromPid = [this](DWORD pid) {
        SharedIdMonitor* registry = Registry();
        return registry ? registry->DuplicateProcessHandle(pid) : NS_Utils::UniqueHandle();
    };
    callbacks.getSidProcList = [this](const std::shared_ptr<CSharedId>& credential) {
        SharedIdMonitor* registry = Registry();
        return registry && credential ? registry->HolderPids(credential) : std::vector<DWORD>();
    };
    callbacks.canEnd = [this](DWORD pid) {
        SharedIdMonitor* registry = Registry();
        return !registry || registry->CanEndHolder(pid);
    };
    callbacks.now = m_clock;
    return callbacks;
}

void CLeaseMonitor::WatchFor(SharedIdMonitor& registry) {
    m_registry.store(&registry);
    registry.AttachLeaseMonitor(shared_from_this());
}

bool CLeaseMonitor::StartLeaseMonitor(SharedIdMonitor& registry) {
    NS_Log::Log(3, L"[SharedIdMonitor::StartLeaseMonitor]\t Starting LeaseMonitor ");
    if (!CanStart()) return false;  // no poller without a way to stop it: no lease warnings
    WatchFor(registry);
    return Start(this);
}

bool CLeaseMonitor::Shutdown() {
    Rule().CheckNot(L"[CLeaseMonitor::Shutdown]\t called on the poller thread, which would wait for itself");
    CPoller::Stop();
    const bool orderly = Join(kStopWaitMs) != WAIT_TIMEOUT;
    if (!orderly) Terminate(0);
    m_ui.IssueStop();
    return orderly;
}

__int64 CLeaseMonitor::GetLeaseMonitorDeltaTimeFromRegistry(const NS_Settings::Setting& setting) {
    const std::wstring tag = L"[CLeaseMonitor::GetLeaseMonitorDeltaTimeFromRegistry]\t";
    const std::wstring where = L"RegKey = " + std::wstring(setting.key) + L", RegValue = " + setting.valueName;
    // Its row takes 0 and negative settings as they stand: no lower bound.
    const std::optional<long long> value = NS_Settings::ReadNumber(setting);
    if (!value) {
        NS_Log::Log(2, tag + L" Get registry value failed, " + where);
        return setting.defaultNumber;
    }
    NS_Log::Log(3, tag + L" " + where + L", outValue = " + std::to_wstring(*value));
    return *value;
}

size_t CLeaseMonitor::PendingCount() const {
    NS_Utils::CritSecGuard lock(m_mapLock);
    return m_expiryMap.size();
}

void CLeaseMonitor::AddLeaseExpirationInfo(const std::shared_ptr<CSharedId>& credential) {
    if (!credential) return;
    std::wstring expiry = credential->GetLeaseExpiry();
    __time64_t parsed = 0;
    if (!NS_LEASE_UTILS::ExpiryTextToTime(expiry, parsed)) {
        expiry = NS_LEASE_UTILS::TimeToExpiryText(m_clock() + m_defaultLeaseDuration);
        NS_Log::Log(2, L"[CLeaseMonitor::AddLeaseExpirationInfo\tInvalid expiry time, set it to " + expiry);
        // The record and the map agree from now on (the caller holds the registry lock).
        credential->SetLeaseExpiry(expiry);
    }
    NS_Utils::CritSecGuard lock(m_mapLock);
    m_expiryMap.emplace(std::move(expiry), credential);
}

void CLeaseMonitor::Poll(DWORD) {
    const __time64_t now = m_clock();
    ExpiryMap stale;
    ExpiryMap due;
    TakeDue(NS_LEASE_UTILS::TimeToExpiryText(now - m_deltaTime), NS_LEASE_UTILS::TimeToExpiryText(now + m_deltaTime),
            stale, due);
    HandleStale(stale, NS_LEASE_UTILS::TimeToExpiryText(now));
    HandleDue(due);
}

void CLeaseMonitor::TakeDue(const std::wstring& low, const std::wstring& high, ExpiryMap& stale, ExpiryMap& due) {
    NS_Utils::CritSecGuard lock(m_mapLock);
    const auto firstDue = m_expiryMap.lower_bound(low);
    // A negative delta puts high before low: nothing is due, and the walk must not pass the end.
    const auto firstLater = high < low ? firstDue : m_expiryMap.upper_bound(high);
    // A node inserted into a multimap goes after its equal keys, so the order is kept.
    for (auto it = m_expiryMap.begin(); it != firstDue;) stale.insert(m_expiryMap.extract(it++));
    for (auto it = firstDue; it != firstLater;) due.insert(m_expiryMap.extract(it++));
}

void CLeaseMonitor::HandleStale(ExpiryMap& stale, const std::wstring& now) {
    for (auto it = stale.begin(); it != stale.end(); it = stale.erase(it)) {
        NS_Log::Log(1,
                    kPollTag + std::wstring(L"Expiry time is before time period of monitoring. Current time = ") + now);
        WaitForUserActionTimerExpiry(it->second, Registry());
    }
}

void CLeaseMonitor::HandleDue(ExpiryMap& due) {
    for (auto it = due.begin(); it != due.end(); it = due.erase(it)) {
        if (!HandleLeaseExpiration(it))
            NS_Log::Log(1, kPollTag + std::wstring(L"HandleLeaseExpiration failed. Erase entry from map anyway."));
    }
}

bool CLeaseMonitor::HandleLeaseExpiration(ExpiryMap::iterator entry) {
    if (entry->second.expired()) {
        NS_Log::Log(2, L"[CLeaseMonitor::HandleLeaseExpiration\tUnable to lock the weak pointer.");
        return false;
    }
    WaitForUserActionTimerExpiry(entry->second, Registry());
    return true;
}

void CLeaseMonitor::WaitForUserActionTimerExpiry(const std::weak_ptr<CSharedId>& credential,
                                                 SharedIdMonitor* registry) {
    m_mapLock.CheckNotHeld(kMapLockedRule);
    std::shared_ptr<CSharedId> live = credential.lock();
    if (!live || !registry) {
        NS_Log::Log(3, kWaitTag + std::wstring(L"Weak pointer already expired."));
        return;
    }
    NS_Log::Log(3, kWaitTag + std::wstring(L" Looking at process holding on to shared cred that is about to expire"));
    registry->AddListener(live, std::make_shared<LMSharedCredListener>(credential, weak_from_this()));
    const std::vector<DWORD> holders = registry->HolderPids(live);
    live.reset();
    for (DWORD pid : holders) {
        NS_Log::Log(3, kWaitTag + std::wstring(L" Adding to UI process with Id = ") + std::to_wstring(pid));
        registry->RegistryLock().CheckNotHeld(kUnderRegistryLock);
        m_ui.ShowProcessInfo(pid, registry->DuplicateProcessHandle(pid), credential);
    }
}

void CLeaseMonitor::OnProcListChanged_ForSharedCredOnNotice(DWORD processId,
                                                            const std::weak_ptr<CSharedId>& credential) {
    m_mapLock.CheckNotHeld(kMapLockedRule);
    SharedIdMonitor* registry = Registry();
    NS_Utils::UniqueHandle process = registry ? registry->DuplicateProcessHandle(processId) : NS_Utils::UniqueHandle();
    if (!process) {
        NS_Log::Log(2,
                    L"[CLeaseMonitor::OnProcListChanged_ForSharedCredOnNotice]/t could not get process handle from "
                    L"SharedIdMonitor for PID = " +
                        std::to_wstring(processId));
        return;
    }
    registry->RegistryLock().CheckNotHeld(kUnderRegistryLock);
    m_ui.ShowProcessInfo(processId, std::move(process), credential);
}

void CLeaseMonitor::RemoveProcessInfo(DWORD processId, const std::weak_ptr<CSharedId>& credential) {
    m_mapLock.CheckNotHeld(kMapLockedRule);
    if (SharedIdMonitor* registry = Registry()) registry->RegistryLock().CheckNotHeld(kUnderRegistryLock);
    m_ui.RemoveProcessInfo(processId, credential);
}

void CLeaseMonitor::OnProcessWaitDone(const std::weak_ptr<CSharedId>& credential) {
    m_mapLock.CheckNotHeld(kMapLockedRule);
    NS_Log::Log(3, L"[CLeaseMonitor::OnProcessWaitDone]\tRelease the process.");
    SharedIdMonitor* registry = Registry();
    if (!registry) return;
    std::wstring leaseDN, holders;
    if (std::shared_ptr<CSharedId> live = credential.lock()) {
        leaseDN = live->GetLeaseDN();
        holders = HolderNames(*registry, live);
    }
    registry->OnLeaseExpired(credential);
    if (!holders.empty()) NS_EventLog::Report(NS_EventLog::Event::HoldersEndedAtExpiry, {leaseDN, holders});
}

void CLeaseMonitor::OnSessionEnd() {
    m_mapLock.CheckNotHeld(kMapLockedRule);
    NS_Log::Log(3, L"[CLeaseMonitor::OnSessionEnd]\tRelease all shared ids on session end.");
    if (SharedIdMonitor* registry = Registry()) registry->OnWndSessionEnd();
}

void CLeaseMonitor::UpdateCredentialsHeld(const std::atomic<LONG>& leaseCount) {
    // The count is read under this lock, so the last call made tells the window the latest state
    // even when two threads cross 0 in opposite directions at once.
    m_mapLock.CheckNotHeld(kMapLockedRule);
    NS_Utils::CritSecGuard lock(m_heldLock);
    const bool held = leaseCount.load() > 0;
    if (held == m_credentialsHeld) return;
    m_credentialsHeld = held;
    m_ui.SetCredentialsHeld(held);
}

std::vector<LMListedRow> CLeaseMonitor::ListedRows() const {
    m_mapLock.CheckNotHeld(kMapLockedRule);
    return m_ui.ListedRows();
}
