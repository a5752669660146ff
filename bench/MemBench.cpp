// Tarrow's private memory, printed, never asserted: idle, once one credential came and went
// (warm), after 10,000 register/release cycles, with 1, 100 and 1,000 credentials held (each by
// a holder process of its own, its lease far ahead) and once they are released; each beside its
// floor measured in the same run: mem_floor, a bare COM server with the libraries Tarrow has
// loaded, with as many process handles and thread-pool waits as Tarrow has holders. Starts
// Tarrow.exe itself.
//   mem_bench [most credentials=1000] [cycles=10000]

#include "bench/BenchService.h"
#include "bench/Timing.h"
#include "tests/support/TestSupport.h"
#include "tools/TarrowClient.h"

#include <psapi.h>
#include <tlhelp32.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

using testsupport::ChildProcess;

namespace {

constexpr DWORD kQuietMs = 15000;

struct Reading {
    double privateMb = 0;
    int threads = 0;
};

int ThreadCount(DWORD pid) {
    NS_Utils::UniqueHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    int count = 0;
    for (BOOL more = ::Thread32First(snapshot.get(), &entry); more; more = ::Thread32Next(snapshot.get(), &entry))
        if (entry.th32OwnerProcessID == pid) ++count;
    return count;
}

// After the process has had `settleMs` to finish what it was doing.
Reading Read(HANDLE process, DWORD pid, DWORD settleMs = 3000) {
    ::Sleep(settleMs);
    // The commit charge: the same figure as PrivateUsage on Windows, and the one Wine 8 fills in.
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof(counters);
    ::GetProcessMemoryInfo(process, &counters, sizeof(counters));
    return {static_cast<double>(counters.PagefileUsage) / (1024.0 * 1024.0), ThreadCount(pid)};
}

// The libraries the service has loaded, its own program left out, quoted for a command line.
std::wstring LoadedLibraries(HANDLE process) {
    HMODULE modules[512];
    DWORD needed = 0;
    if (!::EnumProcessModulesEx(process, modules, sizeof(modules), &needed, LIST_MODULES_ALL)) return {};
    std::wstring list;
    for (DWORD i = 1; i < std::min<DWORD>(needed / sizeof(HMODULE), 512); ++i) {
        wchar_t path[MAX_PATH] = {};
        if (::GetModuleFileNameExW(process, modules[i], path, MAX_PATH)) list += L" \"" + std::wstring(path) + L"\"";
    }
    return list;
}

Reading Floor(int waits, const std::wstring& libraries) {
    const std::wstring name = L"TarrowMemFloorReady" + std::to_wstring(::GetCurrentProcessId());
    NS_Utils::UniqueHandle ready(::CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
    ChildProcess floor = ChildProcess::Start(L"mem_floor.exe", std::to_wstring(waits) + L" " + name + libraries);
    HANDLE either[] = {ready.get(), floor.Handle()};
    if (!floor.Valid() || ::WaitForMultipleObjects(2, either, FALSE, 120000) != WAIT_OBJECT_0) {
        std::fprintf(stderr, "mem_bench: the floor did not start (exit code %lu)\n", floor.ExitCode());
        return {};
    }
    return Read(floor.Handle(), floor.Id());
}

class Client {
public:
    explicit Client(ITarrow* tarrow) : m_tarrow(tarrow) {}
    bool Register(DWORD pid, const std::wstring& role) { return Call(true, pid, role); }
    bool Release(DWORD pid, const std::wstring& role) { return Call(false, pid, role); }

private:
    bool Call(bool registering, DWORD pid, const std::wstring& role) {
        NS_Utils::UniqueBstr bstrRole(role);
        DWORD result = 99;
        const HRESULT hr = registering
                               ? m_tarrow->RegisterSharedId(pid, m_url.get(), m_srv.get(), nullptr, m_svc.get(),
                                                            m_account.get(), nullptr, bstrRole.get(), nullptr,
                                                            m_lease.get(), m_expiry.get(), nullptr, VARIANT_TRUE,
                                                            nullptr, &result)
                               : m_tarrow->ReleaseSharedId(pid, m_url.get(), m_svc.get(), bstrRole.get(), &result);
        return SUCCEEDED(hr) && result == 0;
    }
    ITarrow* m_tarrow;
    NS_Utils::UniqueBstr m_url{std::wstring(L"https://corvin/auth")}, m_srv{std::wstring(L"srv")},
        m_svc{std::wstring(L"svc")}, m_account{std::wstring(L"acct")}, m_lease{std::wstring(L"cn=mem")},
        m_expiry{std::wstring(L"20301231T120000Z")};
};

void PrintRow(const char* label, const Reading& tarrow, const Reading& floor) {
    std::printf("%-28s Tarrow %7.2f MB (%3d threads) | floor %7.2f MB (%3d threads) | x%.2f\n", label, tarrow.privateMb,
                tarrow.threads, floor.privateMb, floor.threads,
                floor.privateMb > 0 ? tarrow.privateMb / floor.privateMb : 0.0);
}

// What each credential added to the service (warm, after the cycles), beside what each handle and wait added to the
// floor.
void PrintPerCredential(int count, const Reading& tarrow, const Reading& base, const Reading& floor,
                        const Reading& bareFloor) {
    const double ours = (tarrow.privateMb - base.privateMb) * 1024.0 / count;
    const double platform = (floor.privateMb - bareFloor.privateMb) * 1024.0 / count;
    std::printf("%-28s per credential: Tarrow %7.1f kB | platform (handle + wait) %7.1f kB | aim %7.1f kB\n", "", ours,
                platform, 1.5 * platform + 2.0);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const int most = argc > 1 ? std::max(1, _wtoi(argv[1])) : 1000;
    const int cycles = argc > 2 ? std::max(0, _wtoi(argv[2])) : 10000;
    NS_Utils::ComApartment com;
    testsupport::ServiceProcess service;
    NS_Utils::ComPtr<ITarrow> tarrow;
    if (!bench::StartService("mem_bench", service, tarrow)) return 1;
    Client client(tarrow.get());

    const Reading idle = Read(service.Handle(), service.Pid(), 5000);
    const std::wstring libraries = LoadedLibraries(service.Handle());
    const Reading bareFloor = Floor(0, libraries);
    PrintRow("idle", idle, bareFloor);

    int failed = 0;
    // The first credential starts what the service starts only when it is needed (the check-in
    // worker, the lease window's thread, the thread pool's, the agent's libraries): once, not per
    // credential. "Warm" is the service after one credential came and went.
    {
        ChildProcess first = ChildProcess::StartHelper(L"--sleep 3600000");
        if (!client.Register(first.Id(), L"mem-warm") || !client.Release(first.Id(), L"mem-warm")) ++failed;
        testsupport::WaitUntil([] { return testsupport::ListFiles(testsupport::CredentialFolder(), L"*.dat").empty(); },
                               60000);
    }
    const Reading warm = Read(service.Handle(), service.Pid(), kQuietMs);
    PrintRow("warm idle", warm, bareFloor);

    ChildProcess holder = ChildProcess::StartHelper(L"--sleep 3600000");
    const double start = bench::Now();
    for (int i = 0; i < cycles; ++i) {
        const std::wstring role = L"cycle-" + std::to_wstring(i);
        if (!client.Register(holder.Id(), role) || !client.Release(holder.Id(), role)) ++failed;
    }
    const double seconds = (bench::Now() - start) / 1000.0;
    testsupport::WaitUntil([] { return testsupport::ListFiles(testsupport::CredentialFolder(), L"*.dat").empty(); },
                           120000);
    const Reading after = Read(service.Handle(), service.Pid(), kQuietMs);
    const std::string cyclesLabel = "after " + std::to_string(cycles) + " cycles";
    PrintRow(cyclesLabel.c_str(), after, bareFloor);
    std::printf("%-28s against warm idle: %+.2f MB (%+.1f %%); the cycles took %.1f s\n", "",
                after.privateMb - warm.privateMb, 100.0 * (after.privateMb - warm.privateMb) / warm.privateMb, seconds);
    std::vector<ChildProcess> holders;
    for (int count : {1, 100, 1000}) {
        count = std::min(count, most);
        while (static_cast<int>(holders.size()) < count) {
            holders.push_back(ChildProcess::StartHelper(L"--sleep 3600000"));
            if (!client.Register(holders.back().Id(), L"mem-" + std::to_wstring(holders.size()))) ++failed;
        }
        const Reading held = Read(service.Handle(), service.Pid());
        const Reading floor = Floor(count, libraries);
        const std::string label = std::to_string(count) + " credentials held";
        PrintRow(label.c_str(), held, floor);
        PrintPerCredential(count, held, after, floor, bareFloor);
        if (count == most) break;
    }
    for (size_t i = 0; i < holders.size(); ++i)
        if (!client.Release(holders[i].Id(), L"mem-" + std::to_wstring(i + 1))) ++failed;
    holders.clear();
    testsupport::WaitUntil([] { return testsupport::ListFiles(testsupport::CredentialFolder(), L"*.dat").empty(); },
                           120000);
    // Long enough for the thread pool to end the workers the releases woke (Wine's end after 5 s idle).
    const Reading released = Read(service.Handle(), service.Pid(), kQuietMs);
    PrintRow("all released", released, bareFloor);
    std::printf("%-28s against warm idle: %+.2f MB\n", "", released.privateMb - warm.privateMb);

    if (failed) std::printf("calls that failed: %d\n", failed);

    tarrow.reset();
    service.Stop();
    return 0;
}
