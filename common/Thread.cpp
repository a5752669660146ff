#include "common/Thread.h"

#include "common/FailFast.h"
#include "common/Log.h"

#include <process.h>

#include <memory>
#include <string>

namespace NS_THREAD_UTILS {

namespace {
constexpr const wchar_t* kStackRule =
    L"[NS_THREAD_UTILS::StartThread]\t a thread used more than half of its stack reservation";

struct StartContext {
    unsigned reservation;
    unsigned(__stdcall* proc)(void*);
    DWORD(WINAPI* win32Proc)(void*);
    void* arg;
};

void CheckStackUse(unsigned reservation) {
    const size_t deepest = DeepestStackUse();
    NS_Log::Log(3, L"[NS_THREAD_UTILS::StartThread]\t deepest stack use " + std::to_wstring(deepest) + L" of " +
                       std::to_wstring(reservation) + L" bytes");
    NS_Utils::FailFastUnless(deepest <= reservation / 2, kStackRule);
}

unsigned __stdcall GuardedEntry(void* context) {
    const StartContext start = *static_cast<StartContext*>(context);
    delete static_cast<StartContext*>(context);
    const unsigned result = start.proc ? start.proc(start.arg) : start.win32Proc(start.arg);
    CheckStackUse(start.reservation);
    return result;
}

NS_Utils::UniqueHandle Begin(const StartContext& start, unsigned* id) {
    auto context = std::make_unique<StartContext>(start);
    // The size is the reservation, not the first commit: without the flag Windows would reserve
    // the program's default (1 MB) whatever is asked for here.
    const uintptr_t handle = ::_beginthreadex(nullptr, start.reservation, &GuardedEntry, context.get(),
                                              STACK_SIZE_PARAM_IS_A_RESERVATION, id);
    if (handle == 0) return {};
    (void)context.release();  // GuardedEntry owns it from here
    return NS_Utils::UniqueHandle(reinterpret_cast<HANDLE>(handle));
}

struct ThreadContext {
    CThread* thread;
    void* args;
};
}  // namespace

NS_Utils::UniqueHandle StartThread(unsigned reservation, unsigned(__stdcall* proc)(void*), void* arg, unsigned* id) {
    return Begin({reservation, proc, nullptr, arg}, id);
}

NS_Utils::UniqueHandle StartThread(unsigned reservation, DWORD(WINAPI* proc)(void*), void* arg) {
    return Begin({reservation, nullptr, proc, arg}, nullptr);
}

size_t DeepestStackUse() noexcept {
    ULONG_PTR low = 0, high = 0;
    ::GetCurrentThreadStackLimits(&low, &high);
    // Below the deepest point reached, a stack's pages are either not committed yet (Windows) or
    // still zero as they were given (Wine): the first committed byte that is not zero, going up
    // from the bottom, is the deepest point (a zero page inside the used part only lowers it).
    for (ULONG_PTR at = low; at < high;) {
        MEMORY_BASIC_INFORMATION region{};
        if (::VirtualQuery(reinterpret_cast<void*>(at), &region, sizeof(region)) == 0) return 0;
        const ULONG_PTR end = reinterpret_cast<ULONG_PTR>(region.BaseAddress) + region.RegionSize;
        if (region.State == MEM_COMMIT && (region.Protect & PAGE_GUARD) == 0 &&
            (region.Protect & (PAGE_READWRITE | PAGE_READONLY)) != 0) {
            for (auto* word = reinterpret_cast<const ULONG_PTR*>(at); reinterpret_cast<ULONG_PTR>(word) < end; ++word)
                if (*word != 0) return high - reinterpret_cast<ULONG_PTR>(word);
        }
        at = end;
    }
    return 0;
}

unsigned __stdcall CThread::Entry(void* context) {
    std::unique_ptr<ThreadContext> start(static_cast<ThreadContext*>(context));
    start->thread->m_rule.BindToCurrentThread();
    unsigned result = start->thread->ThreadMain(start->args);
    ::OutputDebugStringA("[CThread] reached business logic end point");
    ::OutputDebugStringA("[CThread] exiting");
    return result;
}

bool CThread::Start(void* args, unsigned reservation) {
    if (m_thread) return false;
    auto context = std::make_unique<ThreadContext>(ThreadContext{this, args});
    unsigned id = 0;
    NS_Utils::UniqueHandle thread = StartThread(reservation, &CThread::Entry, context.get(), &id);
    if (!thread) return false;
    (void)context.release();  // Entry owns it from here
    m_thread = std::move(thread);
    m_rule.Bind(id);
    return true;
}

DWORD CThread::Join(DWORD timeoutMs) const {
    if (!m_thread) return WAIT_OBJECT_0;
    return ::WaitForSingleObject(m_thread.get(), timeoutMs);
}

bool CThread::Terminate(DWORD exitCode) { return m_thread && ::TerminateThread(m_thread.get(), exitCode); }

}  // namespace NS_THREAD_UTILS
