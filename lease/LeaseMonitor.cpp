#include "lease/LeaseMonitor.h"

#include "common/EventLog.h"
#include "common/FailFast.h"
#include "common/Log.h"
#include "common/ModulePath.h"
#include "common/Registry.h"
#include "lease/LMSharedCredListener.h"
#include "monitor/SharedIdMonitor.h"
#include "sharedid/ExpiryTime.h"

#include <algorithm>

namespace {
// The map lock is taken inside the registry lock (AddLeaseExpirationInfo), so it is never held on
// the way back into the registry; nor while the window, which can wait seconds for its thread, is
// called.
constexpr const wchar_t* kMapLockedRule =
    L"[CLeaseMonitor]\t the registry or the window called under the expiry map lock";
constexpr const wchar_t* kPollTag = L"[CLeaseMonitor::Poll]\t";
constexpr const wchar_t* kWaitTag = L"[CLeaseMonitor::WaitForUserActionTimerExpiry]\t";
// Released entries are dropped once there are at least this many more entries than after the last drop.
constexpr size_t kDropSlack = 64;
constexpr const wchar_t* kUnderRegistryLock = L"[CLeaseMonitor]\t the window called under the monitor lock";

// How long the expiry waits for the holders it ended to be gone before it says which are: ending a
// process takes Windows a moment after TerminateProcess has answered.
constexpr DWORD kHolderEndWaitMs = 3000;

struct ExpiringHolder {
    DWORD pid;
    std::wstring program;
    NS_Utils::UniqueHandle process;  // a duplicate of the registry's, to wait on
};

// Read before the holders are ended, while the registry still knows their processes.
std::vector<ExpiringHolder> HoldersOf(SharedIdMonitor& registry, const std::shared_ptr<CSharedId>& credential) {
    std::vector<ExpiringHolder> holders;
    for (DWORD pid : registry.HolderPids(credential)) {
        NS_Utils::UniqueHandle process = registry.DuplicateProcessHandle(pid);
        std::wstring program = NS_Utils::FileNameOf(NS_Utils::ProcessImagePath(process.get()));
        holders.push_back({pid, std::move(program), std::move(process)});
    }
    return holders;
}

// The holders as "program (pid)", comma-separated, for the event that says whom an expiry ended;
// one still running once the wait is over is said to be so.
std::wstring EndedHolderNames(const std::vector<ExpiringHolder>& holders) {
    const ULONGLONG deadline = ::GetTickCount64() + kHolderEndWaitMs;
    std::wstring names;
    for (const ExpiringHolder& holder : holders) {
        const ULONGLONG now = ::GetTickCount64();
        const DWORD left = now < deadline ? static_cast<DWORD>(deadline - now) : 0;
        const bool ended = holder.process && ::WaitForSingleObject(holder.process.get(), left) == WAIT_OBJECT_0;
        if (!names.empty()) names += L", ";
        names += holder.program + L" (" + std::to_wstring(holder.pid) + (ended ? L")" : L", could not be ended)");
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
    // A released credential's entry keeps its control block and the entry itself until the lease's
    // time: a client that registers and releases in a loop would grow the service without bound.
    // Dropping them once the map has doubled keeps the registrations' cost constant on average.
    if (m_expiryMap.size() >= 2 * m_sizeAfterDrop + kDropSlack) DropReleasedLocked();
}

void CLeaseMonitor::DropReleasedLocked() {
    std::erase_if(m_expiryMap, [](const ExpiryMap::value_type& entry) { return entry.second.expired(); });
    m_sizeAfterDrop = m_expiryMap.size();
}

void CLeaseMonitor::Poll(DWORD) {
    {
        // What a quiet minute left behind goes here, so that nothing released outlives a poll.
        NS_Utils::CritSecGuard lock(m_mapLock);
        DropReleasedLocked();
    }
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
    // The window calls at every tick until the rows are gone: the holders are ended again each
    // time (one that could not be ended may be by now), the expiry is reported once.
    std::wstring leaseDN;
    std::vector<ExpiringHolder> holders;
    if (std::shared_ptr<CSharedId> live = credential.lock(); live && FirstReportOf(credential)) {
        leaseDN = live->GetLeaseDN();
        holders = HoldersOf(*registry, live);
    }
    registry->OnLeaseExpired(credential);
    if (!holders.empty())
        NS_EventLog::Report(NS_EventLog::Event::HoldersEndedAtExpiry, {leaseDN, EndedHolderNames(holders)});
}

bool CLeaseMonitor::FirstReportOf(const std::weak_ptr<CSharedId>& credential) {
    std::erase_if(m_reportedExpiries, [](const std::weak_ptr<CSharedId>& reported) { return reported.expired(); });
    const bool reported = std::any_of(m_reportedExpiries.begin(), m_reportedExpiries.end(), [&](const auto& other) {
        return !other.owner_before(credential) && !credential.owner_before(other);
    });
    if (!reported) m_reportedExpiries.push_back(credential);
    return !reported;
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
