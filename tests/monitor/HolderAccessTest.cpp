// Holders as Windows treats them, where Wine is lenient: a process the service may wait on but not
// end (elevated), one it may not even open (another user's), and waits whose callback comes after
// the pool has answered an unregistration with success.

#include "common/HolderProcessHandle.h"
#include "common/WaitRegistration.h"
#include "sharedid/HolderList.h"
#include "testing/agent/StandInControl.h"
#include "tests/monitor/MonitorFixture.h"

#include <random>
#include <thread>

namespace testsupport {
namespace {

class HolderAccessTest : public MonitorTest {
protected:
    void SetUp() override {
        standin::ClearScript();
        standin::ClearJournal();
        MonitorTest::SetUp();
    }
    void TearDown() override {
        NS_Utils::HolderProcessHandle::SetAnswerForTesting(NS_Utils::HolderProcessHandle::Answer::AsAsked);
        NS_Utils::WaitRegistration::SetLateCallbacksForTesting(false);
        MonitorTest::TearDown();
    }
    static size_t CheckIns() { return standin::JournalLines("Row ").size(); }
};

TEST_F(HolderAccessTest, AHolderThatMayNotBeOpenedIsRefusedAndNothingIsCheckedInBehindItsBack) {
    ChildProcess holder = StartHolder(), other = StartHolder();
    ASSERT_EQ(Register(Credential(L"shared"), other.Id()), SharedIdMonitor::kOk);
    NS_Utils::HolderProcessHandle::SetAnswerForTesting(NS_Utils::HolderProcessHandle::Answer::AsToOtherUser);
    EXPECT_EQ(Register(Credential(L"own"), holder.Id()), SharedIdMonitor::kProcessEntryFailed);
    EXPECT_EQ(Register(Credential(L"shared"), holder.Id()), SharedIdMonitor::kProcessEntryFailed);
    CSharedId found;
    EXPECT_FALSE(monitor->GetCredsRegistered(holder.Id(), Credential(L"shared"), &found));
    NS_Utils::HolderProcessHandle::SetAnswerForTesting(NS_Utils::HolderProcessHandle::Answer::AsAsked);

    // The client still uses what it checked out: no row goes to the agent, no file, no lease.
    EXPECT_FALSE(Registered(Credential(L"own")));
    EXPECT_EQ(monitor->LeaseCount(), 1);
    EXPECT_EQ(monitor->ProcessCount(), 1u);
    EXPECT_EQ(FileCount(), 1u);
    EXPECT_TRUE(Registered(Credential(L"shared"), &found));
    EXPECT_EQ(found.GetHolderPids(), std::vector<DWORD>{other.Id()});
    other.Kill();
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_EQ(CheckIns(), 1u) << "only the credential that was registered";
}

// The handle the registry keeps carries no right to end the process, nor does the copy it hands
// out; the holder is watched all the same, and its exit releases its credential.
TEST_F(HolderAccessTest, AnElevatedHolderIsWatchedWithoutTheRightToEndIt) {
    NS_Utils::HolderProcessHandle::SetAnswerForTesting(NS_Utils::HolderProcessHandle::Answer::AsToElevated);
    ChildProcess elevated = StartHolder();
    ASSERT_EQ(Register(Credential(L"elevated"), elevated.Id()), SharedIdMonitor::kOk);
    NS_Utils::HolderProcessHandle::SetAnswerForTesting(NS_Utils::HolderProcessHandle::Answer::AsAsked);
    ChildProcess plain = StartHolder();
    ASSERT_EQ(Register(Credential(L"plain"), plain.Id()), SharedIdMonitor::kOk);

    EXPECT_FALSE(monitor->CanEndHolder(elevated.Id()));
    EXPECT_TRUE(monitor->CanEndHolder(plain.Id()));
    NS_Utils::UniqueHandle copy = monitor->DuplicateProcessHandle(elevated.Id());
    ASSERT_TRUE(copy.valid());
    EXPECT_FALSE(::TerminateProcess(copy.get(), 1));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(elevated.Wait(0), static_cast<DWORD>(WAIT_TIMEOUT));
    // Not inheritable: a child started with inheritance gets none of the holders' handles.
    DWORD flags = 0;
    EXPECT_TRUE(::GetHandleInformation(copy.get(), &flags));
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0u);

    // What the status reads of a holder needs only waiting and asking.
    const std::vector<CredentialStatus> status = monitor->TakeStatusSnapshot().credentials;
    for (const CredentialStatus& credential : status)
        for (const HolderStatus& holder : credential.holders) EXPECT_EQ(holder.executable, L"tarrow_testchild.exe");
    // The holder list names it by its start time, which needs no more either.
    CSharedId stored;
    ASSERT_TRUE(Registered(Credential(L"elevated"), &stored));
    const auto listed = NS_SHAREDID_UTILS::ReadHolderList(stored.GetFileName());
    ASSERT_TRUE(listed.has_value());
    ASSERT_EQ(listed->size(), 1u);
    EXPECT_EQ(listed->front().pid, elevated.Id());
    EXPECT_EQ(listed->front().created, NS_SHAREDID_UTILS::ProcessCreationTime(elevated.Handle()));

    elevated.Kill();
    plain.Kill();
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_EQ(CheckIns(), 2u);
}

// Every wait's callback comes late, after the pool has answered the unregistration with success,
// while holders exit and release at once: nothing may be freed before the pool's signal (a wait
// freed early ends the test program by its check), and all settles with no handle left over.
TEST_F(HolderAccessTest, WaitsWhoseCallbacksComeLateAreFreedOnlyAfterThePoolsSignal) {
    NS_Utils::WaitRegistration::SetLateCallbacksForTesting(true);
    const DWORD processesBefore = CountOwnHandles(L"Process");
    const unsigned lateBefore = NS_Utils::WaitRegistration::LateCallbacksAfterUnregister();
    for (unsigned round = 0; round < 4; ++round) {
        std::vector<std::thread> threads;
        for (unsigned w = 0; w < 4; ++w)
            threads.emplace_back([&, w] {
                std::mt19937 rng(round * 10 + w);
                std::vector<ChildProcess> holders;
                for (int h = 0; h < 8; ++h) holders.push_back(StartHolder());
                std::vector<CSharedId> credentials;
                for (ChildProcess& holder : holders) {
                    credentials.push_back(Credential(L"late-" + std::to_wstring(rng() % 6)));
                    EXPECT_EQ(Register(credentials.back(), holder.Id()), SharedIdMonitor::kOk);
                }
                // Ended and released at once, in either order, or only one of the two.
                for (size_t h = 0; h < holders.size(); ++h) {
                    const unsigned way = rng() % 3;
                    if (way != 1) ::TerminateProcess(holders[h].Handle(), 0);
                    if (way != 2) (void)Unregister(credentials[h], holders[h].Id());
                }
            });
        for (std::thread& thread : threads) thread.join();
        ASSERT_TRUE(WaitUntil([&] { return Settled(); }, 60000)) << "round " << round;
    }
    EXPECT_GT(NS_Utils::WaitRegistration::LateCallbacksAfterUnregister(), lateBefore)
        << "the pool answered while a callback was queued";
    EXPECT_TRUE(WaitUntil([&] { return monitor->Collector().QueuedCount() == 0; }));
    EXPECT_TRUE(WaitUntil([&] { return CountOwnHandles(L"Process") == processesBefore; }))
        << CountOwnHandles(L"Process") << " process handles, " << processesBefore << " before";
}

}  // namespace
}  // namespace testsupport
