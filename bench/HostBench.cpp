// Round trips to the running service, printed, never asserted: the median of RegisterSharedId and
// of ReleaseSharedId, each against its durable floor measured in the same rounds: the bare call
// (GetTypeInfoCount on the same proxy) plus, for a registration, a file created, written and
// flushed in the credential folder, and for a release one file written in place (each round waits,
// untimed, for the previous credential's check-in to finish); at the default log level and at
// level 4; then a hundred holders that register and exit at once,
// alone and while another client asks for the status in a loop (the registrations' median and
// longest time, and the status call's). Starts Tarrow.exe itself.
//   host_bench [calls per figure]

#include "bench/BenchService.h"
#include "bench/Timing.h"
#include "common/Registry.h"
#include "tests/support/TestSupport.h"
#include "tools/TarrowClient.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

using testsupport::ChildProcess;

namespace {

using bench::Median;
using bench::Now;

struct Figures {
    double bare, registration, release, durableFile, inPlaceWrite;
};

// What a registration cannot do without: a file of `bytes` created, written and flushed in the
// credential folder (then deleted, untimed).
double DurableFile(const std::wstring& path, const std::vector<char>& bytes) {
    const double t0 = Now();
    {
        NS_Utils::UniqueHandle file(
            ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        DWORD written = 0;
        ::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
        ::FlushFileBuffers(file.get());
    }
    return Now() - t0;
}

// What a release cannot do without: the file opened, written over in place, closed.
double InPlaceWrite(const std::wstring& path, const std::vector<char>& bytes) {
    const double t0 = Now();
    {
        NS_Utils::UniqueHandle file(
            ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        DWORD written = 0;
        ::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    }
    return Now() - t0;
}

// The size of the credential file a registration wrote, for the floor's file; 1 kB when none is there.
size_t CredentialFileSize() {
    for (const std::wstring& name : testsupport::ListFiles(testsupport::CredentialFolder(), L"*.dat")) {
        WIN32_FILE_ATTRIBUTE_DATA data{};
        if (::GetFileAttributesExW((testsupport::CredentialFolder() + L"\\" + name).c_str(), GetFileExInfoStandard,
                                   &data))
            return data.nFileSizeLow;
    }
    return 1024;
}

Figures Measure(ITarrow* tarrow, DWORD holder, int calls) {
    std::vector<double> bare, registration, release, durable, inPlace;
    NS_Utils::UniqueBstr url(std::wstring(L"https://corvin/auth")), srv(std::wstring(L"srv")),
        svc(std::wstring(L"svc")), account(std::wstring(L"acct")), role(std::wstring(L"bench")),
        lease(std::wstring(L"cn=bench")), expiry(std::wstring(L"20301231T120000Z"));
    const std::wstring floorFile = testsupport::CredentialFolder() + L"\\host_bench.floor";
    std::vector<char> bytes;
    for (int i = 0; i < calls; ++i) {
        UINT count = 0;
        double t0 = Now();
        tarrow->GetTypeInfoCount(&count);
        double t1 = Now();
        DWORD result = 0;
        tarrow->RegisterSharedId(holder, url.get(), srv.get(), nullptr, svc.get(), account.get(), nullptr, role.get(),
                                 nullptr, lease.get(), expiry.get(), nullptr, VARIANT_TRUE, nullptr, &result);
        double t2 = Now();
        if (bytes.empty()) bytes.assign(CredentialFileSize(), 'x');
        tarrow->ReleaseSharedId(holder, url.get(), svc.get(), role.get(), &result);
        double t3 = Now();
        // The check-in of this credential runs on the service's worker: left to overlap the next
        // round, it would be counted in whichever call it happens to share the machine with.
        testsupport::WaitUntil([] { return testsupport::ListFiles(testsupport::CredentialFolder(), L"*.dat").empty(); },
                               2000);
        durable.push_back(DurableFile(floorFile, bytes));
        inPlace.push_back(InPlaceWrite(floorFile, bytes));
        ::DeleteFileW(floorFile.c_str());
        bare.push_back(t1 - t0);
        registration.push_back(t2 - t1);
        release.push_back(t3 - t2);
    }
    return {Median(bare), Median(registration), Median(release), Median(durable), Median(inPlace)};
}

// Each call beside its floor: the bare call plus the file work it cannot do without.
void Print(const char* level, const Figures& f) {
    const double registrationFloor = f.bare + f.durableFile, releaseFloor = f.bare + f.inPlaceWrite;
    std::printf("%-14s bare call (GetTypeInfoCount) %7.3f ms | durable file %7.3f ms | in-place write %7.3f ms\n",
                level, f.bare, f.durableFile, f.inPlaceWrite);
    std::printf(
        "%-14s RegisterSharedId %7.3f ms = x%.2f its floor (%.3f ms) | ReleaseSharedId %7.3f ms = x%.2f its "
        "floor (%.3f ms)\n",
        "", f.registration, f.registration / registrationFloor, registrationFloor, f.release, f.release / releaseFloor,
        releaseFloor);
}

struct Burst {
    double median, longest, status;
    size_t statusCalls;
};

// Another client of the service, on a thread and apartment of its own, asking for the status until told to stop.
void StatusLoop(const std::atomic<bool>& stop, std::vector<double>& times) {
    NS_Utils::ComApartment com;
    NS_Utils::ComPtr<ITarrow> tarrow;
    NS_Utils::ComPtr<ITarrowStatus> status;
    if (FAILED(tarrowctl::ConnectToTarrow(tarrow)) || FAILED(tarrow.As(status))) return;
    while (!stop) {
        NS_Utils::UniqueVariant snapshot;
        double t0 = Now();
        status->GetStatus(snapshot.put());
        times.push_back(Now() - t0);
    }
}

Burst HundredHolders(ITarrow* tarrow, bool withStatus) {
    std::vector<ChildProcess> holders;
    holders.reserve(100);
    for (int i = 0; i < 100; ++i) holders.push_back(ChildProcess::StartHelper(L"--sleep 3600000"));
    std::atomic<bool> stop{false};
    std::vector<double> registrations, statusTimes;
    std::thread loop;
    if (withStatus) loop = std::thread(StatusLoop, std::cref(stop), std::ref(statusTimes));
    NS_Utils::UniqueBstr url(std::wstring(L"https://corvin/auth")), svc(std::wstring(L"svc")),
        account(std::wstring(L"acct")), expiry(std::wstring(L"20301231T120000Z"));
    for (size_t i = 0; i < holders.size(); ++i) {
        NS_Utils::UniqueBstr role(L"burst-" + std::to_wstring(i)), lease(L"cn=burst-" + std::to_wstring(i));
        DWORD result = 0;
        double t0 = Now();
        tarrow->RegisterSharedId(holders[i].Id(), url.get(), svc.get(), nullptr, svc.get(), account.get(), nullptr,
                                 role.get(), nullptr, lease.get(), expiry.get(), nullptr, VARIANT_TRUE, nullptr,
                                 &result);
        registrations.push_back(Now() - t0);
    }
    // They exit together: their exits take the registry lock while the status copies under it.
    for (ChildProcess& holder : holders) ::TerminateProcess(holder.Handle(), 0);
    for (ChildProcess& holder : holders) holder.Wait(10000);
    ::Sleep(2000);
    stop = true;
    if (loop.joinable()) loop.join();
    return {Median(registrations), *std::max_element(registrations.begin(), registrations.end()), Median(statusTimes),
            statusTimes.size()};
}

void PrintBurst(const char* label, const Burst& b) {
    std::printf("%-22s RegisterSharedId median %7.3f ms, longest %7.3f ms", label, b.median, b.longest);
    if (b.statusCalls) std::printf(" | GetStatus median %7.3f ms (%zu calls)", b.status, b.statusCalls);
    std::printf("\n");
}

void SetLogLevel(DWORD level) {
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kLogging, L"LogLevel", level);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const int calls = argc > 1 ? std::max(5, _wtoi(argv[1])) : 300;
    NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kLogging, L"LogLevel");
    ChildProcess holder = ChildProcess::StartHelper(L"--sleep 3600000");
    NS_Utils::ComApartment com;
    testsupport::ServiceProcess service;
    NS_Utils::ComPtr<ITarrow> tarrow;
    if (!bench::StartService("host_bench", service, tarrow)) return 1;
    Measure(tarrow.get(), holder.Id(), 20);  // warm up both sides
    const Figures standard = Measure(tarrow.get(), holder.Id(), calls);
    Print("default level", standard);
    SetLogLevel(4);
    Measure(tarrow.get(), holder.Id(), 20);  // the service reads its log settings every tenth line
    const Figures verbose = Measure(tarrow.get(), holder.Id(), calls);
    Print("level 4", verbose);
    std::printf("level 4 against the default level: RegisterSharedId x%.2f, ReleaseSharedId x%.2f\n",
                verbose.registration / standard.registration, verbose.release / standard.release);
    SetLogLevel(1);
    PrintBurst("100 holders", HundredHolders(tarrow.get(), false));
    PrintBurst("100 holders + status", HundredHolders(tarrow.get(), true));

    service.Stop();
    return 0;
}
