#include "monitor/CheckInQueue.h"

namespace {
bool SameServer(const CSharedId& a, const CSharedId& b) {
    return a.GetCorvinAuthSvcUrl() == b.GetCorvinAuthSvcUrl() && a.GetCorvinAuthSrvId() == b.GetCorvinAuthSrvId();
}
}  // namespace

void CCheckInQueue::Push(PendingCheckIn pending) {
    NS_Utils::CritSecGuard guard(m_lock);
    m_waiting.push_back(std::move(pending));
}

void CCheckInQueue::PutBack(std::vector<PendingCheckIn> rows) {
    NS_Utils::CritSecGuard guard(m_lock);
    m_waiting.insert(m_waiting.begin(), std::make_move_iterator(rows.begin()), std::make_move_iterator(rows.end()));
}

std::vector<PendingCheckIn> CCheckInQueue::Take(size_t most) {
    std::vector<PendingCheckIn> taken;
    std::deque<PendingCheckIn> others;
    std::deque<PendingCheckIn> leftOver;
    NS_Utils::CritSecGuard guard(m_lock);
    if (m_waiting.empty()) return taken;
    const std::shared_ptr<CSharedId> oldest = m_waiting.front().credential;
    for (PendingCheckIn& pending : m_waiting) {
        if (!SameServer(*oldest, *pending.credential))
            others.push_back(std::move(pending));
        else if (taken.size() < most)
            taken.push_back(std::move(pending));
        else
            leftOver.push_back(std::move(pending));
    }
    m_waiting = std::move(others);
    std::move(leftOver.begin(), leftOver.end(), std::back_inserter(m_waiting));
    return taken;
}

size_t CCheckInQueue::Size() const {
    NS_Utils::CritSecGuard guard(m_lock);
    return m_waiting.size();
}
