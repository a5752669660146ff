#include "monitor/CheckInBoard.h"

#include <algorithm>

void CCheckInBoard::Queued(const CSharedId& credential) {
    // Copied before the lock is taken: the board's lock covers only the map.
    CredentialStatus status = DescribeCredential(credential, CredentialStatus::State::WaitingForCheckIn);
    NS_Utils::CritSecGuard lock(m_lock);
    m_pending.insert_or_assign(&credential, Entry{m_nextOrder++, std::move(status)});
}

void CCheckInBoard::CheckingIn(const CSharedId& credential, __time64_t since) {
    NS_Utils::CritSecGuard lock(m_lock);
    auto found = m_pending.find(&credential);
    if (found == m_pending.end()) return;
    found->second.status.state = CredentialStatus::State::CheckingIn;
    found->second.status.checkingInSince = since;
}

void CCheckInBoard::NotSent(const CSharedId& credential) {
    NS_Utils::CritSecGuard lock(m_lock);
    auto found = m_pending.find(&credential);
    if (found == m_pending.end()) return;
    CredentialStatus& status = found->second.status;
    status.state = status.attempts ? CredentialStatus::State::Retrying : CredentialStatus::State::WaitingForCheckIn;
    status.checkingInSince = 0;
}

void CCheckInBoard::Attempted(const CSharedId& credential, const NS_CheckIn::RowOutcome& outcome,
                              __time64_t nextAttempt) {
    NS_Utils::CritSecGuard lock(m_lock);
    auto found = m_pending.find(&credential);
    if (found == m_pending.end()) return;
    CredentialStatus& status = found->second.status;
    status.state = CredentialStatus::State::Retrying;
    status.checkingInSince = 0;
    if (outcome.reply == NS_CheckIn::Reply::kAnswered) status.lastResult = outcome.result;
    ++status.attempts;
    status.nextAttempt = nextAttempt;
}

void CCheckInBoard::Finished(const CSharedId& credential) {
    NS_Utils::CritSecGuard lock(m_lock);
    m_pending.erase(&credential);
}

std::vector<CredentialStatus> CCheckInBoard::Copy() const {
    std::vector<const Entry*> entries;
    std::vector<CredentialStatus> copy;
    NS_Utils::CritSecGuard lock(m_lock);
    entries.reserve(m_pending.size());
    for (const auto& [record, entry] : m_pending) entries.push_back(&entry);
    std::sort(entries.begin(), entries.end(), [](const Entry* a, const Entry* b) { return a->order < b->order; });
    copy.reserve(entries.size());
    for (const Entry* entry : entries) copy.push_back(entry->status);
    return copy;
}
