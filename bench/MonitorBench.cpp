// Figures for the credential registry with the stand-in agent, printed, never asserted:
//  1. the median time from a holder's exit to its credential being released (checked in, file
//     deleted, lease count back to 0), beside the platform's floor: the median time from a
//     process's exit to a bare RegisterWaitForSingleObject callback on its handle;
//  2. the cost of a register + unregister pair while 1, 100 and 1,000 holder processes are
//     registered;
//  3. the median time from a holder's exit to the agent's check-in call beside the same floor,
//     the time to check in 1,000 credentials left on disk at start (and the part of it that
//     comes before the service can publish its object), and the end of the session with 20
//     credentials held against an agent that takes 300 ms a call, of one identity server and of
//     two whose credentials alternate (time until all are checked in, and the calls and rows the
//     agent saw).
//   monitor_bench [exit samples] [holder counts...]
//   monitor_bench startup [files]   (only the start with files left, three times)

#include "bench/Timing.h"
#include "common/Registry.h"
#include "common/Settings.h"
#include "monitor/SharedIdMonitor.h"
#include "sharedid/PersistantStorage.h"
#include "testing/agent/StandInControl.h"
#include "tests/support/TestSupport.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <string>
#include <vector>

using testsupport::ChildProcess;

namespace {

using bench::Median;
using bench::Now;

CSharedId Credential(const std::wstring& role, const std::wstring& url = L"https://corvin/auth") {
    CSharedId r;
    r.SetCorvinAuthSvcUrl(url);
    r.SetCorvinAuthSrvId(L"srv");
    r.SetAuthSvcId(L"svc");
    r.SetSharedId(L"acct");
    r.SetRoleId(role);
    r.SetLeaseDN(L"cn=" + role);
    return r;
}

// A holder that ends as soon as its event is set, so the moment of the signal is the moment of exit
// up to the same process-teardown cost in both measurements.
struct GatedHolder {
    std::wstring event;
    NS_Utils::UniqueHandle gate;
    ChildProcess process;
};

GatedHolder StartGated(int n) {
    GatedHolder h;
    h.event = L"tarrow-bench-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(n);
    h.gate.reset(::CreateEventW(nullptr, TRUE, FALSE, h.event.c_str()));
    h.process = ChildProcess::StartHelper(L"--wait-event " + h.event);
    return h;
}

// Every measurement starts this long after its wait was registered (and after the account refresh
// that a registration asks of the worker): the pool takes up a new wait with a delay of its own,
// which is not part of what is measured.
constexpr DWORD kSettleMs = 200;

std::atomic<double> g_callbackAt{0};
// Signalled by the callback: the measuring thread sleeps instead of spinning, so it does not
// starve the threads that deliver the exit on a machine with two cores.
HANDLE g_callbackDone = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
void CALLBACK BareCallback(void*, BOOLEAN) {
    g_callbackAt.store(Now());
    ::SetEvent(g_callbackDone);
}

double ExitToBareCallback(int n) {
    GatedHolder h = StartGated(n);
    HANDLE wait = nullptr;
    g_callbackAt.store(0);
    ::RegisterWaitForSingleObject(&wait, h.process.Handle(), BareCallback, nullptr, INFINITE, WT_EXECUTEONLYONCE);
    ::Sleep(kSettleMs);
    double start = Now();
    ::SetEvent(h.gate.get());
    ::WaitForSingleObject(g_callbackDone, INFINITE);
    double elapsed = g_callbackAt.load() - start;
    ::UnregisterWaitEx(wait, INVALID_HANDLE_VALUE);
    return elapsed;
}

double ExitToRelease(SharedIdMonitor& monitor, int n) {
    GatedHolder h = StartGated(n);
    DWORD pid = h.process.Id();
    CSharedId credential = Credential(L"exit");
    (void)monitor.RegisterSharedCreds(credential, &pid);
    CSharedId stored;
    (void)monitor.IsCredsRegistered(credential, &stored);
    ::Sleep(kSettleMs);
    double start = Now();
    ::SetEvent(h.gate.get());
    while (monitor.LeaseCount() != 0 || testsupport::FileExists(stored.GetFileName())) ::SwitchToThread();
    return Now() - start;
}

void MeasureExit(SharedIdMonitor& monitor, int samples) {
    std::vector<double> bare, release;
    for (int i = 0; i < samples; ++i) {
        bare.push_back(ExitToBareCallback(2 * i));
        release.push_back(ExitToRelease(monitor, 2 * i + 1));
    }
    double b = Median(bare), r = Median(release);
    std::printf("exit to bare wait callback (median of %d): %8.3f ms\n", samples, b);
    std::printf("exit to credential released (median of %d): %8.3f ms\n", samples, r);
    std::printf("ratio release / floor:                      %8.2f\n", b > 0 ? r / b : 0.0);
}

void MeasureThroughput(SharedIdMonitor& monitor, int holders) {
    std::vector<ChildProcess> processes;
    processes.reserve(static_cast<size_t>(holders));
    for (int i = 0; i < holders; ++i) processes.push_back(ChildProcess::StartHelper(L"--sleep 3600000"));
    // Each holder keeps a credential of its own, so its entry and wait stay for the whole run.
    for (int i = 0; i < holders; ++i) {
        DWORD pid = processes[i].Id();
        (void)monitor.RegisterSharedCreds(Credential(L"base-" + std::to_wstring(i)), &pid);
    }
    const int operations = 400;
    CSharedId extra = Credential(L"extra");
    double start = Now();
    for (int op = 0; op < operations; ++op) {
        DWORD pid = processes[static_cast<size_t>(op) % processes.size()].Id();
        (void)monitor.RegisterSharedCreds(extra, &pid);
        (void)monitor.UnregisterSharedCreds(extra, &pid);
    }
    double elapsed = Now() - start;
    std::printf("holders %5d: %8.3f ms per register + unregister, %8.0f pairs/s\n", holders, elapsed / operations,
                operations * 1000.0 / elapsed);
    for (ChildProcess& p : processes) p.Kill();
    while (monitor.LeaseCount() != 0) ::Sleep(10);
}

size_t CheckInsJournaled() { return standin::JournalLines("CheckIn ").size(); }
size_t RowsJournaled() { return standin::JournalLines("Row ").size(); }

double ExitToCheckIn(SharedIdMonitor& monitor, int n) {
    GatedHolder h = StartGated(n);
    DWORD pid = h.process.Id();
    (void)monitor.RegisterSharedCreds(Credential(L"checkin"), &pid);
    ::Sleep(kSettleMs);
    size_t before = CheckInsJournaled();
    double start = Now();
    ::SetEvent(h.gate.get());
    while (CheckInsJournaled() <= before) ::SwitchToThread();  // a read that meets the writer counts 0
    double elapsed = Now() - start;
    while (monitor.LeaseCount() != 0) ::SwitchToThread();
    return elapsed;
}

void MeasureCheckIn(SharedIdMonitor& monitor, int samples) {
    std::vector<double> bare, checkIn;
    for (int i = 0; i < samples; ++i) {
        bare.push_back(ExitToBareCallback(1000 + 2 * i));
        checkIn.push_back(ExitToCheckIn(monitor, 1001 + 2 * i));
    }
    double b = Median(bare), c = Median(checkIn);
    std::printf("exit to bare wait callback (median of %d): %8.3f ms\n", samples, b);
    std::printf("exit to the agent's CheckIn (median of %d): %8.3f ms\n", samples, c);
    std::printf("ratio check-in / floor:                     %8.2f\n", b > 0 ? c / b : 0.0);
}

// The mean time to look up a name that is not in `folder`: under Wine it reads the whole folder
// for a name that differs only in case.
double MissingNameLookupUs(const std::wstring& folder) {
    constexpr int kLookups = 200;
    const double start = Now();
    for (int i = 0; i < kLookups; ++i)
        (void)::GetFileAttributesW((folder + L"missing-" + std::to_wstring(i) + L".holders").c_str());
    return (Now() - start) * 1000.0 / kLookups;
}

// Leaves `credentials` files as a service that ended with them registered would.
void LeaveFiles(int credentials) {
    PersistantStorage storage;
    for (int i = 0; i < credentials; ++i) {
        CSharedId left = Credential(L"left-" + std::to_wstring(i));
        (void)storage.Persist(left);
    }
}

void MeasureStartUp(int credentials) {
    LeaveFiles(credentials);
    const size_t calls = CheckInsJournaled(), rows = RowsJournaled();
    double start = Now();
    std::shared_ptr<SharedIdMonitor> monitor = SharedIdMonitor::Create();
    (void)monitor->GCUncheckedInCredentials();
    double queued = Now() - start;
    while (monitor->LeaseCount() != 0) ::Sleep(1);
    double done = Now() - start;
    std::printf(
        "%d credentials on disk at start: queued in %8.1f ms (before the object is published), "
        "all checked in after %8.1f ms, in %zu calls to the agent (%zu rows)\n",
        credentials, queued, done, CheckInsJournaled() - calls, RowsJournaled() - rows);
    (void)monitor->Shutdown();

    // The same files only read and deleted, with no registry and no agent: the disk's share.
    LeaveFiles(credentials);
    start = Now();
    PersistantStorage storage;
    std::list<CSharedId> found;
    (void)storage.EnumCreds(found);
    const double read = Now() - start;
    const double fullFolder = MissingNameLookupUs(storage.Folder());
    for (CSharedId& record : found) (void)storage.Delete(record);
    std::printf("the same %zu files only read in %8.1f ms, and deleted after %8.1f ms\n", found.size(), read,
                Now() - start);
    // Each delete also deletes the file's holder list by name, and files left without one have none.
    std::printf(
        "a name that is not there (a missing holder list) looked up in %8.1f us with the files in the "
        "folder, %8.1f us without\n",
        fullFolder, MissingNameLookupUs(storage.Folder()));
}

void MeasureLogoff(int credentials, DWORD callMs, int servers) {
    std::shared_ptr<SharedIdMonitor> monitor = SharedIdMonitor::Create();
    std::vector<ChildProcess> holders;
    for (int i = 0; i < credentials; ++i) {
        holders.push_back(ChildProcess::StartHelper(L"--sleep 3600000"));
        DWORD pid = holders.back().Id();
        const std::wstring url = i % servers ? L"https://corvin-b/auth" : L"https://corvin/auth";
        (void)monitor->RegisterSharedCreds(Credential(L"logoff-" + std::to_wstring(i), url), &pid);
    }
    ::Sleep(kSettleMs);
    standin::SetScript(L"CheckInDelayMs", callMs);
    const size_t calls = CheckInsJournaled(), rows = RowsJournaled();
    double start = Now();
    monitor->OnWndSessionEnd();
    double done = Now() - start;
    std::printf(
        "end of the session, %d credentials of %d server(s), %lu ms a call: all checked in after %8.1f ms, "
        "in %zu calls (%zu rows)\n",
        credentials, servers, static_cast<unsigned long>(callMs), done, CheckInsJournaled() - calls,
        RowsJournaled() - rows);
    standin::SetScript(L"CheckInDelayMs", DWORD{0});
    (void)monitor->Shutdown();
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    wchar_t temp[MAX_PATH];
    ::GetTempPathW(MAX_PATH, temp);
    std::wstring appData = std::wstring(temp) + L"tarrow-bench-" + std::to_wstring(::GetCurrentProcessId());
    ::CreateDirectoryW(appData.c_str(), nullptr);
    ::SetEnvironmentVariableW(L"appdata", appData.c_str());
    // The log goes into the prefix, at whatever level the prefix's settings give (default 1).
    NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, NS_Settings::kProgramDir.key, NS_Settings::kProgramDir.valueName,
                                  appData);

    if (argc > 1 && std::wstring(argv[1]) == L"startup") {
        if (!standin::Install(appData + L"\\")) return 1;
        for (int round = 0; round < 3; ++round) MeasureStartUp(argc > 2 ? std::max(1, _wtoi(argv[2])) : 1000);
        return 0;
    }
    int samples = argc > 1 ? std::max(1, _wtoi(argv[1])) : 30;
    std::vector<int> holderCounts;
    for (int i = 2; i < argc; ++i) holderCounts.push_back(std::max(1, _wtoi(argv[i])));
    if (holderCounts.empty()) holderCounts = {1, 100, 1000};

    // Without an agent a released credential's file stays: nothing would be released.
    if (!standin::Install(appData + L"\\")) {
        std::printf("the stand-in agent could not be installed; no figures\n");
        return 1;
    }
    std::shared_ptr<SharedIdMonitor> monitor = SharedIdMonitor::Create();
    MeasureExit(*monitor, samples);
    for (int holders : holderCounts) MeasureThroughput(*monitor, holders);
    MeasureCheckIn(*monitor, samples);
    (void)monitor->Shutdown();
    monitor.reset();
    MeasureStartUp(1000);
    MeasureLogoff(20, 300, 1);
    MeasureLogoff(20, 300, 2);
    return 0;
}
