#pragma once
// The real Tarrow.exe from the program folder, for tests, benchmarks and the soak program: started
// until its object can be reached through the running object table, asked to stop as the end of
// the session does, or ended by force as a crash would. A service still running when this is
// destroyed is asked to stop.

#include "common/ComHandles.h"
#include "tests/support/TestSupport.h"
#include "tools/TarrowClient.h"

#include <functional>

namespace testsupport {

class ServiceProcess {
public:
    // Whether a fresh connection to the object is ready for use (beyond being reachable).
    using Ready = std::function<bool(ITarrow*)>;

    ServiceProcess() = default;
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;
    ~ServiceProcess() { Stop(); }

    // Starts Tarrow.exe and waits, a minute at most, until its object can be reached and `ready`
    // (when given) holds; false when the process ended first or the time ran out.
    bool Start(const Ready& ready = {}) {
        m_process = ChildProcess::Start(L"Tarrow.exe", L"");
        NS_Utils::ComApartment com;
        NS_Utils::ComPtr<ITarrow> tarrow;
        return m_process.Valid() &&
               WaitUntil(
                   [&] {
                       if (!Running()) return true;
                       tarrow = {};
                       return SUCCEEDED(tarrowctl::ConnectToTarrow(tarrow)) && (!ready || ready(tarrow.get()));
                   },
                   60000) &&
               Running();
    }
    // Ends the message loop as the end of the session would (by force after 30 s); the exit code.
    DWORD Stop() {
        if (!m_process.Valid()) return 0;
        if (Running()) {
            ::PostThreadMessageW(m_process.MainThreadId(), WM_QUIT, 0, 0);
            if (m_process.Wait(30000) != WAIT_OBJECT_0) m_process.Kill();
        }
        return m_process.ExitCode();
    }
    // Ends the process at once, as a crash would.
    void Kill() {
        if (!Running()) return;
        ::TerminateProcess(m_process.Handle(), 9);
        m_process.Wait(30000);
    }

    bool Running() const { return m_process.Valid() && m_process.Wait(0) == WAIT_TIMEOUT; }
    DWORD ExitCode() const { return m_process.ExitCode(); }
    DWORD Pid() const { return m_process.Id(); }
    HANDLE Handle() const { return m_process.Handle(); }

private:
    ChildProcess m_process;
};

}  // namespace testsupport
