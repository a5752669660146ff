#pragma once
// The real Tarrow.exe for a benchmark: registered for the user, its installation folder (and so
// its log) in C:\TarrowBench with the stand-in agent, started, and reached through the running
// object table.

#include "common/ComHandles.h"
#include "common/Registry.h"
#include "common/Settings.h"
#include "testing/agent/StandInControl.h"
#include "tests/support/ServiceProcess.h"
#include "tools/TarrowClient.h"

#include <cstdio>

namespace bench {

// Call with COM initialised on this thread. False, said on stderr under `program`, when the
// service could not be reached within a minute.
inline bool StartService(const char* program, testsupport::ServiceProcess& service, NS_Utils::ComPtr<ITarrow>& tarrow) {
    ::CreateDirectoryW(L"C:\\TarrowBench", nullptr);
    NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, NS_Settings::kProgramDir.key, NS_Settings::kProgramDir.valueName,
                                  L"C:\\TarrowBench");
    // With an agent, as on a desktop: released credentials are checked in, not kept on the disk.
    standin::Install(L"C:\\TarrowBench\\");
    testsupport::ChildProcess registration = testsupport::ChildProcess::Start(L"Tarrow.exe", L"/RegServerPerUser");
    registration.Wait(60000);
    if (service.Start() && SUCCEEDED(tarrowctl::ConnectToTarrow(tarrow))) return true;
    std::fprintf(stderr, "%s: the service did not start\n", program);
    return false;
}

}  // namespace bench
