#include "ui/LeaseRows.h"

#include "common/Log.h"

namespace {

constexpr const wchar_t* kUnlocked = L"[LeaseRows]\t the rows read without the row lock";

std::wstring Labelled(const std::wstring& label, const std::wstring& value) {
    return label.empty() ? value : label + L": " + value;
}

// Differences of a second or two come from reading the two clocks at slightly different moments
// and from the wall clock's second-wide steps, not from a jump.
constexpr __time64_t kJumpToleranceSeconds = 2;

ULONGLONG UnbiasedMilliseconds() {
    ULONGLONG hundredNs = 0;
    // Fails only without a buffer; the tick count then serves, which still ignores clock changes.
    return ::QueryUnbiasedInterruptTime(&hundredNs) ? hundredNs / 10000 : ::GetTickCount64();
}

}  // namespace

LeaseRows::LeaseRows(Clock now, unsigned graceSeconds, Ticks ticks)
    : m_clock(std::move(now)), m_graceSeconds(graceSeconds), m_ticks(std::move(ticks)) {}

int LeaseRows::Add(DWORD processId, NS_Utils::UniqueHandle process, const std::weak_ptr<CSharedId>& credential) {
    // Made before the lock is taken: it looks at the holder's windows and asks the clock.
    auto made = std::make_shared<ProcessInfo>(processId, std::move(process), credential, Now() + m_graceSeconds);
    NS_Utils::CritSecGuard guard(m_lock);
    // A holder that registers while the lease monitor lists the credential's holders is reported
    // twice, by the listener and in the list: it keeps one row.
    if (FindKey(processId, credential) >= 0) return -1;
    const int key = m_nextKey++;
    for (const auto& [firstKey, first] : m_rows) {
        if (!first->IsFor(credential)) continue;
        made->ShareEndTime(*first);
        // Carried over a jump with the others of its credential.
        if (m_carried.count(firstKey) != 0) m_carried.insert(key);
        break;
    }
    m_rows.emplace(key, std::move(made));
    return key;
}

int LeaseRows::Remove(DWORD processId, const std::weak_ptr<CSharedId>& credential) {
    NS_Utils::CritSecGuard guard(m_lock);
    int key = FindKey(processId, credential);
    if (key >= 0) {
        m_rows.erase(key);
        m_carried.erase(key);
    }
    return key;
}

bool LeaseRows::Erase(int key) {
    NS_Utils::CritSecGuard guard(m_lock);
    m_carried.erase(key);
    return m_rows.erase(key) > 0;
}

void LeaseRows::Clear() {
    NS_Utils::CritSecGuard guard(m_lock);
    m_rows.clear();
    m_carried.clear();
}

bool LeaseRows::Empty() const {
    NS_Utils::CritSecGuard guard(m_lock);
    return m_rows.empty();
}

LeaseRows::Row LeaseRows::Find(int key) const {
    NS_Utils::CritSecGuard guard(m_lock);
    auto it = m_rows.find(key);
    return it == m_rows.end() ? Row{} : it->second;
}

std::vector<std::pair<int, LeaseRows::Row>> LeaseRows::Rows() const {
    NS_Utils::CritSecGuard guard(m_lock);
    return {m_rows.begin(), m_rows.end()};
}

std::vector<LMListedRow> LeaseRows::Listed() const {
    std::vector<LMListedRow> listed;
    NS_Utils::CritSecGuard guard(m_lock);
    for (const auto& [key, row] : m_rows)
        listed.push_back({row->GetProcessId(), row->GetCredential(), row->GetEndTime()});
    return listed;
}

int LeaseRows::FindKey(DWORD processId, const std::weak_ptr<CSharedId>& credential) const {
    m_lock.CheckHeld(kUnlocked);
    for (const auto& [key, row] : m_rows)
        if (row->GetProcessId() == processId && row->IsFor(credential)) return key;
    return -1;
}

__time64_t LeaseRows::Now() const {
    // The clock is the lease monitor's, whose workings the rows do not know: never asked under
    // the row lock, so that no lock order can arise between the two.
    m_lock.CheckNotHeld(L"[LeaseRows::Now]\t the clock asked under the row lock");
    return m_clock ? m_clock() : _time64(nullptr);
}

ULONGLONG LeaseRows::ElapsedMs() const { return m_ticks ? m_ticks() : UnbiasedMilliseconds(); }

bool LeaseRows::FollowClock(bool userCanSee) {
    const __time64_t wall = Now();
    const ULONGLONG elapsedMs = ElapsedMs();
    __time64_t jump = 0;
    size_t carried = 0;
    // The log is written once the lock is left.
    auto log = NS_Utils::MakeScopeExit([&jump, &carried] {
        if (jump > 0)
            NS_Log::Log(3, L"[LeaseRows::FollowClock]",
                        L"\t the wall clock went " + std::to_wstring(jump) + L" s further than elapsed time; " +
                            std::to_wstring(carried) + L" rows get their whole grace time from when they are seen");
    });
    NS_Utils::CritSecGuard guard(m_lock);
    if (m_followed) {
        // Where the wall clock would stand had it only moved on with elapsed time.
        const __time64_t expected = m_lastWall + static_cast<__time64_t>((elapsedMs - m_lastElapsedMs) / 1000);
        // Rows whose end had not come by elapsed time, but comes within the grace time by the
        // jump. A row of a credential shares its moment with the others, so all are carried.
        if (wall - expected > kJumpToleranceSeconds) {
            jump = wall - expected;
            for (const auto& [key, row] : m_rows)
                if (row->GetEndTime() > expected && row->GetEndTime() < wall + m_graceSeconds) m_carried.insert(key);
            carried = m_carried.size();
        }
    }
    m_followed = true;
    m_lastWall = wall;
    m_lastElapsedMs = elapsedMs;
    for (auto key = m_carried.begin(); key != m_carried.end();) {
        auto row = m_rows.find(*key);
        if (row == m_rows.end()) {
            key = m_carried.erase(key);
            continue;
        }
        row->second->PostponeEndTo(wall + m_graceSeconds);
        ++key;
    }
    // Once seen, a carried row counts down from here like any other.
    if (userCanSee) m_carried.clear();
    return !m_carried.empty();
}

void LeaseRows::SetLabels(Labels labels) {
    NS_Utils::CritSecGuard guard(m_lock);
    m_labels = std::move(labels);
}

LeaseRows::Labels LeaseRows::CurrentLabels() const {
    NS_Utils::CritSecGuard guard(m_lock);
    return m_labels;
}

std::wstring LeaseRows::Text(const ProcessInfo& row) const { return Text(row, CurrentLabels(), Now()); }

std::wstring LeaseRows::Text(const ProcessInfo& row, const Labels& labels, __time64_t now) {
    std::wstring remaining = ProcessInfo::FormatRemaining(row.SecondsLeft(now));
    if (!labels.remain.empty()) remaining += L" " + labels.remain;
    // Not in the message library: the agent's texts have no words for it.
    if (row.CannotBeEnded()) remaining += L" - cannot be ended by Tarrow: close the program";
    return Labelled(labels.process, row.DisplayName()) + L"\n" + Labelled(labels.time, remaining);
}

std::map<int, std::wstring> LeaseRows::Texts() const {
    // One clock reading and one copy of the labels for all rows: they count down together.
    const Labels labels = CurrentLabels();
    const __time64_t now = Now();
    std::map<int, std::wstring> texts;
    for (const auto& [key, row] : Rows()) texts.emplace(key, Text(*row, labels, now));
    return texts;
}
