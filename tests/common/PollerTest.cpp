#include "common/Poller.h"
#include "tests/support/FailFastTest.h"

#include <gtest/gtest.h>

#include <new>
#include <vector>

namespace {

class RecordingPoller : public NS_THREAD_UTILS::CPoller {
public:
    ~RecordingPoller() override {
        Stop();
        Join(INFINITE);
    }
    std::vector<DWORD> polls;

protected:
    void Poll(DWORD count) override { polls.push_back(count); }
};

// With an endless interval only the stop event or an extra handle ends the loop: a stop made
// before the first wait must not be lost, and an extra handle must be waited on. A hang is the fault.
TEST(PollerTest, StopBeforeTheFirstWaitOrAnExtraHandleEndsTheLoopAfterOnePoll) {
    NS_Utils::UniqueHandle extra(::CreateEventW(nullptr, TRUE, TRUE, nullptr));
    for (bool byStop : {true, false}) {
        RecordingPoller poller;
        poller.SetInterval(INFINITE);
        if (byStop)
            poller.Stop();
        else
            poller.AddWaitHandle(extra.get());
        ASSERT_TRUE(poller.Start(nullptr));
        ASSERT_EQ(poller.Join(30000), WAIT_OBJECT_0) << byStop;
        EXPECT_EQ(poller.polls, std::vector<DWORD>{1});
    }
}

// The thread reads its settings without a lock: one made once it runs ends the process.
TEST(PollerTest, SettingMadeWhileItRunsEndsTheProcess) {
    testsupport::ExpectFailFast(L"set while the poller runs", [] {
        RecordingPoller poller;
        ASSERT_TRUE(poller.Start(nullptr));
        poller.SetInterval(10);
    });
}

// A poll that runs out of memory (an expiry it was acting on) is made again soon, with the same
// number, instead of ending the thread or waiting out the interval.
TEST(PollerTest, APollOutOfMemoryIsMadeAgainAndThePollerGoesOn) {
    class FailingOnce : public RecordingPoller {
    protected:
        void Poll(DWORD count) override {
            RecordingPoller::Poll(count);
            if (polls.size() == 1) throw std::bad_alloc();
            Stop();
        }
    } poller;
    poller.SetInterval(INFINITE);
    ASSERT_TRUE(poller.Start(nullptr));
    ASSERT_EQ(poller.Join(30000), WAIT_OBJECT_0);
    EXPECT_EQ(poller.polls, (std::vector<DWORD>{1, 1}));
}

}  // namespace
