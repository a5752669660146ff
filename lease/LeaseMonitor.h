#pragma once
// Watches the lease expiry of every registered credential. Once a minute it takes the credentials
// whose expiry lies within delta time of now and lists their holder processes on the lease-expiry
// window, which calls back when their time is over or when the Windows session ends.
//
// Threads: Create, WatchFor, StartLeaseMonitor, Shutdown and destruction on the registry owner's
// thread, never on the poller thread, which Shutdown waits for; AddLeaseExpirationInfo on the
// registering thread, under the registry lock; Poll, HandleLeaseExpiration and
// WaitForUserActionTimerExpiry on the poller thread; OnProcListChanged_ForSharedCredOnNotice and
// RemoveProcessInfo on the COM thread, whose registrations and releases are the only changes of
// holders that tell listeners (a holder's exit tells none); OnProcessWaitDone (which reports an
// expiry once, after waiting a few seconds for the holders it ended) and OnSessionEnd on the
// window's thread; UpdateCredentialsHeld on any thread; ListedRows on the COM thread for the
// status view. The expiry map has a lock of its own, never held while the registry lock is taken
// or the window is called.

#include "common/CriticalSection.h"
#include "common/Poller.h"
#include "common/Settings.h"
#include "monitor/LeaseWatcher.h"
#include "sharedid/SharedId.h"
#include "ui/LMMainUI.h"

#include <atomic>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

class SharedIdMonitor;

class CLeaseMonitor : public NS_THREAD_UTILS::CPoller,
                      public ILeaseWatcher,
                      public std::enable_shared_from_this<CLeaseMonitor> {
public:
    using Clock = std::function<__time64_t()>;
    using ExpiryMap = std::multimap<std::wstring, std::weak_ptr<CSharedId>>;

    static constexpr DWORD kPollIntervalMs = 60000;
    static constexpr DWORD kStopWaitMs = 3000;

    // Tests pass a clock of their own; the service's is _time64.
    static std::shared_ptr<CLeaseMonitor> Create(Clock clock = {});
    // With the poller's stop event given: one that could not be made leaves a monitor that never
    // starts, as when the system has no event to give.
    static std::shared_ptr<CLeaseMonitor> Create(Clock clock, NS_Utils::UniqueHandle stopEvent);
    ~CLeaseMonitor() override;

    // Watches the registry's credentials from now on (the registry owns this monitor then, and
    // outlives the window's thread), without starting the poller: tests poll it themselves.
    void WatchFor(SharedIdMonitor& registry);
    // WatchFor, then starts the poller thread; false when it could not be started.
    [[nodiscard]] bool StartLeaseMonitor(SharedIdMonitor& registry);
    SharedIdMonitor* Registry() const noexcept { return m_registry.load(); }

    void AddLeaseExpirationInfo(const std::shared_ptr<CSharedId>& credential) override;
    void Poll(DWORD count) override;
    [[nodiscard]] bool HandleLeaseExpiration(ExpiryMap::iterator entry);
    void WaitForUserActionTimerExpiry(const std::weak_ptr<CSharedId>& credential, SharedIdMonitor* registry);

    void OnProcListChanged_ForSharedCredOnNotice(DWORD processId, const std::weak_ptr<CSharedId>& credential);
    void RemoveProcessInfo(DWORD processId, const std::weak_ptr<CSharedId>& credential);
    void OnProcessWaitDone(const std::weak_ptr<CSharedId>& credential);
    void OnSessionEnd();
    // Tells the window whether any lease is counted; called after the count may have crossed 0.
    void UpdateCredentialsHeld(const std::atomic<LONG>& leaseCount) override;
    // The window's rows, for the status view; never under the registry lock.
    std::vector<LMListedRow> ListedRows() const override;

    // Ends the poller thread (ended by force after kStopWaitMs) and asks the window to close.
    // False when the poller was ended by force: it may have held the registry lock.
    [[nodiscard]] bool Shutdown() override;

    // One of the lease monitor's two settings, by its row of the settings table, or its default.
    static __int64 GetLeaseMonitorDeltaTimeFromRegistry(const NS_Settings::Setting& setting);
    __int64 DeltaTime() const noexcept { return m_deltaTime; }
    size_t PendingCount() const;

private:
    CLeaseMonitor(Clock clock, NS_Utils::UniqueHandle stopEvent);
    LMMainUICallbacks MakeCallbacks();
    // Moves out under the map lock, each in map order, the entries before `low` into `stale` and
    // those from `low` up to and including `high` into `due` (none when `high` is before `low`).
    void TakeDue(const std::wstring& low, const std::wstring& high, ExpiryMap& stale, ExpiryMap& due);
    void HandleStale(ExpiryMap& stale, const std::wstring& now);
    void HandleDue(ExpiryMap& due);
    // True the first time an expiry of the credential is handled: its event is written once.
    // The window's thread only.
    bool FirstReportOf(const std::weak_ptr<CSharedId>& credential);
    // Under the map lock: drops the entries of credentials released since (their weak pointer has
    // expired), whose lease may lie years ahead.
    void DropReleasedLocked();

    const __int64 m_deltaTime;
    const __int64 m_defaultLeaseDuration;
    mutable NS_Utils::CriticalSection m_mapLock;
    ExpiryMap m_expiryMap;
    // The map's size after its last drop of released entries; the next drop comes once it has doubled.
    size_t m_sizeAfterDrop = 0;
    std::atomic<SharedIdMonitor*> m_registry{nullptr};
    Clock m_clock;
    NS_Utils::CriticalSection m_heldLock;
    bool m_credentialsHeld = false;
    // Credentials whose expiry has been reported (the window's thread only); the gone ones are
    // dropped as the next expiry comes.
    std::vector<std::weak_ptr<CSharedId>> m_reportedExpiries;
    // Last: destroyed first, so that the window's thread has ended before anything its callbacks use.
    LMMainUI m_ui;
};
