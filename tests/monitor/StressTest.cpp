#include "tests/monitor/MonitorFixture.h"

#include <cstdio>
#include <random>
#include <thread>

using namespace testsupport;

namespace {

class StressTest : public MonitorTest {
protected:
    // Each worker starts its holders, registers 1 to 3 credentials for each from a small set of
    // signatures (so holders share credentials), releases some again and ends the holders, in
    // an order that differs per worker.
    void Round(int workers, int holdersPerWorker, unsigned seed) {
        std::atomic<int> failures{0};
        std::vector<std::thread> threads;
        for (int w = 0; w < workers; ++w)
            threads.emplace_back([&, w] {
                std::mt19937 rng(seed + w);
                std::vector<ChildProcess> holders;
                for (int h = 0; h < holdersPerWorker; ++h) holders.push_back(StartHolder());
                for (ChildProcess& holder : holders)
                    for (int c = 1 + static_cast<int>(rng() % 3); c > 0; --c) {
                        CSharedId credential = Credential(L"role-" + std::to_wstring(rng() % 8));
                        DWORD result = Register(credential, holder.Id());
                        if (result != SharedIdMonitor::kOk && ++failures)
                            std::printf("register failed: %lu, holder %lu started %d\n", result, holder.Id(),
                                        holder.Valid());
                        if (rng() % 3 == 0) Unregister(credential, holder.Id());
                    }
                std::shuffle(holders.begin(), holders.end(), rng);
                for (ChildProcess& holder : holders) holder.Kill();
            });
        for (std::thread& t : threads) t.join();
        EXPECT_EQ(failures.load(), 0);
        if (failures.load() != 0)
            for (const std::wstring& line : SplitLines(ServiceLogText(), L"\r\n"))
                if (line.find(L"L:1 ") == 0) std::printf("%ls\n", line.c_str());
    }
};

TEST_F(StressTest, ManyHoldersRegisteringReleasingAndExitingSettleToNothing) {
    Round(4, 16, 1);  // let the thread pool and the collector reach their working size
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }, 60000));
    // Queued frees of finished waits run after the credentials are settled.
    ASSERT_TRUE(WaitUntil([&] { return monitor->Collector().QueuedCount() == 0; }));
    // The monitor opens a process handle and a cancel event per holder. Other kinds vary with
    // the platform's own thread pool and debug-output channel, so they are only reported.
    const DWORD processesBefore = CountOwnHandles(L"Process"), eventsBefore = CountOwnHandles(L"Event");
    const DWORD allBefore = CountOwnHandles();
    ASSERT_GT(allBefore, 0u) << "the handle table was read";

    for (unsigned round = 0; round < 3; ++round) {
        Round(4, 16, 100 * (round + 1));
        ASSERT_TRUE(WaitUntil([&] { return Settled(); }, 120000))
            << "leases " << monitor->LeaseCount() << ", processes " << monitor->ProcessCount() << ", entries "
            << monitor->SignatureEntryCount() << ", files " << FileCount();
        // A queued free may still be running its last item; its handles go when it returns.
        EXPECT_TRUE(WaitUntil([&] { return CountOwnHandles(L"Process") == processesBefore; }))
            << "round " << round << ": " << CountOwnHandles(L"Process") << " process handles, " << processesBefore;
    }
    EXPECT_TRUE(WaitUntil([&] { return CountOwnHandles(L"Event") == eventsBefore; }))
        << CountOwnHandles(L"Event") << " events, " << eventsBefore << " before";
    std::printf("handles: %lu before, %lu after\n", allBefore, CountOwnHandles());
}

}  // namespace
