#pragma once
// A holder process opened for what the service does with it: waiting for its exit and reading its
// start time and executable, always; ending it at lease expiry or logoff, where Windows grants
// that. A medium-integrity service is refused the right to end an elevated process (and full
// access, which includes WRITE_DAC) but may still wait on it and ask its name, so such a holder
// is kept and watched, and named where it would have been ended. The handle is never
// inheritable: a child process started with inheritance must not get a handle to every holder.
//
// Wine grants every right asked for; tests switch the opens to answer as Windows does toward an
// elevated process (waiting and asking only) or toward one of another account (nothing).
//
// Threads: Open from any thread; the switch is set by a test before the opens it should affect.

#include "common/WinHandles.h"

namespace NS_Utils {

class HolderProcessHandle {
public:
    // What Windows grants whatever the holder's integrity level.
    static constexpr DWORD kWaitAndQuery = SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION;

    enum class Answer {
        AsAsked,        // the system's own answer
        AsToElevated,   // any right beyond waiting and asking refused
        AsToOtherUser,  // everything refused
    };

    HolderProcessHandle() = default;
    // Waiting and asking, and ending when granted; invalid when not even waiting is granted, with
    // the system's error as the thread's last error.
    [[nodiscard]] static HolderProcessHandle Open(DWORD pid);

    bool Valid() const noexcept { return m_handle.valid(); }
    HANDLE Handle() const noexcept { return m_handle.get(); }
    // Whether the handle carries PROCESS_TERMINATE.
    bool CanEnd() const noexcept { return m_canEnd; }

    static void SetAnswerForTesting(Answer answer) noexcept;

private:
    UniqueHandle m_handle;
    bool m_canEnd = false;
};

}  // namespace NS_Utils
