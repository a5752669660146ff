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

std::vector<PendingCheckIn> CCheckInQueue::Take(size_t most) {
    std::vector<PendingCheckIn> taken;
    NS_Utils::CritSecGuard guard(m_lock);
    while (!m_waiting.empty() && taken.size() < most &&
           (taken.empty() || SameServer(*taken.front().credential, *m_waiting.front().credential))) {
        taken.push_back(std::move(m_waiting.front()));
        m_waiting.pop_front();
    }
    return taken;
}
