#include "monitor/CheckInQueue.h"

#include <algorithm>

namespace {
bool SameServer(const CSharedId& a, const CSharedId& b) {
    return a.GetCorvinAuthSvcUrl() == b.GetCorvinAuthSvcUrl() && a.GetCorvinAuthSrvId() == b.GetCorvinAuthSrvId();
}
}  // namespace

void CCheckInQueue::Push(PendingCheckIn&& pending) {
    NS_Utils::CritSecGuard guard(m_lock);
    m_waiting.push_back(std::move(pending));  // no effect when it throws
}

void CCheckInQueue::PutBack(std::vector<PendingCheckIn>& rows) {
    NS_Utils::CritSecGuard guard(m_lock);
    // One at a time from the last: each either goes in whole or stays with the caller.
    while (!rows.empty()) {
        m_waiting.push_front(std::move(rows.back()));
        rows.pop_back();
    }
}

std::vector<PendingCheckIn> CCheckInQueue::Take(size_t most, ULONGLONG now) {
    std::vector<PendingCheckIn> taken;
    NS_Utils::CritSecGuard guard(m_lock);
    auto due = [now](const PendingCheckIn& pending) { return pending.dueAt <= now; };
    auto oldest = std::find_if(m_waiting.begin(), m_waiting.end(), due);
    if (oldest == m_waiting.end()) return taken;
    const std::shared_ptr<CSharedId> server = oldest->credential;
    auto chosen = [&](const PendingCheckIn& pending) {
        return due(pending) && SameServer(*server, *pending.credential);
    };
    // Everything that can run out of memory comes before the first row moves: a failure leaves
    // the queue as it was. Moving rows cannot fail.
    const auto count = static_cast<size_t>(std::count_if(m_waiting.begin(), m_waiting.end(), chosen));
    const size_t taking = std::min(count, most);
    taken.reserve(taking);
    const auto firstOther = std::stable_partition(m_waiting.begin(), m_waiting.end(), chosen);
    const auto takenEnd = m_waiting.begin() + static_cast<std::ptrdiff_t>(taking);
    std::move(m_waiting.begin(), takenEnd, std::back_inserter(taken));
    std::rotate(takenEnd, firstOther, m_waiting.end());
    m_waiting.erase(m_waiting.begin(), takenEnd);
    return taken;
}

std::optional<ULONGLONG> CCheckInQueue::NextDue() const {
    NS_Utils::CritSecGuard guard(m_lock);
    if (m_waiting.empty()) return std::nullopt;
    return std::min_element(m_waiting.begin(), m_waiting.end(),
                            [](const auto& a, const auto& b) { return a.dueAt < b.dueAt; })
        ->dueAt;
}

void CCheckInQueue::MakeAllDue() {
    NS_Utils::CritSecGuard guard(m_lock);
    for (PendingCheckIn& pending : m_waiting) pending.dueAt = 0;
}

size_t CCheckInQueue::Size() const {
    NS_Utils::CritSecGuard guard(m_lock);
    return m_waiting.size();
}
