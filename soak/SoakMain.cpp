// tarrow_soak: proof under load and faults that the service loses nothing. Prints its figures and
// exits non-zero when a check fails; the seed it prints replays a run.
//   tarrow_soak kill-storm [--seed N] [--rounds 100] [--holders 16]
//   tarrow_soak hostile    [--seed N] [--calls 100000] [--clients 4]
//   tarrow_soak parser     [--seed N] [--files 1000000] [--batch 1000]
//   tarrow_soak crash-sweep [--steps N] [--shards N --shard I]: the service killed at each file
//                          step of a workload
//   tarrow_soak all        [any of the options above]: the first three in turn
// The modes holder, hostile-client, idle, exit and calibrate are the processes the soak starts itself.

#include "soak/CrashSweep.h"
#include "soak/HostileCalls.h"
#include "soak/KillStorm.h"
#include "soak/ParserRun.h"

#include <windows.h>

#include <cstdio>
#include <string>

int wmain(int argc, wchar_t** argv) {
    const std::wstring mode = argc > 1 ? argv[1] : L"";
    const soak::Options options = soak::ParseOptions(argc, argv, 2);
    if (!options.error.empty()) {
        std::fprintf(stderr, "tarrow_soak: %ls\n", options.error.c_str());
        return 100;
    }
    if (mode == L"holder") return soak::RunHolder(options);
    if (mode == L"hostile-client") return soak::RunHostileClient(options);
    if (mode == L"idle") return ::Sleep(INFINITE), 0;
    if (mode == L"exit") return 0;
    if (mode == L"calibrate") return soak::RunDeleteCalibration();
    if (!options.words.empty()) {
        std::fprintf(stderr, "tarrow_soak: unknown argument %ls\n", options.words[0].c_str());
        return 100;
    }
    if (mode == L"kill-storm") return soak::RunKillStorm(options);
    if (mode == L"hostile") return soak::RunHostileCalls(options);
    if (mode == L"parser") return soak::RunParser(options);
    if (mode == L"crash-sweep") return soak::RunCrashSweep(options);
    if (mode == L"all") {
        int failed = soak::RunKillStorm(options) != 0;
        failed += soak::RunHostileCalls(options) != 0;
        // Last: its heap places every block before a guard page from then on.
        failed += soak::RunParser(options) != 0;
        return failed;
    }
    std::fprintf(
        stderr, "usage: tarrow_soak kill-storm|hostile|parser|crash-sweep|all [--seed N] [sizes] (see SoakMain.cpp)\n");
    return 100;
}
