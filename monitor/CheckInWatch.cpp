#include "monitor/CheckInWatch.h"

#include "common/Log.h"

CCheckInWatch::CCheckInWatch(std::wstring credential, DWORD stuckAfterMs) : m_credential(std::move(credential)) {
    // Without the timer the check-in goes on all the same, only unwatched.
    HANDLE timer = nullptr;
    if (::CreateTimerQueueTimer(&timer, nullptr, &CCheckInWatch::OnStuck, this, stuckAfterMs, 0, WT_EXECUTEONLYONCE))
        m_timer.reset(timer);
}

CCheckInWatch::~CCheckInWatch() = default;

void CALLBACK CCheckInWatch::OnStuck(void* self, BOOLEAN) {
    const auto* watch = static_cast<const CCheckInWatch*>(self);
    NS_Log::Log(2, L"[SharedIdMonitor::FreeSharedId]\t The check-in of " + watch->m_credential + L" has run for " +
                       std::to_wstring(kStuckAfterMs / 1000) +
                       L" s without an answer from the agent; later check-ins wait behind it.");
}
