#pragma once
// Debian's strace attached, from inside Wine, to the Linux process that runs a Windows program of
// this prefix: to record its system calls, or to kill it at the N-th call of one (strace counts
// each system call per thread). Wine starts Linux programs given by a Z: path; their handles
// cannot be waited for, so strace is known by its Linux process id.

#include <windows.h>

#include <map>
#include <string>
#include <vector>

namespace soak {

class Strace {
public:
    Strace() = default;
    Strace(const Strace&) = delete;
    Strace& operator=(const Strace&) = delete;
    ~Strace() { Detach(); }

    // One call of a trace: its thread, its name, which call of that name it was in its thread
    // (from 1), the path of the file descriptor it was made on, and the bytes it wrote.
    struct Call {
        DWORD tid = 0;
        std::string name;
        unsigned n = 0;
        std::string path;
        std::string bytes;
    };

    // The Linux process id of the running `exeName` of this Wine prefix; 0 when there is none.
    static DWORD LinuxPid(const std::wstring& exeName);
    // The Linux thread id of the calling thread.
    static DWORD CurrentLinuxThread();
    // The Linux threads of a process, oldest first.
    static std::vector<DWORD> Threads(DWORD linuxPid);
    // Attaches to every thread of `linuxPid` (only to the thread `onlyThread` when it is not 0),
    // tracing `syscalls` (comma-separated) into `traceFile` (a Windows path in the prefix; empty
    // for none), with the bytes written in full; with `killAt` > 0, the process is killed at the
    // `killAt`-th call of `killSyscall` in any one traced thread. True once attached.
    bool Attach(DWORD linuxPid, const std::string& syscalls, const std::wstring& traceFile,
                const std::string& killSyscall = {}, unsigned killAt = 0, DWORD onlyThread = 0);
    // Lets the process go on untraced (nothing when strace has ended with it).
    void Detach();

    // Every call that a trace file records, in order.
    static std::vector<Call> ReadCalls(const std::wstring& traceFile);

private:
    DWORD m_stracePid = 0;
};

}  // namespace soak
