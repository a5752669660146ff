#include "common/HolderProcessHandle.h"

#include <atomic>

namespace NS_Utils {
namespace {

std::atomic<HolderProcessHandle::Answer> g_answer{HolderProcessHandle::Answer::AsAsked};

HANDLE OpenWith(DWORD access, DWORD pid) {
    const HolderProcessHandle::Answer answer = g_answer.load();
    const bool refused = answer == HolderProcessHandle::Answer::AsToOtherUser ||
                         (answer == HolderProcessHandle::Answer::AsToElevated &&
                          (access & ~HolderProcessHandle::kWaitAndQuery));
    if (refused) {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return ::OpenProcess(access, FALSE, pid);
}

}  // namespace

HolderProcessHandle HolderProcessHandle::Open(DWORD pid) {
    HolderProcessHandle process;
    process.m_handle.reset(OpenWith(kWaitAndQuery | PROCESS_TERMINATE, pid));
    if (process.m_handle) {
        process.m_canEnd = true;
        return process;
    }
    // Any other answer (no such process, a bad id) is the same without the right to end it.
    if (::GetLastError() == ERROR_ACCESS_DENIED) process.m_handle.reset(OpenWith(kWaitAndQuery, pid));
    return process;
}

void HolderProcessHandle::SetAnswerForTesting(Answer answer) noexcept { g_answer.store(answer); }

}  // namespace NS_Utils
