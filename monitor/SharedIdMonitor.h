#pragma once
// Which process holds which shared credential. Credentials are owned only by the strong
// pointers in process entries; when the last one goes, the credential is handed to the
// collector, which checks it in on its own thread. One lock guards both maps.
//
// Threads: Register/Unregister/IsCredsRegistered/GetCredsRegistered, AttachLeaseMonitor and Shutdown
// on the COM thread; OnProcessExit on thread-pool wait callbacks; OnCheckInTaken, OnSharedIDReadyForGC
// and LeaseDecrease from the check-in pipeline on the collector's worker; GCUncheckedInCredentials
// on the owner's thread at start and on the worker when the agent is back; LeaseIncrease from any of
// them; AddListener, HolderPids, DuplicateProcessHandle and CanEndHolder from the lease monitor's threads;
// OnLeaseExpired and OnWndSessionEnd on the lease-expiry window's thread; TakeStatusSnapshot on the
// COM thread. Each takes the monitor lock for the maps and never calls listeners, the window or
// the agent under it. Everything on the way back to the identity server is the pipeline's.

#include "common/CriticalSection.h"
#include "common/GarbageCollector.h"
#include "monitor/AuditTrail.h"
#include "monitor/CheckInPipeline.h"
#include "monitor/LeaseWatcher.h"
#include "monitor/SimGC.h"
#include "monitor/StatusSnapshot.h"
#include "monitor/WaitInfo.h"
#include "sharedid/PersistantStorage.h"
#include "sharedid/SharedId.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>


class SharedIdMonitor final : public std::enable_shared_from_this<SharedIdMonitor>, public ICheckInRegistry {
public:
    // Results of RegisterSharedCreds and UnregisterSharedCreds, passed to clients unchanged.
    enum Result : DWORD {
        kOk = 0,
        kProcessEntryFailed = 1,
        kInvalidPid = 2,
        kIncomplete = 4,
        kNotAlive = 5,
        kProcessNotRegistered = 7,
        kEmptySignature = 8,
        // The credential's file (or its holder list) could not be written and flushed: the
        // client is told so and keeps the credential; nothing of it stays registered.
        kNotStored = 9,
    };

    struct ProcessMapValue {
        std::shared_ptr<WaitInfo> waitInfo;
        std::vector<std::shared_ptr<CSharedId>> credentials;  // in the order added, duplicates kept
        // Those of them held only because a holder list named this process when files were taken
        // up: the process's own registration of one after a restart claims that reference
        // instead of adding a second, so that its one release lets go.
        std::vector<const CSharedId*> takenUp;
        // Credentials whose expiry has named this process as one that may not be ended.
        std::vector<const CSharedId*> namedUnendable;
    };
    using ProcessMap = std::map<DWORD, ProcessMapValue>;

    // The monitor lives in a shared pointer: waits and work items hold weak references to it.
    // Its owner calls Shutdown on its own thread before dropping its reference. A wait callback
    // that runs meanwhile may hold the last one, so after Shutdown the destructor only lets go of
    // the entries, which is safe on a pool thread; it must never run on the collector's worker
    // (the destructor ends the process then).
    static std::shared_ptr<SharedIdMonitor> Create();
    SharedIdMonitor(const SharedIdMonitor&) = delete;
    SharedIdMonitor& operator=(const SharedIdMonitor&) = delete;
    ~SharedIdMonitor();
    // Owner's thread: stops what watches leases and the collector's worker (its running item gets
    // a short grace). Credentials not yet checked in keep their files for the next start. False
    // when a thread had to be ended by force: the owner must then take no lock of the monitor's
    // (nor destroy it) and end the process.
    [[nodiscard]] bool Shutdown();

    [[nodiscard]] DWORD RegisterSharedCreds(const CSharedId& credential, const DWORD* pid);
    [[nodiscard]] DWORD UnregisterSharedCreds(const CSharedId& credential, const DWORD* pid);
    [[nodiscard]] bool IsCredsRegistered(const CSharedId& credential, CSharedId* registered);
    // Also makes `pid` a holder of the credential found: how a client takes one over.
    [[nodiscard]] bool GetCredsRegistered(DWORD pid, const CSharedId& credential, CSharedId* registered);

    std::shared_ptr<WaitInfo> StartWaitForProcess(NS_Utils::HolderProcessHandle process, DWORD pid);
    static void CALLBACK WaitCallback(void* context, BOOLEAN timerOrWaitFired);
    void OnProcessExit(const DWORD* pid);

    void OnCheckInTaken(const std::shared_ptr<CSharedId>& released) override;
    void OnSharedIDReadyForGC(const std::wstring& signature, const CSharedId* record);
    // Takes up every credential file that no live instance claims: a credential whose holder
    // list names a process still running is held again for those processes; the others are
    // queued for check-in. At start (owner's thread), and on the worker when the agent can be
    // reached again after files were kept.
    [[nodiscard]] bool GCUncheckedInCredentials() override;
    // How often files that another program had open at their take-up are tried again.
    static constexpr DWORD kBusyRetryMs = 2000;

    void LeaseIncrease();
    void LeaseDecrease() override;
    LONG LeaseCount() const { return m_leaseCount.load(); }

    NS_Utils::CGarbageCollector& Collector() { return *m_gc; }
    PersistantStorage& Storage() { return m_storage; }
    // The lease monitor, owned from now on; it is handed the credentials registered from now on.
    void AttachLeaseMonitor(std::shared_ptr<ILeaseWatcher> leaseMonitor);

    // Lease monitor's threads, each under the monitor lock for its own duration.
    void AddListener(const std::shared_ptr<CSharedId>& credential, std::shared_ptr<AbsSharedCredListener> listener);
    std::vector<DWORD> HolderPids(const std::shared_ptr<CSharedId>& credential);
    // A handle of the caller's own to a registered process, or none.
    NS_Utils::UniqueHandle DuplicateProcessHandle(DWORD pid);
    // False for a registered process that may be watched but not ended (elevated, another user's).
    bool CanEndHolder(DWORD pid);

    static constexpr UINT kTerminatedExitCode = 8976;
    static constexpr DWORD kLogoffPauseMs = 2000;
    static constexpr DWORD kLogoffWaitMs = 120000;
    // How long the end of the session waits for the holders it ended to be gone before their
    // check-ins are sent, so that they go together.
    static constexpr DWORD kLogoffGatherMs = 1000;
    // Ends every holder of the credential; their exits release it.
    void OnLeaseExpired(const std::weak_ptr<CSharedId>& expired);
    // The session ends: ends every holder, then waits (bounded) until every lease is checked in.
    void OnWndSessionEnd();
    // The milliseconds the logoff's give-up is measured on (GetTickCount64 by default); tests set
    // a faster one before any logoff, so that none waits the two minutes out.
    void SetLogoffClock(std::function<ULONGLONG()> clock) { m_logoffClock = std::move(clock); }

    // What is held and what waits for check-in. The registry's part is copied under the monitor
    // lock; the window's rows and the holders' executable names are added after it is left.
    StatusSnapshot TakeStatusSnapshot();
    // The user logged on to the agent, as the check-in worker last read it; any thread.
    std::wstring EnterpriseId() const { return m_pipeline.EnterpriseId(); }
    // The end of the session was announced and did not come (a cancelled logoff): retries go back
    // to the usual pause. Any thread.
    void OnSessionGoesOn() { m_pipeline.SessionGoesOn(); }

    // For the rules of callers that must never call in under it.
    const NS_Utils::CriticalSection& RegistryLock() const noexcept { return m_lock; }

    // For diagnostics: processes with an entry, and signature entries (live or expired).
    size_t ProcessCount() const;
    size_t SignatureEntryCount() const;

private:
    struct CredentialRef {
        std::weak_ptr<CSharedId> weak;
        const CSharedId* address;  // identifies the record once the weak pointer has expired
    };
    using SignatureMap = std::multimap<std::wstring, CredentialRef>;
    using Listeners = std::vector<std::shared_ptr<AbsSharedCredListener>>;
    // Tells each listener of the copy, outside the lock.
    void TellAdded(const Listeners& listeners, DWORD pid) const;
    void TellRemoved(const Listeners& listeners, DWORD pid) const;
    class LockGuard : public NS_Utils::CritSecGuard {
    public:
        explicit LockGuard(SharedIdMonitor& monitor) : CritSecGuard(monitor.m_lock) {}
    };

    SharedIdMonitor();
    ProcessMap::iterator InsertAndGetPMEntry(DWORD pid);
    void ErasePMEntry(ProcessMap::iterator entry);
    // What runs when a credential's last strong reference drops: it goes to the check-in pipeline.
    struct ReleaseAction {
        std::weak_ptr<SharedIdMonitor> monitor;  // reset: only freed (a refused registration's)
        void operator()(CSharedId* raw) const;
    };
    std::shared_ptr<CSharedId> MakeCredential(CSharedId record);
    // Drops a credential made for a registration that is refused: freed, never checked in.
    static void Unmake(std::shared_ptr<CSharedId> credential);
    std::shared_ptr<CSharedId> FindLiveForRegistration(const std::wstring& signature);
    // The signature's entries for a look-up, logged under `tag`; empty without a signature.
    std::pair<SignatureMap::iterator, SignatureMap::iterator> EntriesForLookUp(const wchar_t* tag,
                                                                               const CSharedId& credential);
    // A holder list to be written once the monitor lock is left: numbered and read under it,
    // written without it (WriteList), so that a slow or hung disk holds up no other caller. The
    // strong reference keeps the credential from being checked in (its file deleted) meanwhile.
    struct ListWrite {
        std::shared_ptr<CSharedId> credential;
        std::vector<HolderProcess> holders;
        ULONGLONG number = 0;
    };
    [[nodiscard]] DWORD RegisterLocked(const CSharedId& credential, DWORD pid, Listeners& listeners);
    [[nodiscard]] DWORD UnregisterLocked(const CSharedId& credential, DWORD pid, Listeners& listeners,
                                         std::optional<ListWrite>& write);
    [[nodiscard]] bool GetLocked(DWORD pid, const CSharedId& credential, CSharedId* registered, Listeners& listeners,
                                 std::optional<ListWrite>& write);
    // False, logged, when the file could not be written; the record keeps the file it had.
    [[nodiscard]] bool PersistLocked(CSharedId& credential);
    // The credential's holders with their creation times, from the process map.
    std::vector<HolderProcess> HoldersOfLocked(const CSharedId& credential) const;
    // Replaces the holder list beside the credential's file after its holders changed, waiting
    // for a list write of it that runs outside the lock (only where files are taken up).
    void WriteHoldersLocked(CSharedId& credential);
    ListWrite PrepareListLocked(const std::shared_ptr<CSharedId>& credential);
    void WriteList(const ListWrite& write);
    // Holds a credential read from its file again for those of its listed holders that still
    // run, as a record of its own unless a record of the same lease (signature and lease DN) is
    // held: that one then takes the holders it lacks and the file is deleted as its copy. With
    // no running holder only that second case applies. False, with the record untouched, when
    // neither did.
    [[nodiscard]] bool AdoptLocked(CSharedId& record, const std::vector<HolderProcess>& running);
    // Holds again or queues for check-in the records read from their files (claimed), as at start;
    // files in use by another program are tried again later.
    void TakeUp(std::list<CSharedId>& stored);
    void ScheduleBusyRetry();
    static void CALLBACK BusyRetryDue(void* context, BOOLEAN);
    // Worker: the files in use tried again.
    void RetryBusyFiles();
    // The holders in the record's list that still run; none when it has no list (`listed`: the
    // files that have one, from one listing of the folder).
    std::vector<HolderProcess> RunningHolders(const CSharedId& record, const std::set<std::wstring>& listed) const;
    // Held by the "Locked" functions and the map helpers (checked); listeners, the window and the
    // agent are never called under it (checked).
    mutable NS_Utils::CriticalSection m_lock;
    ProcessMap processMap;
    SignatureMap m_AuthToCredMap;
    std::shared_ptr<NS_Utils::CGarbageCollector> m_gc;
    std::unique_ptr<SimGC> m_simGC;
    PersistantStorage m_storage;
    CAuditTrail m_audit{m_lock, m_storage.Folder()};
    CCheckInPipeline m_pipeline{*m_gc, m_storage};
    std::shared_ptr<ILeaseWatcher> LeaseMonitor() const;
    // Outside the monitor lock, after the lease count may have crossed 0.
    void UpdateCredentialsHeld();
    // Ends one holder with kTerminatedExitCode; logs a failure under `tag`, so a caller may
    // ignore the result.
    static bool TerminateHolder(DWORD pid, HANDLE process, const wchar_t* tag);
    // Ends the holder, or names it when it may not be ended.
    void EndHolderAtLogoff(DWORD pid);
    void WaitForCheckIns();
    // Until every registered process is gone (its exit handled), the deadline, or a stop.
    void WaitForHoldersGone(DWORD milliseconds);
    // Under the monitor lock: the live credentials, and beside each its record for matching the
    // window's rows once the lock is left.
    void CopyHeldLocked(std::vector<CredentialStatus>& held, std::vector<std::weak_ptr<CSharedId>>& records) const;

    std::shared_ptr<ILeaseWatcher> m_leaseMonitor;
    // Armed while files in use wait to be tried again; under the monitor lock, deleted outside it.
    NS_Utils::UniqueTimerQueueTimer m_busyRetry;
    std::atomic<LONG> m_leaseCount{0};
    // Set when the service stops: ends the logoff's wait for check-ins at once.
    NS_Utils::UniqueHandle m_stopping{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    // Set when the lease count falls: the logoff's wait looks again at once, not at its next pause.
    NS_Utils::UniqueHandle m_leaseFell{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    std::function<ULONGLONG()> m_logoffClock{&::GetTickCount64};
};
