// The service's threads get the stack they reserve, and one that comes near the end of it says so
// by ending the process when its work returns, long before it would overflow.

#include "common/Thread.h"
#include "tests/support/FailFastTest.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

constexpr unsigned kReservation = 128 * 1024;

// Touches about `bytes` of stack in 4 kB frames. Each frame is read again after the deeper ones
// returned, so that the compiler cannot turn the descent into a loop over one frame.
__attribute__((noinline)) unsigned Descend(unsigned bytes) {
    volatile char frame[4096];
    for (size_t at = 0; at < sizeof(frame); at += 512) frame[at] = 1;
    const unsigned deeper = bytes <= sizeof(frame) ? 0 : Descend(bytes - static_cast<unsigned>(sizeof(frame)));
    return deeper + static_cast<unsigned char>(frame[0]);
}

// Wine 8 gives every thread at least 1 MB, whatever is reserved (Windows gives what is asked).
bool UnderWine() { return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr; }

struct Probe {
    unsigned depth;
    ULONG_PTR reserved = 0;
    size_t deepest = 0;
};

unsigned __stdcall UseStack(void* context) {
    auto* probe = static_cast<Probe*>(context);
    ULONG_PTR low = 0, high = 0;
    ::GetCurrentThreadStackLimits(&low, &high);
    probe->reserved = high - low;
    (void)Descend(probe->depth);
    probe->deepest = NS_THREAD_UTILS::DeepestStackUse();
    return 0;
}

// Runs UseStack on a thread of kReservation bytes; false when it could not be started.
bool RunOnThread(Probe& probe) {
    NS_Utils::UniqueHandle thread = NS_THREAD_UTILS::StartThread(kReservation, &UseStack, &probe);
    return thread && ::WaitForSingleObject(thread.get(), 30000) == WAIT_OBJECT_0;
}

TEST(ThreadStackTest, AThreadReservesWhatItIsGivenAndItsDeepestUseIsMeasured) {
    Probe probe{32 * 1024};
    ASSERT_TRUE(RunOnThread(probe));
    EXPECT_EQ(probe.reserved, UnderWine() ? std::max<ULONG_PTR>(kReservation, ULONG_PTR{1024} * 1024) : kReservation)
        << "the size is a reservation, not the program's default";
    EXPECT_GE(probe.deepest, 32u * 1024);
    EXPECT_LT(probe.deepest, 48u * 1024);
}

TEST(ThreadStackTest, AThreadThatUsedMoreThanHalfItsReservationEndsTheProcess) {
    testsupport::ExpectFailFast(L"a thread used more than half of its stack reservation", [] {
        Probe probe{kReservation * 3 / 4};
        (void)RunOnThread(probe);
    });
}

}  // namespace
