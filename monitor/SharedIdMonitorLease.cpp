// The monitor's side of lease expiry: wiring the lease monitor, ending the holders of an expired
// credential, and the end of the Windows session.

#include "common/EventLog.h"
#include "common/Log.h"
#include "common/ModulePath.h"
#include "monitor/SharedIdMonitor.h"

#include <algorithm>

namespace {
constexpr const wchar_t* kExpiredTag = L"[SharedIdMonitor::OnLeaseExpired]\t";
constexpr const wchar_t* kSessionEndTag = L"[SharedIdMonitor::OnWndSessionEnd]\t";

NS_Utils::UniqueHandle Duplicate(HANDLE process) {
    NS_Utils::UniqueHandle copy;
    HANDLE self = ::GetCurrentProcess();
    if (!::DuplicateHandle(self, process, self, copy.put(), 0, FALSE, DUPLICATE_SAME_ACCESS)) return {};
    return copy;
}

// Outside the monitor lock: the event log reads its switch from the registry.
void NameUnendable(DWORD pid, HANDLE process, const std::wstring& leases, const wchar_t* tag, const wchar_t* when) {
    const std::wstring holder = NS_Utils::FileNameOf(NS_Utils::ProcessImagePath(process)) + L" (" +
                                std::to_wstring(pid) + L")";
    NS_Log::Log(2, tag + std::wstring(L" the process ") + holder +
                       L" cannot be ended: it runs elevated or as another user. Its credentials stay checked out "
                       L"until it exits. Leases: " +
                       leases);
    NS_EventLog::Report(NS_EventLog::Event::HolderCannotBeEnded, {leases, holder, when});
}
}  // namespace

void SharedIdMonitor::AttachLeaseMonitor(std::shared_ptr<ILeaseWatcher> leaseMonitor) {
    {
        LockGuard lock(*this);
        // One replaced is destroyed after the lock is left: its window's thread may wait for it.
        std::swap(m_leaseMonitor, leaseMonitor);
    }
    // Credentials left from an earlier run may already be counted.
    UpdateCredentialsHeld();
}

std::shared_ptr<ILeaseWatcher> SharedIdMonitor::LeaseMonitor() const {
    NS_Utils::CritSecGuard lock(m_lock);
    return m_leaseMonitor;
}

void SharedIdMonitor::UpdateCredentialsHeld() {
    m_lock.CheckNotHeld(L"[SharedIdMonitor::UpdateCredentialsHeld]\t the window called under the monitor lock");
    if (std::shared_ptr<ILeaseWatcher> leaseMonitor = LeaseMonitor()) leaseMonitor->UpdateCredentialsHeld(m_leaseCount);
}

void SharedIdMonitor::AddListener(const std::shared_ptr<CSharedId>& credential,
                                  std::shared_ptr<AbsSharedCredListener> listener) {
    LockGuard lock(*this);
    credential->Listeners().push_back(std::move(listener));
}

std::vector<DWORD> SharedIdMonitor::HolderPids(const std::shared_ptr<CSharedId>& credential) {
    LockGuard lock(*this);
    return credential ? credential->GetHolderPids() : std::vector<DWORD>();
}

NS_Utils::UniqueHandle SharedIdMonitor::DuplicateProcessHandle(DWORD pid) {
    LockGuard lock(*this);
    auto entry = processMap.find(pid);
    // The caller's own handle, with the same rights: the entry's closes when the process's wait ends.
    return entry == processMap.end() ? NS_Utils::UniqueHandle() : Duplicate(entry->second.waitInfo->Process());
}

bool SharedIdMonitor::CanEndHolder(DWORD pid) {
    LockGuard lock(*this);
    auto entry = processMap.find(pid);
    return entry == processMap.end() || entry->second.waitInfo->CanEnd();
}

bool SharedIdMonitor::TerminateHolder(DWORD pid, HANDLE process, const wchar_t* tag) {
    if (!process) {
        NS_Log::Log(2, tag +
                           std::wstring(L" handled to one of the process that shares the shared cred object could "
                                        L"not be got. PID = ") +
                           std::to_wstring(pid));
        return false;
    }
    if (!::TerminateProcess(process, kTerminatedExitCode)) {
        NS_Log::Log(2, tag + std::wstring(L" could not terminate the process with pid = ") + std::to_wstring(pid) +
                           L" GLE = 0x" + NS_Log::Hex(::GetLastError()));
        return false;
    }
    return true;
}

void SharedIdMonitor::OnLeaseExpired(const std::weak_ptr<CSharedId>& expired) {
    // Holders that may not be ended, each named once for this credential (the window calls again
    // at every tick while they run).
    std::vector<std::pair<DWORD, NS_Utils::UniqueHandle>> unendable;
    std::wstring lease;
    {
        LockGuard lock(*this);
        std::shared_ptr<CSharedId> credential = expired.lock();
        if (!credential) {
            NS_Log::Log(3, kExpiredTag + std::wstring(L" the expired shared id object could not be locked."));
            return;
        }
        lease = credential->GetLeaseDN();
        // The holders it may end, and once for this credential each that it may not.
        std::vector<DWORD> ending;
        for (DWORD pid : credential->GetHolderPids()) {
            auto entry = processMap.find(pid);
            if (entry == processMap.end() || entry->second.waitInfo->CanEnd()) {
                ending.push_back(pid);
                continue;
            }
            std::vector<const CSharedId*>& named = entry->second.namedUnendable;
            if (std::find(named.begin(), named.end(), credential.get()) != named.end()) continue;
            named.push_back(credential.get());
            unendable.emplace_back(pid, Duplicate(entry->second.waitInfo->Process()));
        }
        // Before any is ended: their exits wait for this lock, and are told apart by it.
        m_audit.Ending(ending, CAuditTrail::EndReason::AtExpiry);
        for (DWORD pid : ending) {
            auto entry = processMap.find(pid);
            if (TerminateHolder(pid, entry == processMap.end() ? nullptr : entry->second.waitInfo->Process(),
                                kExpiredTag))
                NS_Log::Log(3, kExpiredTag + std::wstring(L" Terminated process with pid = ") + std::to_wstring(pid) +
                                   L" as lease of some of the creds check-out by this process has expired");
        }
    }
    for (const auto& [pid, process] : unendable)
        NameUnendable(pid, process.get(), lease, kExpiredTag, L"at the expiry of its lease");
}

void SharedIdMonitor::EndHolderAtLogoff(DWORD pid) {
    NS_Utils::UniqueHandle process;
    bool canEnd = true;
    std::wstring leases;
    {
        LockGuard lock(*this);
        auto entry = processMap.find(pid);
        if (entry != processMap.end()) {
            process = Duplicate(entry->second.waitInfo->Process());
            canEnd = entry->second.waitInfo->CanEnd();
            const auto& held = entry->second.credentials;
            for (auto it = held.begin(); it != held.end(); ++it)
                if (std::find(held.begin(), it, *it) == it)
                    leases += (leases.empty() ? L"" : L", ") + (*it)->GetLeaseDN();
        }
    }
    if (process && !canEnd) return NameUnendable(pid, process.get(), leases, kSessionEndTag, L"at logoff");
    m_audit.Ending({pid}, CAuditTrail::EndReason::AtLogoff);
    TerminateHolder(pid, process.get(), kSessionEndTag);
}

void SharedIdMonitor::OnWndSessionEnd() {
    NS_Log::Log(3, kSessionEndTag + std::wstring(L" OnEndSession started."));
    std::vector<DWORD> pids;
    {
        LockGuard lock(*this);
        for (const auto& entry : processMap) pids.push_back(entry.first);
    }
    // Each look-up takes the lock on its own: exit callbacks go on meanwhile, and their
    // check-ins wait until all have come, then go a call per server.
    m_pipeline.HoldCheckIns();
    for (DWORD pid : pids) EndHolderAtLogoff(pid);
    WaitForHoldersGone(kLogoffGatherMs);
    m_pipeline.ResumeCheckIns();
    WaitForCheckIns();
    NS_Log::Log(3, kSessionEndTag + std::wstring(L" OnEndSession ended."));
}

void SharedIdMonitor::WaitForHoldersGone(DWORD milliseconds) {
    constexpr DWORD kLookEveryMs = 5;
    const ULONGLONG deadline = ::GetTickCount64() + milliseconds;
    while (ProcessCount() > 0 && ::GetTickCount64() < deadline)
        if (::WaitForSingleObject(m_stopping.get(), kLookEveryMs) == WAIT_OBJECT_0) return;
}

void SharedIdMonitor::WaitForCheckIns() {
    // Looked at every pause, and at once whenever the count falls, so that the handler returns as
    // soon as all is checked in. A stop of the service ends the wait: what is left stays on disk.
    const ULONGLONG deadline = m_logoffClock() + kLogoffWaitMs;
    HANDLE wakes[] = {m_stopping.get(), m_leaseFell.get()};
    while (m_leaseCount.load() >= 1 && m_logoffClock() < deadline)
        if (::WaitForMultipleObjects(2, wakes, FALSE, kLogoffPauseMs) == WAIT_OBJECT_0) break;
    const LONG left = m_leaseCount.load();
    if (left >= 1) {
        NS_Log::Log(1, std::to_wstring(left) + L" credentials were not checked in to Corvin during windows logoff.");
        NS_EventLog::Report(NS_EventLog::Event::LogoffLeftCredentials, {std::to_wstring(left)});
    }
}
