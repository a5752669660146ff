#include "common/GarbageCollector.h"

#include <gtest/gtest.h>

#include <new>

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

// The worker is an apartment: idle, it must still answer what is sent to its windows (COM's own
// among them), or a broadcast and every call into the apartment would wait on it.
TEST(CollectorTest, AnIdleWorkerAnswersMessagesSentToItsThread) {
    NS_Utils::CGarbageCollector collector;
    NS_Utils::UniqueHandle step(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    HWND window = nullptr;
    collector.Queue([&] {
        window = ::CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
        ::SetEvent(step.get());
    });
    ASSERT_TRUE(collector.Start());
    ASSERT_EQ(::WaitForSingleObject(step.get(), 30000), WAIT_OBJECT_0);
    ASSERT_NE(window, nullptr);
    DWORD_PTR answer = 0;
    EXPECT_NE(::SendMessageTimeoutW(window, WM_NULL, 0, 0, SMTO_NORMAL, 5000, &answer), 0);
    collector.Queue([&] {
        ::DestroyWindow(window);
        ::SetEvent(step.get());
    });
    ASSERT_EQ(::WaitForSingleObject(step.get(), 30000), WAIT_OBJECT_0);
    EXPECT_TRUE(collector.Stop());
}

// An item that runs out of memory holds what it works on (a credential on its way back): it is
// run again, after the items behind it, and the worker goes on.
TEST(CollectorTest, AnItemOutOfMemoryIsRunAgainAndTheWorkerGoesOn) {
    NS_Utils::CGarbageCollector collector;
    NS_Utils::UniqueHandle done(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::vector<int> runs;
    collector.Queue([&] {
        runs.push_back(1);
        if (runs.size() == 1) throw std::bad_alloc();
        ::SetEvent(done.get());
    });
    collector.Queue([&] { runs.push_back(2); });
    ASSERT_TRUE(collector.Start());
    ASSERT_EQ(::WaitForSingleObject(done.get(), 30000), WAIT_OBJECT_0);
    EXPECT_EQ(runs, (std::vector<int>{1, 2, 1}));
    EXPECT_TRUE(collector.Stop());
}

}  // namespace
