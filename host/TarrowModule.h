#pragma once
// The executable's COM module: its lock and its command line. The object holds the lock for its
// life and WinMain holds the object until the message loop has ended, so the lock reaching zero
// never ends the loop: a WM_QUIT does, from the close-request window or posted to the main thread.

#include "common/ThreadRule.h"

#include <windows.h>
#include <string>

class CTarrowModule {
public:
    static CTarrowModule& Instance();

    // Taken by every live COM object of the server.
    ULONG Lock();
    // Posts WM_QUIT to the main thread when the last lock goes (after the loop, in this server).
    ULONG Unlock();
    // The thread that runs the message loop and every call on the object: bound by WinMain.
    NS_Utils::ThreadRule& MainThread() noexcept { return m_mainThread; }

    enum class Switch { None, RegServer, UnregServer, RegServerPerUser, UnregServerPerUser, Unparsable };
    // The registration switch of a command line ("-" or "/" then the name, in any case), None,
    // or Unparsable when the line cannot be split into arguments.
    static Switch ParseCommandLine(const std::wstring& commandLine);
    // Does the switch's registry work and returns its result.
    [[nodiscard]] static HRESULT RunSwitch(Switch which);

private:
    NS_Utils::ThreadRule m_mainThread;
};
