#include "common/HolderProcess.h"

#include <atomic>

namespace NS_Utils {
namespace {

std::atomic<HolderProcess::Answer> g_answer{HolderProcess::Answer::AsAsked};

HANDLE OpenWith(DWORD access, DWORD pid) {
    const HolderProcess::Answer answer = g_answer.load();
    const bool refused = answer == HolderProcess::Answer::AsToOtherUser ||
                         (answer == HolderProcess::Answer::AsToElevated && (access & ~HolderProcess::kWaitAndQuery));
    if (refused) {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return ::OpenProcess(access, FALSE, pid);
}

}  // namespace

HolderProcess HolderProcess::Open(DWORD pid) {
    HolderProcess process;
    process.m_handle.reset(OpenWith(kWaitAndQuery | PROCESS_TERMINATE, pid));
    if (process.m_handle) {
        process.m_canEnd = true;
        return process;
    }
    // Any other answer (no such process, a bad id) is the same without the right to end it.
    if (::GetLastError() == ERROR_ACCESS_DENIED) process.m_handle.reset(OpenWith(kWaitAndQuery, pid));
    return process;
}

void HolderProcess::SetAnswerForTesting(Answer answer) noexcept { g_answer.store(answer); }

}  // namespace NS_Utils
