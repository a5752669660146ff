#include "common/WaitRegistration.h"

#include "common/WinHandles.h"

#include <atomic>
#include <memory>
#include <new>
#include <utility>

namespace NS_Utils {
namespace {
std::atomic<bool> g_late{false};
// Spreads the delays, so that callbacks come late by different amounts.
std::atomic<unsigned> g_lateRuns{0};
std::atomic<unsigned> g_afterUnregister{0};
constexpr unsigned kMaxLateMs = 20;
}  // namespace

// A registration whose callbacks the pool hands on to run late. Freed by the last of its threads,
// once the pool hands on no more and every callback handed on has returned.
struct WaitRegistration::Late {
    WAITORTIMERCALLBACK callback;
    void* context;
    std::atomic<LONG> running{0};
    UniqueHandle poolDone{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    HANDLE completion = nullptr;
    std::atomic<bool> unregistered{false};

    struct Run {
        Late* late;
        BOOLEAN fired;
    };

    static void CALLBACK HandOn(void* param, BOOLEAN fired) {
        auto* late = static_cast<Late*>(param);
        late->running.fetch_add(1);
        auto* run = new (std::nothrow) Run{late, fired};
        if (run && ::QueueUserWorkItem(RunLate, run, WT_EXECUTEDEFAULT)) return;
        delete run;
        late->callback(late->context, fired);
        late->running.fetch_sub(1);
    }

    static DWORD WINAPI RunLate(void* param) {
        std::unique_ptr<Run> run(static_cast<Run*>(param));
        ::Sleep(1 + g_lateRuns.fetch_add(1) % kMaxLateMs);
        if (run->late->unregistered.load()) g_afterUnregister.fetch_add(1);
        run->late->callback(run->late->context, run->fired);
        run->late->running.fetch_sub(1);
        return 0;
    }

    static DWORD WINAPI Finish(void* param) {
        std::unique_ptr<Late> late(static_cast<Late*>(param));
        (void)::WaitForSingleObject(late->poolDone.get(), INFINITE);
        while (late->running.load() != 0) ::Sleep(1);
        if (late->completion) ::SetEvent(late->completion);
        return 0;
    }
};

void WaitRegistration::SetLateCallbacksForTesting(bool late) noexcept { g_late.store(late); }

unsigned WaitRegistration::LateCallbacksAfterUnregister() noexcept { return g_afterUnregister.load(); }

WaitRegistration::~WaitRegistration() {
    // A late registration's threads may still use it: it is left to them.
    if (m_wait) ::UnregisterWaitEx(m_wait, nullptr);
}

bool WaitRegistration::Register(HANDLE object, WAITORTIMERCALLBACK callback, void* context, ULONG milliseconds,
                                ULONG flags) {
    if (g_late.load()) {
        auto late = std::make_unique<Late>();
        late->callback = callback;
        late->context = context;
        if (!late->poolDone) return false;
        if (!::RegisterWaitForSingleObject(&m_wait, object, &Late::HandOn, late.get(), milliseconds, flags)) {
            m_wait = nullptr;
            return false;
        }
        m_late = late.release();
        return true;
    }
    if (::RegisterWaitForSingleObject(&m_wait, object, callback, context, milliseconds, flags)) return true;
    m_wait = nullptr;
    return false;
}

bool WaitRegistration::Unregister(HANDLE completion) {
    HANDLE wait = std::exchange(m_wait, nullptr);
    Late* late = std::exchange(m_late, nullptr);
    if (!late) return ::UnregisterWaitEx(wait, completion) != FALSE;
    if (!::UnregisterWaitEx(wait, late->poolDone.get()) && ::GetLastError() != ERROR_IO_PENDING) return false;
    // Success, whatever the pool is still doing: the completion event alone tells.
    late->completion = completion;
    late->unregistered.store(true);
    // Without a thread to finish it, the event is never signalled: the owner keeps its context.
    (void)::QueueUserWorkItem(&Late::Finish, late, WT_EXECUTELONGFUNCTION);
    return true;
}

}  // namespace NS_Utils
