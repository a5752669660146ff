#include "common/Poller.h"

#include "common/FailFast.h"

namespace NS_THREAD_UTILS {

CPoller::CPoller() : CPoller(NS_Utils::UniqueHandle(::CreateEventW(nullptr, FALSE, FALSE, nullptr))) {}

CPoller::CPoller(NS_Utils::UniqueHandle stopEvent) : m_stopEvent(std::move(stopEvent)) {}

CPoller::~CPoller() {
    Stop();
    NS_Utils::UniqueHandle aux(m_auxEvent.exchange(nullptr));
}

void CPoller::Stop() noexcept { ::SetEvent(m_stopEvent.get()); }

void CPoller::SetMaxPolls(DWORD maxPolls) noexcept {
    Rule().CheckUnbound(L"[NS_THREAD_UTILS::CPoller::SetMaxPolls]\t set while the poller runs");
    m_maxPolls = maxPolls;
}

void CPoller::SetInterval(DWORD intervalMs) noexcept {
    Rule().CheckUnbound(L"[NS_THREAD_UTILS::CPoller::SetInterval]\t set while the poller runs");
    m_intervalMs = intervalMs;
}

void CPoller::AddWaitHandle(HANDLE handle) {
    Rule().CheckUnbound(L"[NS_THREAD_UTILS::CPoller::AddWaitHandle]\t added while the poller runs");
    m_extraHandles.push_back(handle);
}

unsigned CPoller::ThreadMain(void* args) {
    Run(args);
    return 0;
}

void CPoller::Run(void* args) {
    OnStart(args);
    DWORD count = 0;
    for (;;) {
        Poll(++count);
        if (m_maxPolls != 0 && count >= m_maxPolls) break;
        std::vector<HANDLE> handles = m_extraHandles;
        handles.push_back(m_stopEvent.get());
        DWORD wait = ::WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, m_intervalMs);
        if (wait != WAIT_TIMEOUT) break;
    }
    EndLoop();
}

void CPoller::EndLoop() {
    OnEnd();
    NS_Utils::UniqueHandle aux(m_auxEvent.exchange(nullptr));
    if (aux) ::ResetEvent(aux.get());
}

}  // namespace NS_THREAD_UTILS
