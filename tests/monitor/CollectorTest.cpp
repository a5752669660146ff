#include "tests/monitor/MonitorFixture.h"

#include <vector>

using namespace testsupport;

namespace {

TEST(CollectorTest, RunsItemsInOrderIncludingItemsQueuedByItems) {
    NS_Utils::CGarbageCollector collector;
    std::vector<int> ran;
    NS_Utils::UniqueHandle done(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    collector.Queue([&] { ran.push_back(1); });
    collector.Queue([&] {
        ran.push_back(2);
        collector.Queue([&] {
            ran.push_back(4);
            ::SetEvent(done.get());
        });
    });
    collector.Queue([&] { ran.push_back(3); });
    ASSERT_TRUE(collector.Start());
    ASSERT_EQ(::WaitForSingleObject(done.get(), 30000), WAIT_OBJECT_0);
    EXPECT_EQ(ran, (std::vector<int>{1, 2, 3, 4}));
}

TEST(CollectorTest, StopEndsAWorkerStuckInALongItem) {
    NS_Utils::CGarbageCollector collector;
    NS_Utils::UniqueHandle never(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    NS_Utils::UniqueHandle started(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    DWORD workerId = 0;
    bool laterRan = false;
    collector.Queue([&] {
        workerId = ::GetCurrentThreadId();
        ::SetEvent(started.get());
        ::WaitForSingleObject(never.get(), INFINITE);
    });
    collector.Queue([&] { laterRan = true; });
    ASSERT_TRUE(collector.Start());
    ASSERT_EQ(::WaitForSingleObject(started.get(), 30000), WAIT_OBJECT_0);
    NS_Utils::UniqueHandle worker(::OpenThread(SYNCHRONIZE, FALSE, workerId));
    ASSERT_TRUE(worker.valid());

    collector.Stop();
    EXPECT_EQ(::WaitForSingleObject(worker.get(), 30000), WAIT_OBJECT_0);
    EXPECT_FALSE(laterRan);
    EXPECT_EQ(collector.QueuedCount(), 1u) << "queued items are kept, not run";
}

class WaitInfoTest : public MonitorTest {};

TEST_F(WaitInfoTest, FreeWaitInfoRequeuesUntilTheCancelEventIsSignalled) {
    ChildProcess holder = StartHolder();
    HANDLE process = ::OpenProcess(PROCESS_ALL_ACCESS, TRUE, holder.Id());
    ASSERT_TRUE(process);
    std::shared_ptr<WaitInfo> waitInfo = monitor->StartWaitForProcess(process, holder.Id());
    ASSERT_TRUE(waitInfo);
    ASSERT_TRUE(waitInfo->EnsureCancelEvent());

    const std::wstring retried = L"FreeWaitInfo\t Trying to re-register FreeWaitInfo object.";
    const std::wstring freed = L"FreeWaitInfo\t Deleting WaitInfo shared_ptr.";
    size_t retriedBefore = CountInServiceLog(retried), freedBefore = CountInServiceLog(freed);
    std::weak_ptr<WaitInfo> watch = waitInfo;
    ASSERT_TRUE(monitor->Collector().Start());
    ASSERT_TRUE(WaitInfo::QueueFree(waitInfo));
    ASSERT_TRUE(WaitUntil([&] { return CountInServiceLog(retried) >= retriedBefore + 2; }));
    EXPECT_EQ(CountInServiceLog(freed), freedBefore);

    // End the wait the ordinary way; its cancel event is what the queued item waits for.
    waitInfo->TerminateWait();
    waitInfo->TerminateWait();
    EXPECT_GE(CountInServiceLog(L"WaitInfo::TerminateWait\t There is already other thread trying to terminate the wait."),
              1u);
    waitInfo.reset();
    ASSERT_TRUE(WaitUntil([&] { return CountInServiceLog(freed) == freedBefore + 1; }));
    EXPECT_TRUE(WaitUntil([&] { return watch.expired(); })) << "freed, and its process handle with it";
}

}  // namespace
