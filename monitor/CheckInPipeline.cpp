#include "monitor/CheckInPipeline.h"

#include "checkin/KelSettingsImpl.h"
#include "common/EventLog.h"
#include "common/FailFast.h"
#include "common/Log.h"
#include "monitor/CheckInWatch.h"

#include <algorithm>
#include <new>
#include <optional>

namespace {
constexpr const wchar_t* kFreeTag = L"[SharedIdMonitor::FreeSharedId]\t";

__time64_t SecondsFromNow(DWORD milliseconds) { return ::_time64(nullptr) + (milliseconds + 999) / 1000; }
}  // namespace

CCheckInPipeline::CCheckInPipeline(NS_Utils::CGarbageCollector& collector, PersistantStorage& storage)
    : m_collector(collector), m_storage(storage) {
    // The agent's objects live in the worker's apartment and are let go there. The worker has
    // ended before the pipeline is destroyed, so the hook never outlives it.
    m_collector.SetWorkerExitHook([this] { m_releaser.Reset(); });
    // A user who never logs on to the agent must not hold up the end of the service.
    m_releaser.SetPause([&collector](DWORD ms) { return collector.WaitUnlessStopping(ms); });
    m_releaser.SetWorkerRule(collector.WorkerRule());
}

template <typename Work>
NS_Utils::CGarbageCollector::WorkItem CCheckInPipeline::WhileRegistryLives(Work work) const {
    return [weak = m_registry, work = std::move(work)] {
        if (std::shared_ptr<ICheckInRegistry> registry = weak.lock()) work(*registry);
    };
}

template <typename Work>
void CCheckInPipeline::QueueWork(Work work) {
    m_collector.Queue(WhileRegistryLives(std::move(work)));
}

void CCheckInPipeline::ExpectAgentCallable(const wchar_t* call) const {
    m_collector.WorkerRule().Check(call);
    if (m_registryLock) m_registryLock->CheckNotHeld(call);
}

void CCheckInPipeline::Release(std::shared_ptr<CSharedId> credential) {
    m_board.Queued(*credential);
    Enqueue({std::move(credential), true});
}

void CCheckInPipeline::CheckInFromFile(std::shared_ptr<CSharedId> credential) {
    m_board.Queued(*credential);
    Enqueue({std::move(credential), false});
}

void CCheckInPipeline::Enqueue(PendingCheckIn pending) {
    m_queue.Push(std::move(pending));
    QueueRun();
}

void CCheckInPipeline::QueueRun() {
    // An item per row queued: the first to run takes as many as wait, the others find fewer or none.
    QueueWork([this](ICheckInRegistry&) { RunCheckIns(); });
}

void CCheckInPipeline::ResumeCheckIns() {
    m_held.store(false);
    SendEveryRowNow();
}

void CCheckInPipeline::SendEveryRowNow() {
    m_sessionEnding.store(true);
    m_queue.MakeAllDue();
    QueueRun();
}

void CCheckInPipeline::RunCheckIns() {
    m_collector.WorkerRule().Check(L"[CCheckInPipeline::RunCheckIns]\t called off the collector's worker");
    if (m_held.load()) return;  // the resume queues a run of its own
    std::vector<PendingCheckIn> taken = m_queue.Take(kMaxRowsPerCall, ::GetTickCount64());
    if (taken.empty()) return WakeWhenDue();
    try {
        if (std::shared_ptr<ICheckInRegistry> registry = m_registry.lock())
            for (PendingCheckIn& pending : taken)
                if (std::exchange(pending.released, false)) registry->OnCheckInTaken(pending.credential);
        FreeSharedIds(taken);
    } catch (const std::bad_alloc&) {
        // The rows not yet dealt with wait a pause, so that memory can come back, and go again.
        const ULONGLONG retryAt = ::GetTickCount64() + kSessionEndPauseMs;
        for (PendingCheckIn& pending : taken) pending.dueAt = retryAt;
        std::erase_if(taken, [](const PendingCheckIn& pending) { return !pending.credential; });
        m_queue.PutBack(taken);
        NS_Log::Log(1, kFreeTag + std::wstring(L" Out of memory while checking in: the rows are tried again."));
    }
    // Rows of another server, rows that waited while check-ins were held, and rows in their
    // pause may have no item of their own left.
    WakeWhenDue();
}

void CCheckInPipeline::WakeWhenDue() {
    const std::optional<ULONGLONG> next = m_queue.NextDue();
    if (!next) return;
    const ULONGLONG now = ::GetTickCount64();
    if (*next <= now) return QueueRun();
    if (m_wakeAt != 0 && m_wakeAt <= *next) return;  // an earlier wake looks again anyway
    m_wakeAt = *next;
    m_collector.QueueAfter(static_cast<DWORD>(std::min<ULONGLONG>(*next - now, INFINITE - 1)),
                           WhileRegistryLives([this, at = *next](ICheckInRegistry&) {
                               if (m_wakeAt == at) m_wakeAt = 0;
                               RunCheckIns();
                           }));
}

DWORD CCheckInPipeline::RetryPauseMs() const {
    return m_sessionEnding.load() ? kSessionEndPauseMs : KelSettingsImpl::GetFreeSharedIdWaitTime();
}

void CCheckInPipeline::CountAttempt(PendingCheckIn& pending, const NS_CheckIn::RowOutcome& outcome) {
    ++pending.attempts;
    if (pending.attempts < kReportAfterAttempts || pending.reportedAsStuck) return;
    pending.reportedAsStuck = true;
    // Once a row: a busy or broken agent would otherwise fill the event log. The row goes on
    // being tried, and a later answer ends it as usual.
    const std::wstring last = outcome.reply == NS_CheckIn::Reply::kAnswered
                                  ? L"result " + std::to_wstring(outcome.result)
                                  : L"no answer, 0x" + NS_Log::Hex(static_cast<unsigned long>(outcome.call));
    const CSharedId& credential = *pending.credential;
    NS_Log::Log(2, kFreeTag + std::wstring(L" Still not checked in after ") + std::to_wstring(pending.attempts) +
                       L" attempts (" + last + L"): " + credential.GetLeaseDN());
    NS_EventLog::Report(NS_EventLog::Event::CheckInStillRetrying,
                        {credential.GetLeaseDN(), credential.GetSharedId(), std::to_wstring(pending.attempts), last});
}

void CCheckInPipeline::FreeSharedIds(std::vector<PendingCheckIn>& batch) {
    m_collector.WorkerRule().Check(L"[CCheckInPipeline::FreeSharedIds]\t called off the collector's worker");
    for (size_t i = 0; i < batch.size(); ++i)
        NS_Log::Log(3, kFreeTag + std::wstring(L"Start to free shared credentials."));
    if (!ReachAgent()) {
        // Once an outage: the event says files are kept, and the one after it that they are back.
        if (!m_keptFiles.load())
            NS_EventLog::Report(NS_EventLog::Event::AgentUnreachable, {std::to_wstring(batch.size())});
        for (PendingCheckIn& pending : batch) KeepForLater(std::move(pending.credential));
        return;
    }
    const __time64_t started = ::_time64(nullptr);
    for (const PendingCheckIn& pending : batch) m_board.CheckingIn(*pending.credential, started);
    const std::vector<NS_CheckIn::RowOutcome> outcomes = CheckIn(batch);
    PublishEnterpriseId();
    const DWORD pauseMs = RetryPauseMs();
    const ULONGLONG retryAt = ::GetTickCount64() + pauseMs;
    // Nothing went out (no account to send with, no memory): no hurry to try again.
    const bool nothingWent = std::none_of(outcomes.begin(), outcomes.end(), [](const NS_CheckIn::RowOutcome& outcome) {
        return outcome.reply != NS_CheckIn::Reply::kNotSent;
    });
    for (size_t i = 0; i < batch.size(); ++i) {
        const NS_CheckIn::RowOutcome& outcome = outcomes[i];
        std::shared_ptr<CSharedId>& credential = batch[i].credential;
        if (m_audit) m_audit->CheckInAnswered(*credential, outcome);
        switch (NS_CheckIn::Decide(outcome)) {
        case NS_CheckIn::Action::kSendAgain:
            m_board.NotSent(*credential);
            if (nothingWent) batch[i].dueAt = retryAt;
            break;  // stays in the batch, which goes back to the front of the queue
        case NS_CheckIn::Action::kRetryLater:
            if (outcome.reply == NS_CheckIn::Reply::kAnswered)
                NS_Log::Log(2, kFreeTag +
                                   std::wstring(L"Checkin failed due to an error that does not prohibit "
                                                L"retrying. Will retry checkin. Error code : ") +
                                   std::to_wstring(outcome.result));
            else
                NS_Log::Log(2, kFreeTag + std::wstring(L" The agent did not answer the check-in. Will retry checkin."));
            m_board.Attempted(*credential, outcome, SecondsFromNow(pauseMs));
            CountAttempt(batch[i], outcome);
            batch[i].dueAt = retryAt;
            m_queue.Push(std::move(batch[i]));
            break;
        case NS_CheckIn::Action::kGiveUp:
            NS_Log::Log(2, kFreeTag +
                               std::wstring(L" Checkin failed due to different Corvin user, give up checkin. "
                                            L"Error code : ") +
                               std::to_wstring(outcome.result));
            ReportFinalFailure(*credential, outcome.result);
            Forget(std::move(credential));
            break;
        case NS_CheckIn::Action::kForget:
            if (outcome.result != NS_CheckIn::kCheckedIn) ReportFinalFailure(*credential, outcome.result);
            Forget(std::move(credential));
            break;
        }
    }
    std::erase_if(batch, [](const PendingCheckIn& pending) { return !pending.credential; });
    m_queue.PutBack(batch);
}

std::vector<NS_CheckIn::RowOutcome> CCheckInPipeline::CheckIn(const std::vector<PendingCheckIn>& batch) {
    ExpectAgentCallable(L"[CCheckInPipeline::CheckIn]\t the agent called off the worker or under the monitor lock");
    std::vector<NS_CheckIn::RowOutcome> outcomes(batch.size());
    HRESULT hrCIRes = S_OK;
    try {
        const CCheckInWatch watch(batch.front().credential->GetSignature() +
                                  (batch.size() > 1 ? L" and " + std::to_wstring(batch.size() - 1) + L" more" : L""));
        std::vector<const CSharedId*> rows;
        rows.reserve(batch.size());
        for (const PendingCheckIn& pending : batch) rows.push_back(pending.credential.get());
        m_releaser.ReleaseCreds(rows, outcomes, &hrCIRes);
    } catch (const std::bad_alloc&) {
        // Whatever was answered stands; the rest was not sent, or got no answer.
        NS_Log::Log(1, kFreeTag + std::wstring(L" Out of memory while building the check-in."));
    } catch (...) {
        NS_Log::Log(1, kFreeTag + std::wstring(L" The agent's check-in ended with an exception; the rows it did not "
                                               L"answer are tried again."));
    }
    return outcomes;
}

bool CCheckInPipeline::ReachAgent() {
    ExpectAgentCallable(L"[CCheckInPipeline::ReachAgent]\t the agent called off the worker or under the monitor lock");
    const bool reachable = m_releaser.Init();
    m_board.SetAgentReachable(reachable);
    if (reachable && m_keptFiles.exchange(false)) {
        NS_Log::Log(3,
                    kFreeTag + std::wstring(L" The agent can be reached again: taking up the credential files kept."));
        NS_EventLog::Report(NS_EventLog::Event::AgentReachedAgain, {std::to_wstring(m_keptCount.exchange(0))});
        if (std::shared_ptr<ICheckInRegistry> registry = m_registry.lock())
            (void)registry->GCUncheckedInCredentials();  // a failure is logged; the next start tries again
        if (m_queue.Size() > 0) {
            // Rows that waited in memory for want of a file go now, not after their pause.
            m_queue.MakeAllDue();
            QueueRun();
        }
    }
    return reachable;
}

void CCheckInPipeline::KeepForLater(std::shared_ptr<CSharedId> credential) {
    if (!m_storage.LeaveOnDisk(*credential)) {
        // Without a file, letting it go would lose it: it waits in the queue for the agent.
        NS_Log::Log(1, kFreeTag +
                           std::wstring(L" The agent cannot be reached and the credential cannot be stored; "
                                        L"it waits in memory: ") +
                           credential->GetLeaseDN());
        m_board.NotSent(*credential);
        // Due after a pause, like any row without an answer: the agent's return brings it sooner.
        m_queue.Push(PendingCheckIn{std::move(credential), false, ::GetTickCount64() + RetryPauseMs()});
        m_keptFiles.store(true);
        QueueAgentProbe();
        return;
    }
    NS_Log::Log(2, kFreeTag +
                       std::wstring(L" The agent cannot be reached; the credential file stays for the next "
                                    L"start or the agent's return: ") +
                       credential->GetFileName());
    ++m_keptCount;
    m_keptFiles.store(true);
    LetGo(std::move(credential));
    QueueAgentProbe();
}

void CCheckInPipeline::ReportFinalFailure(const CSharedId& credential, int result) {
    // The identity server may keep the account checked out: an administrator has to look.
    NS_EventLog::Report(NS_EventLog::Event::CheckInFailedFinally,
                        {credential.GetLeaseDN(), credential.GetSharedId(), std::to_wstring(result)});
}

void CCheckInPipeline::Forget(std::shared_ptr<CSharedId> credential) {
    const int deleted = m_storage.Delete(*credential);
    if (deleted != PersistantStorage::kOk)
        NS_Log::Log(1, kFreeTag + std::wstring(L"Failed to delete from persistent storage, return value = ") +
                           std::to_wstring(deleted));
    NS_Log::Log(3, kFreeTag + std::wstring(L" Deleting SharedCred."));
    LetGo(std::move(credential));
}

void CCheckInPipeline::LetGo(std::shared_ptr<CSharedId> credential) {
    m_collector.WorkerRule().Check(L"[CCheckInPipeline::LetGo]\t called off the collector's worker");
    m_board.Finished(*credential);
    // The record is gone before the count says so: whoever waits for 0 finds nothing left over.
    credential.reset();
    if (std::shared_ptr<ICheckInRegistry> registry = m_registry.lock()) registry->LeaseDecrease();
}

void CCheckInPipeline::QueueAgentProbe() {
    if (m_agentProbeQueued.exchange(true)) return;
    QueueWork([this](ICheckInRegistry&) { ProbeAgent(); });
}

void CCheckInPipeline::ProbeAgent() {
    m_collector.WorkerRule().Check(L"[CCheckInPipeline::ProbeAgent]\t called off the collector's worker");
    const DWORD pauseMs = std::max<DWORD>(KelSettingsImpl::GetFreeSharedIdWaitTime(), kAgentProbeFloorMs);
    using Pause = NS_Utils::CGarbageCollector::Pause;
    const Pause pause = m_collector.PauseUnlessWork(pauseMs);
    if (pause == Pause::Stopping) return;
    // Work that came meanwhile goes first (it reaches for the agent itself); the probe follows it.
    if (pause == Pause::Elapsed) (void)ReachAgent();
    m_agentProbeQueued.store(false);
    if (m_keptFiles.load()) QueueAgentProbe();
}

void CCheckInPipeline::RefreshAccountLater() {
    if (m_accountRefreshQueued.exchange(true)) return;
    QueueWork([this](ICheckInRegistry&) {
        m_accountRefreshQueued.store(false);
        (void)ReachAgent();
        (void)m_releaser.UpdateCorvinCred();  // the cache stays as it was
        // Registrations take the agent's user from here, so that they never call the agent.
        (void)m_releaser.RefreshEnterpriseId();
        PublishEnterpriseId();
    });
}

void CCheckInPipeline::PublishEnterpriseId() {
    if (!m_releaser.EnterpriseId().empty()) m_enterpriseId.Set(m_releaser.EnterpriseId());
}
