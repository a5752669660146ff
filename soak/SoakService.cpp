#include "soak/SoakService.h"

#include "common/Registry.h"
#include "common/Settings.h"
#include "testing/agent/StandInControl.h"

#include <psapi.h>

#include <cstdio>

namespace soak {
namespace {

using NS_Utils::RegKeys::kLogging;

void Say(const char* what) { std::fprintf(stderr, "tarrow_soak: %s\n", what); }

// A probe that changes nothing: a key no credential has.
bool Answers(ITarrow* tarrow) {
    NS_Utils::UniqueBstr none(std::wstring(L"soak-probe")), found;
    return SUCCEEDED(tarrow->GetRegisteredSharedId(::GetCurrentProcessId(), none.get(), none.get(), none.get(),
                                                   VARIANT_FALSE, found.put()));
}

}  // namespace

bool PrepareService(DWORD logLevel, DWORD checkInDelayMs) {
    ::CreateDirectoryW(kInstallFolder, nullptr);
    NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, NS_Settings::kProgramDir.key, NS_Settings::kProgramDir.valueName,
                                  kInstallFolder);
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, kLogging, L"LogLevel", logLevel);
    // One file for the whole run: the lease count is read back from it at the end.
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, kLogging, L"LogFileSize", 1u << 20);
    if (!standin::Install(kInstallFolder)) return Say("the stand-in agent could not be installed"), false;
    standin::ClearScript();
    standin::SetScript(L"Journal", std::wstring(kInstallFolder) + L"journal.log");
    standin::SetScript(L"CheckInDelayMs", checkInDelayMs);
    standin::ClearJournal();
    testsupport::ChildProcess registration = testsupport::ChildProcess::Start(L"Tarrow.exe", L"/RegServerPerUser");
    if (!registration.Valid() || registration.Wait(60000) != WAIT_OBJECT_0 || registration.ExitCode() != 0)
        return Say("Tarrow.exe /RegServerPerUser failed"), false;
    return true;
}

std::wstring CredentialFolder() { return testsupport::CredentialFolder(); }

std::vector<std::wstring> CredentialFiles() { return testsupport::ListFiles(CredentialFolder(), L"*.dat"); }

void DescribeCredentialFiles(const char* heading) {
    for (const std::wstring& name : CredentialFiles()) {
        std::wstring text = testsupport::ReadUtf16File(CredentialFolder() + name);
        const size_t units = text.size();
        text.resize(std::min<size_t>(units, 160));
        for (wchar_t& c : text)
            if (c < L' ' || c > L'~') c = c == L'\n' ? L'|' : L'?';
        std::printf("    %s: %ls, %zu bytes: %ls\n", heading, name.c_str(), units * 2, text.c_str());
    }
}

HRESULT ConnectAndProbe(NS_Utils::ComPtr<ITarrow>& tarrow, DWORD timeoutMs) {
    HRESULT hr = E_FAIL;
    for (ULONGLONG deadline = ::GetTickCount64() + timeoutMs;; ::Sleep(20)) {
        tarrow = {};
        hr = tarrowctl::ConnectToTarrow(tarrow);
        if (SUCCEEDED(hr) && Answers(tarrow.get())) return S_OK;
        if (SUCCEEDED(hr)) hr = RPC_E_DISCONNECTED;
        if (::GetTickCount64() > deadline) return hr;
    }
}

bool StartAnswering(Service& service) { return service.Start(Answers); }

std::wstring LogText() {
    return testsupport::ReadUtf16File(std::wstring(kInstallFolder) + L"logs\\brisk_observer.log");
}

long LastLeaseCount(const std::wstring& log, DWORD pid) {
    const std::wstring process = L" P:" + std::to_wstring(pid) + L" ", marker = L"Number of leases: ";
    long count = -1;
    for (const std::wstring& line : testsupport::SplitLines(log, L"\n")) {
        const size_t at = line.find(marker);
        if (at != std::wstring::npos && line.find(process) != std::wstring::npos)
            count = std::wcstol(line.c_str() + at + marker.size(), nullptr, 10);
    }
    return count;
}

DWORD HandleCount(DWORD pid) { return testsupport::CountHandles(pid); }

MemoryFigures Memory(HANDLE process) {
    PROCESS_MEMORY_COUNTERS_EX counters{};
    counters.cb = sizeof(counters);
    if (!::GetProcessMemoryInfo(process, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters), sizeof(counters)))
        return {};
    return {counters.PagefileUsage, counters.WorkingSetSize};
}

unsigned DefaultSeed() {
    LARGE_INTEGER now{};
    ::QueryPerformanceCounter(&now);
    return static_cast<unsigned>(now.QuadPart ^ (now.QuadPart >> 32) ^ ::GetCurrentProcessId()) % 1000000000u;
}

}  // namespace soak
