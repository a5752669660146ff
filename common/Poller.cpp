#include "common/Poller.h"

#include "common/FailFast.h"
#include "common/Log.h"

#include <algorithm>
#include <new>

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

namespace {
constexpr DWORD kOutOfMemoryPauseMs = 1000;

void LogOutOfMemory(const wchar_t* what) noexcept {
    try {
        NS_Log::Log(1, std::wstring(L"[NS_THREAD_UTILS::CPoller::Run]\t Out of memory in the ") + what +
                           L"; the poller goes on.");
    } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): the thread matters more than its line
    }
}
}  // namespace

void CPoller::Run(void* args) {
    try {
        OnStart(args);
    } catch (const std::bad_alloc&) {
        LogOutOfMemory(L"start");
    }
    // Made once: a copy for every wait could run out of memory where nothing can catch it.
    std::vector<HANDLE> handles;
    try {
        handles = m_extraHandles;
        handles.push_back(m_stopEvent.get());
    } catch (const std::bad_alloc&) {
        LogOutOfMemory(L"wait list; it ends");
        return EndLoop();
    }
    DWORD count = 1;
    for (;;) {
        DWORD pauseMs = m_intervalMs;
        try {
            Poll(count);
            ++count;
        } catch (const std::bad_alloc&) {
            // The same poll once more, soon: its work (an expiry to act on) is not lost to the interval.
            LogOutOfMemory(L"poll");
            pauseMs = std::min(m_intervalMs, kOutOfMemoryPauseMs);
        }
        if (m_maxPolls != 0 && count > m_maxPolls) break;
        DWORD wait = ::WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, pauseMs);
        if (wait != WAIT_TIMEOUT) break;
    }
    EndLoop();
}

void CPoller::EndLoop() {
    try {
        OnEnd();
    } catch (const std::bad_alloc&) {
        LogOutOfMemory(L"end");
    }
    NS_Utils::UniqueHandle aux(m_auxEvent.exchange(nullptr));
    if (aux) ::ResetEvent(aux.get());
}

}  // namespace NS_THREAD_UTILS
