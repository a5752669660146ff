#include "common/GarbageCollector.h"

#include <gtest/gtest.h>

namespace {

TEST(CollectorTest, StopEndsAWorkerStuckInALongItemAndRunsNothingMore) {
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
    EXPECT_FALSE(collector.Stop()) << "ended by force";
    EXPECT_EQ(::WaitForSingleObject(worker.get(), 30000), WAIT_OBJECT_0);
    EXPECT_FALSE(laterRan);
    EXPECT_EQ(collector.QueuedCount(), 1u);
}

}  // namespace
