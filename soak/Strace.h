#pragma once
// Debian's strace attached, from inside Wine, to the Linux process that runs a Windows program of
// this prefix: to record its system calls, or to kill it at the N-th call of one (strace counts
// each system call per thread). Wine starts Linux programs given by a Z: path; their handles
// cannot be waited for, so strace is known by its Linux process id.

#include <windows.h>

#include <map>
#include <string>

namespace soak {

class Strace {
public:
    Strace() = default;
    Strace(const Strace&) = delete;
    Strace& operator=(const Strace&) = delete;
    ~Strace() { Detach(); }

    // The Linux process id of the running `exeName` of this Wine prefix; 0 when there is none.
    static DWORD LinuxPid(const std::wstring& exeName);
    // Attaches to every thread of `linuxPid`, tracing `syscalls` (comma-separated) into
    // `traceFile` (a Windows path in the prefix; empty for none); with `killAt` > 0, the process
    // is killed at its `killAt`-th call of `killSyscall` in any one thread. True once attached.
    bool Attach(DWORD linuxPid, const std::string& syscalls, const std::wstring& traceFile,
                const std::string& killSyscall = {}, unsigned killAt = 0);
    // Lets the process go on untraced (nothing when strace has ended with it).
    void Detach();

    // The most calls of each system call that one thread made, from a trace file.
    static std::map<std::string, unsigned> MostCallsPerThread(const std::wstring& traceFile);
    // The calls in a trace file on files whose Linux path contains `folder`.
    static unsigned CallsOnFolder(const std::wstring& traceFile, const std::string& folder);

private:
    DWORD m_stracePid = 0;
};

}  // namespace soak
