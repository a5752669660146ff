#include "monitor/AuditTrail.h"

#include "common/LogSettings.h"
#include "common/ModulePath.h"
#include "common/WinHandles.h"

#include <algorithm>

namespace {
using NS_EventLog::Event;

// The texts every entry of a credential begins with, in the order the message texts name them.
std::vector<std::wstring> Subject(const CSharedId& credential) {
    return {credential.GetSharedId(), credential.GetRoleId(), credential.GetCorvinAuthSrvId(),
            credential.GetCorvinAuthSvcUrl(), credential.GetLeaseDN()};
}

ULONGLONG Ticks(const FILETIME& time) { return (ULONGLONG{time.dwHighDateTime} << 32) | time.dwLowDateTime; }

ULONGLONG Now() {
    FILETIME now;
    ::GetSystemTimeAsFileTime(&now);
    return Ticks(now);
}

// When the file was written; now when it cannot be asked.
ULONGLONG WrittenAt(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    return ::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) ? Ticks(data.ftCreationTime) : Now();
}

std::vector<BYTE> UserOf(HANDLE process) {
    NS_Utils::UniqueHandle token;
    if (!::OpenProcessToken(process, TOKEN_QUERY, token.put())) return {};
    DWORD bytes = 0;
    (void)::GetTokenInformation(token.get(), TokenUser, nullptr, 0, &bytes);
    std::vector<BYTE> buffer(bytes);
    if (bytes == 0 || !::GetTokenInformation(token.get(), TokenUser, buffer.data(), bytes, &bytes)) return {};
    PSID sid = reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid;
    if (!::IsValidSid(sid)) return {};
    const BYTE* first = static_cast<const BYTE*>(sid);
    return {first, first + ::GetLengthSid(sid)};
}
}  // namespace

CAuditTrail::CAuditTrail(const NS_Utils::CriticalSection& registryLock, std::wstring folder)
    : m_registryLock(registryLock), m_folder(std::move(folder)) {}

void CAuditTrail::ReadSwitches() {
    constexpr ULONGLONG kReadEveryMs = 1000;
    const ULONGLONG now = ::GetTickCount64();
    if (m_switchesReadAt.load() != 0 && now - m_switchesReadAt.load() < kReadEveryMs) return;
    const NS_Log::LogSettings settings = NS_Log::ReadLogSettings();
    m_on.store(settings.eventLog && settings.auditTrail);
    m_switchesReadAt.store(now);
}

const CAuditTrail::Holder& CAuditTrail::KnowHolder(DWORD pid, bool askAgain) {
    auto known = m_holders.find(pid);
    if (known != m_holders.end() && !askAgain) return known->second;
    // The registry keeps the process open while it holds anything, so the id names that process.
    NS_Utils::UniqueHandle process(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
    Holder holder{NS_Utils::ProcessImagePath(process.get()), process ? UserOf(process.get()) : std::vector<BYTE>()};
    return m_holders.insert_or_assign(pid, std::move(holder)).first->second;
}

void CAuditTrail::NoteHolderEntry(Event event, const CSharedId& credential, DWORD pid, std::wstring last) {
    Entry entry{event, Subject(credential), {}, 0};
    NS_Utils::CritSecGuard lock(m_lock);
    const bool first = event == Event::AuditRegistered || event == Event::AuditTakenOver;
    if (event == Event::AuditRegistered) entry.texts.push_back(credential.GetLeaseExpiry());
    const Holder& holder = KnowHolder(pid, first);
    entry.texts.push_back(std::to_wstring(pid));
    entry.texts.push_back(holder.program);
    entry.userAt = entry.texts.size();
    entry.texts.emplace_back();
    entry.user = holder.user;
    if (!last.empty()) entry.texts.push_back(std::move(last));
    m_noted.push_back(std::move(entry));
}

void CAuditTrail::NoteDone() {
    if (!m_registryLock.HeldByThisThread()) Report();
}

CAuditTrail::Held& CAuditTrail::HeldEntry(const CSharedId& credential) {
    auto found = m_held.find(credential.GetFileName());
    if (found != m_held.end()) return found->second;
    // A record whose file could not be written counts from its first attempt.
    const std::wstring& name = credential.GetFileName();
    const ULONGLONG since = name.empty() ? Now() : WrittenAt(m_folder + NS_Utils::FileNameOf(name));
    return m_held.emplace(name, Held{since, 0}).first->second;
}

void CAuditTrail::Registered(const CSharedId& credential, DWORD pid) {
    {
        NS_Utils::CritSecGuard lock(m_lock);
        // A registration again by a holder is a fact of its own, but the time held runs from the first.
        if (!credential.GetFileName().empty()) m_held.try_emplace(credential.GetFileName(), Held{Now(), 0});
    }
    NoteHolderEntry(Event::AuditRegistered, credential, pid, {});
    NoteDone();
}

void CAuditTrail::TakenOver(const CSharedId& credential, DWORD pid) {
    NoteHolderEntry(Event::AuditTakenOver, credential, pid, std::to_wstring(credential.GetHolderPids().size()));
    NoteDone();
}

void CAuditTrail::Released(const CSharedId& credential, DWORD pid) {
    NoteHolderEntry(Event::AuditReleased, credential, pid, std::to_wstring(credential.GetHolderPids().size()));
    NoteDone();
}

void CAuditTrail::Ending(const std::vector<DWORD>& pids, EndReason why) {
    NS_Utils::CritSecGuard lock(m_lock);
    for (DWORD pid : pids) m_ending.insert_or_assign(pid, why);
}

void CAuditTrail::Exited(DWORD pid, const std::vector<std::shared_ptr<CSharedId>>& held) {
    Event event = Event::AuditHolderExited;
    {
        NS_Utils::CritSecGuard lock(m_lock);
        if (auto ending = m_ending.find(pid); ending != m_ending.end()) {
            event = ending->second == EndReason::AtExpiry ? Event::AuditHolderEndedAtExpiry
                                                          : Event::AuditHolderEndedAtLogoff;
            m_ending.erase(ending);
        }
    }
    // A credential the process registered twice is one fact.
    for (auto it = held.begin(); it != held.end(); ++it)
        if (std::find(held.begin(), it, *it) == it)
            NoteHolderEntry(event, **it, pid, std::to_wstring((*it)->GetHolderPids().size()));
    {
        NS_Utils::CritSecGuard lock(m_lock);
        m_holders.erase(pid);
    }
    NoteDone();
}

void CAuditTrail::HeldAgain(const CSharedId& credential) {
    Entry entry{Event::AuditHeldAgain, Subject(credential), {}, 0};
    entry.texts.push_back(credential.GetLeaseExpiry());
    std::wstring holders;
    {
        NS_Utils::CritSecGuard lock(m_lock);
        (void)HeldEntry(credential);
        for (DWORD pid : credential.GetHolderPids()) {
            if (!holders.empty()) holders += L", ";
            holders += NS_Utils::FileNameOf(KnowHolder(pid, true).program) + L" (" + std::to_wstring(pid) + L")";
        }
        entry.texts.push_back(std::move(holders));
        m_noted.push_back(std::move(entry));
    }
    NoteDone();
}

void CAuditTrail::CheckInAnswered(const CSharedId& credential, const NS_CheckIn::RowOutcome& outcome) {
    const NS_CheckIn::Action action = NS_CheckIn::Decide(outcome);
    if (action == NS_CheckIn::Action::kSendAgain) return;  // no attempt was made
    {
        NS_Utils::CritSecGuard lock(m_lock);
        Held& held = HeldEntry(credential);
        ++held.attempts;
        if (action == NS_CheckIn::Action::kRetryLater) return;
        const Held ended = held;
        m_held.erase(credential.GetFileName());
        const ULONGLONG now = Now();
        const ULONGLONG seconds = now > ended.since ? (now - ended.since) / 10000000 : 0;
        Entry entry{Event::AuditCheckedIn, Subject(credential), {}, 0};
        entry.texts.push_back(std::to_wstring(outcome.result));
        entry.texts.push_back(std::to_wstring(seconds));
        entry.texts.push_back(std::to_wstring(ended.attempts));
        m_noted.push_back(std::move(entry));
    }
    NoteDone();
}

std::vector<CAuditTrail::Entry> CAuditTrail::TakeNoted() {
    NS_Utils::CritSecGuard lock(m_lock);
    return std::exchange(m_noted, {});
}

void CAuditTrail::Report() {
    m_registryLock.CheckNotHeld(L"[CAuditTrail::Report]\t the event log written under the monitor lock");
    ReadSwitches();
    for (;;) {
        if (m_sending.exchange(true)) return;  // the thread sending takes these too, after its own
        {
            // Also when a batch could not be allocated: the next fact is sent again.
            const NS_Utils::ScopeExit done([this] { m_sending.store(false); });
            for (std::vector<Entry> entries = TakeNoted(); !entries.empty(); entries = TakeNoted()) Send(entries);
        }
        // Noted while this thread was finishing: the thread that noted them left them to this one.
        NS_Utils::CritSecGuard lock(m_lock);
        if (m_noted.empty()) return;
    }
}

void CAuditTrail::Send(std::vector<Entry>& entries) {
    if (!m_on.load()) return;  // switched off meanwhile: what was noted is dropped
    for (Entry& entry : entries) {
        if (!entry.user.empty()) entry.texts[entry.userAt] = UserName(entry.user);
        NS_EventLog::ReportAudit(entry.event, entry.texts);
    }
}

std::wstring CAuditTrail::UserName(const std::vector<BYTE>& sid) {
    auto known = m_userNames.find(sid);
    if (known != m_userNames.end()) return known->second;
    // May ask a domain controller: only ever while sending, never under a lock of the registry's.
    wchar_t name[256] = {}, domain[256] = {};
    DWORD nameLength = 256, domainLength = 256;
    SID_NAME_USE use;
    std::vector<BYTE> copy = sid;
    std::wstring text;
    if (::LookupAccountSidW(nullptr, copy.data(), name, &nameLength, domain, &domainLength, &use))
        text = domainLength ? std::wstring(domain) + L"\\" + name : std::wstring(name);
    return m_userNames.emplace(sid, std::move(text)).first->second;
}
