#pragma once
// The executable's COM module: its lock and its command line. The object holds the lock for its
// life and WinMain holds the object until the message loop has ended, so the lock reaching zero
// never ends the loop: a WM_QUIT does, from the close-request window or posted to the main thread.

#include <windows.h>

#include <atomic>
#include <string>

class CTarrowModule {
public:
    static CTarrowModule& Instance();

    // Taken by every live COM object of the server.
    ULONG Lock();
    // Posts WM_QUIT to the main thread when the last lock goes (after the loop, in this server).
    ULONG Unlock();
    void SetMainThread(DWORD threadId) { m_mainThreadId = threadId; }
    // Ends the process, with `call` in the log, unless called on the main thread (once it is set).
    void ExpectMainThread(const wchar_t* call) const;

    enum class Switch { None, RegServer, UnregServer, RegServerPerUser, UnregServerPerUser, Unparsable };
    // The registration switch of a command line ("-" or "/" then the name, in any case), None,
    // or Unparsable when the line cannot be split into arguments.
    static Switch ParseCommandLine(const std::wstring& commandLine);
    // Does the switch's registry work and returns its result.
    [[nodiscard]] static HRESULT RunSwitch(Switch which);

private:
    // Set on the main thread, read on any thread that checks or unlocks.
    std::atomic<DWORD> m_mainThreadId{0};
};
