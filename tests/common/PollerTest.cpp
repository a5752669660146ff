#include "common/Poller.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

namespace {

class RecordingPoller : public NS_THREAD_UTILS::CPoller {
public:
    ~RecordingPoller() override {
        Stop();
        Join(INFINITE);
    }
    std::vector<DWORD> polls;
    void* startArgs = nullptr;
    int starts = 0;
    int ends = 0;

protected:
    void OnStart(void* args) override {
        ++starts;
        startArgs = args;
    }
    void OnEnd() override { ++ends; }
    void Poll(DWORD count) override { polls.push_back(count); }
};

// A generous bound: these loops end without waiting, so reaching it means a wait that should
// not have happened.
constexpr DWORD kNoWait = 30000;

TEST(PollerTest, MaximumOfOnePollsOnceWithoutWaiting) {
    RecordingPoller poller;
    poller.SetInterval(INFINITE);
    poller.SetMaxPolls(1);
    int args = 0;
    ASSERT_TRUE(poller.Start(&args));
    ASSERT_EQ(poller.Join(kNoWait), WAIT_OBJECT_0);
    EXPECT_EQ(poller.polls, std::vector<DWORD>{1});
    EXPECT_EQ(poller.starts, 1);
    EXPECT_EQ(poller.startArgs, &args);
    EXPECT_EQ(poller.ends, 1);
}

TEST(PollerTest, StopBeforeTheFirstWaitEndsAfterOnePoll) {
    RecordingPoller poller;
    poller.SetInterval(INFINITE);
    poller.Stop();
    ASSERT_TRUE(poller.Start(nullptr));
    ASSERT_EQ(poller.Join(kNoWait), WAIT_OBJECT_0);
    EXPECT_EQ(poller.polls, std::vector<DWORD>{1});
    EXPECT_EQ(poller.ends, 1);
}

TEST(PollerTest, SignalledExtraHandleEndsTheLoop) {
    NS_Utils::UniqueHandle extra(::CreateEventW(nullptr, TRUE, TRUE, nullptr));
    RecordingPoller poller;
    poller.SetInterval(INFINITE);
    poller.AddWaitHandle(extra.get());
    ASSERT_TRUE(poller.Start(nullptr));
    ASSERT_EQ(poller.Join(kNoWait), WAIT_OBJECT_0);
    EXPECT_EQ(poller.polls, std::vector<DWORD>{1});
}

TEST(PollerTest, PollsAgainAfterEachIntervalWithRisingCounts) {
    RecordingPoller poller;
    poller.SetInterval(5);
    poller.SetMaxPolls(4);
    ASSERT_TRUE(poller.Start(nullptr));
    ASSERT_EQ(poller.Join(kNoWait), WAIT_OBJECT_0);
    EXPECT_EQ(poller.polls, (std::vector<DWORD>{1, 2, 3, 4}));
}

TEST(PollerTest, OneStopEndsOneLoop) {
    RecordingPoller first;
    first.SetInterval(INFINITE);
    ASSERT_TRUE(first.Start(nullptr));
    EXPECT_EQ(first.Join(50), static_cast<DWORD>(WAIT_TIMEOUT));
    first.Stop();
    ASSERT_EQ(first.Join(kNoWait), WAIT_OBJECT_0);
    EXPECT_EQ(first.polls, std::vector<DWORD>{1});
    EXPECT_FALSE(first.Start(nullptr)) << "a poller runs one thread in its life";
}

}  // namespace
