#pragma once
// The way back to the identity server. Credentials let go by their holders, or found on disk,
// wait in a queue; the collector's worker takes a call's worth of one identity server's rows at a
// time, sends them through the releaser, and decides each row by one table: forgotten (answered
// finally), given up (another user's), tried again after the pause (a transient answer, or none),
// or put back untouched (no call carried it). A row is final only when the agent answered it.
// When the agent cannot be reached at all, credentials are let go here with their files kept,
// and the agent is asked for again until it answers; then the registry takes the files up.
//
// The retry pause is a row's own: it waits in the queue until it is due, and the worker goes on
// meanwhile, so rows let go during the pause go out at once. When the session ends every waiting
// row is due at once, and later pauses are short, so that the logoff's wait sees them answered.
//
// Threads: Release and CheckInFromFile on whichever thread lets a credential go or takes a file
// up (the COM thread and thread-pool wait callbacks, often under the registry lock; the owner's
// thread at start; the worker when the agent is back); RefreshAccountLater, HoldCheckIns,
// ResumeCheckIns, SendEveryRowNow and SessionGoesOn on any thread; Board, AgentState and
// EnterpriseId on the COM thread. Everything else runs on the collector's worker and checks it;
// the agent is never called under the registry's lock (checked through it). The queue's, the
// board's and the identity's locks are leaves, so the first two may be called under the registry's.

#include "checkin/CheckInDecision.h"
#include "checkin/EnterpriseIdentity.h"
#include "checkin/SharedIdReleaser.h"
#include "common/GarbageCollector.h"
#include "monitor/AuditTrail.h"
#include "monitor/CheckInBoard.h"
#include "monitor/CheckInQueue.h"
#include "sharedid/PersistantStorage.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

// What the pipeline tells the registry that owns it; every call on the collector's worker.
class ICheckInRegistry {
public:
    // A credential let go by its holders is taken for check-in: its signature entry goes.
    virtual void OnCheckInTaken(const std::shared_ptr<CSharedId>& released) = 0;
    // A credential is no longer the service's to answer for: checked in, given up, or kept on disk.
    virtual void LeaseDecrease() = 0;
    // The agent answers again after files were kept: they are taken up.
    virtual bool GCUncheckedInCredentials() = 0;

protected:
    ~ICheckInRegistry() = default;
};

class CCheckInPipeline {
public:
    // Up to this many credentials go to the agent in one call.
    static constexpr size_t kMaxRowsPerCall = 64;
    static constexpr DWORD kAgentProbeFloorMs = 1000;
    // The retry pause while the session ends: the logoff waits two minutes at most.
    static constexpr DWORD kSessionEndPauseMs = 1000;
    // A row still not answered after this many calls is reported to the event log, once.
    static constexpr unsigned kReportAfterAttempts = 10;

    // `collector` and `storage` outlive the pipeline; its work runs on the collector's worker.
    CCheckInPipeline(NS_Utils::CGarbageCollector& collector, PersistantStorage& storage);
    CCheckInPipeline(const CCheckInPipeline&) = delete;
    CCheckInPipeline& operator=(const CCheckInPipeline&) = delete;
    // Before any work is queued. The pipeline is a part of the registry: a work item that cannot
    // lock it does nothing, and one that can keeps the pipeline alive while it runs. The agent is
    // never called under `registryLock`.
    void Bind(std::weak_ptr<ICheckInRegistry> registry, const NS_Utils::CriticalSection& registryLock) {
        m_registry = std::move(registry);
        m_registryLock = &registryLock;
        // The agent's user is known before the first registration asks for it, where the worker runs.
        RefreshAccountLater();
    }
    void SetAuditTrail(CAuditTrail& audit) { m_audit = &audit; }  // before any work is queued

    // Let go by its holders: checked in once the worker gets to it.
    void Release(std::shared_ptr<CSharedId> credential);
    // Read from a file that nobody holds: checked in, its file deleted once the agent answers.
    void CheckInFromFile(std::shared_ptr<CSharedId> credential);
    // The identity-server account and the agent's user are read on the worker (one refresh
    // waiting is enough).
    void RefreshAccountLater();
    // Any thread: while held, waiting rows are not sent, so that rows let go together (the end of
    // the session ends every holder at once) gather into one call per server instead of the first
    // going alone. Resuming sends what waits, rows in their retry pause included: only the end of
    // the session holds check-ins.
    void HoldCheckIns() { m_held.store(true); }
    void ResumeCheckIns();
    // The session ends: every waiting row goes out now, pauses or not, and a row answered with
    // "later" is tried again after kSessionEndPauseMs from here on.
    void SendEveryRowNow();
    // The end of the session was cancelled (the user went back to the desktop): pauses are the
    // setting's again.
    void SessionGoesOn() { m_sessionEnding.store(false); }
    // The user logged on to the agent as the worker last saw it, for registrations; empty until
    // the worker has seen one.
    std::wstring EnterpriseId() const { return m_enterpriseId.Get(); }

    std::vector<CredentialStatus> Board() const { return m_board.Copy(); }
    ServiceStatus::Agent AgentState() const { return m_board.AgentState(); }

private:
    void Enqueue(PendingCheckIn pending);
    void QueueRun();
    // Worker: one call's worth of due rows from the queue; nothing when an earlier item took them
    // already. Rows still to come are run at once or when the first is due.
    void RunCheckIns();
    // Worker: one attempt for the batch, then what the table says for each row: rows that wait
    // for another attempt go back to the queue with their pause. A row is moved out of `batch`
    // once it is dealt with; what is left there was not sent.
    void FreeSharedIds(std::vector<PendingCheckIn>& batch);
    void WakeWhenDue();
    DWORD RetryPauseMs() const;
    // Counts an attempt that got no final answer; the event log hears of a row stuck for long.
    static void CountAttempt(PendingCheckIn& pending, const NS_CheckIn::RowOutcome& outcome);
    void PublishEnterpriseId();
    // Worker: the outcome of each row; rows no call carried stay unsent, whatever went wrong.
    std::vector<NS_CheckIn::RowOutcome> CheckIn(const std::vector<PendingCheckIn>& batch);
    // Worker: true when a check-in can be tried. The first success after files were kept has
    // them taken up.
    bool ReachAgent();
    // Worker: not reaching the agent is no answer from it, so the file stays for the next start
    // or the agent's return.
    void KeepForLater(std::shared_ptr<CSharedId> credential);
    void Forget(std::shared_ptr<CSharedId> credential);
    // An answer that ends the credential's way back without success goes to the event log.
    static void ReportFinalFailure(const CSharedId& credential, int result);
    void LetGo(std::shared_ptr<CSharedId> credential);
    // Asks for the agent again every retry pause while files are kept and nothing else would.
    void QueueAgentProbe();
    void ProbeAgent();
    void ExpectAgentCallable(const wchar_t* call) const;
    // Queues `work` for the worker, run only while the registry lives.
    template <typename Work>
    void QueueWork(Work work);
    template <typename Work>
    NS_Utils::CGarbageCollector::WorkItem WhileRegistryLives(Work work) const;

    NS_Utils::CGarbageCollector& m_collector;
    PersistantStorage& m_storage;
    std::weak_ptr<ICheckInRegistry> m_registry;
    const NS_Utils::CriticalSection* m_registryLock = nullptr;
    CAuditTrail* m_audit = nullptr;
    SharedIdReleaser m_releaser;
    CCheckInBoard m_board;
    CCheckInQueue m_queue;
    std::atomic<bool> m_accountRefreshQueued{false};
    // Files were kept while the agent could not be reached; taken up when it can be again.
    std::atomic<bool> m_keptFiles{false};
    std::atomic<unsigned> m_keptCount{0};  // since the agent was last reached
    std::atomic<bool> m_agentProbeQueued{false};
    std::atomic<bool> m_held{false};
    std::atomic<bool> m_sessionEnding{false};
    ULONGLONG m_wakeAt = 0;  // worker only: the earliest wake queued for a row in its pause; 0: none
    CEnterpriseIdentity m_enterpriseId;
};
