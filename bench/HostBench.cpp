// Round trips to the running service, printed, never asserted: the median of RegisterSharedId and
// of ReleaseSharedId beside the median of GetTypeInfoCount on the same proxy (the cost of the COM
// call itself), at the default log level and at level 4. Starts Tarrow.exe itself.
//   host_bench [calls per figure]

#include "common/Registry.h"
#include "bench/BenchService.h"
#include "bench/Timing.h"
#include "tests/support/TestSupport.h"
#include "tools/TarrowClient.h"

#include <algorithm>
#include <cstdio>
#include <vector>

using testsupport::ChildProcess;

namespace {

using bench::Median;
using bench::Now;

struct Figures {
    double bare, registration, release;
};

Figures Measure(ITarrow* tarrow, DWORD holder, int calls) {
    std::vector<double> bare, registration, release;
    NS_Utils::UniqueBstr url(std::wstring(L"https://corvin/auth")), srv(std::wstring(L"srv")),
        svc(std::wstring(L"svc")), account(std::wstring(L"acct")), role(std::wstring(L"bench")),
        lease(std::wstring(L"cn=bench")), expiry(std::wstring(L"20301231T120000Z"));
    for (int i = 0; i < calls; ++i) {
        UINT count = 0;
        double t0 = Now();
        tarrow->GetTypeInfoCount(&count);
        double t1 = Now();
        DWORD result = 0;
        tarrow->RegisterSharedId(holder, url.get(), srv.get(), nullptr, svc.get(), account.get(), nullptr, role.get(),
                                 nullptr, lease.get(), expiry.get(), nullptr, VARIANT_TRUE, nullptr, &result);
        double t2 = Now();
        tarrow->ReleaseSharedId(holder, url.get(), svc.get(), role.get(), &result);
        double t3 = Now();
        bare.push_back(t1 - t0);
        registration.push_back(t2 - t1);
        release.push_back(t3 - t2);
    }
    return {Median(bare), Median(registration), Median(release)};
}

void Print(const char* level, const Figures& f) {
    std::printf("%-14s GetTypeInfoCount %7.3f ms | RegisterSharedId %7.3f ms (x%.2f) | ReleaseSharedId %7.3f ms (x%.2f)\n",
                level, f.bare, f.registration, f.registration / f.bare, f.release, f.release / f.bare);
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
    ChildProcess service;
    NS_Utils::ComPtr<ITarrow> tarrow;
    if (!bench::StartService("host_bench", service, tarrow)) return 1;
    Measure(tarrow.get(), holder.Id(), 20);  // warm up both sides
    Print("default level", Measure(tarrow.get(), holder.Id(), calls));
    SetLogLevel(4);
    Measure(tarrow.get(), holder.Id(), 20);  // the service reads its log settings every tenth line
    Print("level 4", Measure(tarrow.get(), holder.Id(), calls));

    ::PostThreadMessageW(service.MainThreadId(), WM_QUIT, 0, 0);
    service.Wait(30000);
    return 0;
}
