#include "tests/monitor/MonitorFixture.h"

#include "sharedid/SharedIdFile.h"

using namespace testsupport;

namespace {

class RegistryTest : public MonitorTest {};

TEST_F(RegistryTest, RefusalsGiveTheirCodesAndLeaveNothingBehind) {
    ChildProcess holder = StartHolder();
    ASSERT_TRUE(holder.Valid());
    CSharedId good = Credential(L"admin");

    EXPECT_EQ(Register(good, 0), SharedIdMonitor::kInvalidPid);
    EXPECT_GE(CountInServiceLog(L"[SharedIdMonitor::RegisterSharedCreds]\t Error: Invalid PID(0)"), 1u);
    CSharedId noAccount = Credential(L"admin", L"");
    EXPECT_EQ(Register(noAccount, holder.Id()), SharedIdMonitor::kIncomplete);
    EXPECT_GE(CountInServiceLog(L"Error: Shared ID information not completed. Credential Content: \nCreds Object"), 1u);

    // A process that does not exist cannot hold a credential; the credential made for it is
    // released at once.
    const DWORD noSuchProcess = 0x7FFFFFFC;
    EXPECT_EQ(Register(good, noSuchProcess), SharedIdMonitor::kProcessEntryFailed);
    EXPECT_GE(CountInServiceLog(L"[SharedIdMonitor::RegisterSharedCreds]\tInsertAndGetPMEntry failed. GLE = 0x"), 1u);
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));

    EXPECT_EQ(Unregister(CSharedId::SignatureKey(L"", L"svc", L"admin"), holder.Id()), SharedIdMonitor::kIncomplete);
    EXPECT_EQ(Unregister(good, 0), SharedIdMonitor::kInvalidPid);
    EXPECT_EQ(Unregister(good, holder.Id()), SharedIdMonitor::kProcessNotRegistered);
    EXPECT_GE(CountInServiceLog(L"No ProcessMap found for PID(" + std::to_wstring(holder.Id()) + L")"), 1u);

    ASSERT_EQ(Register(good, holder.Id()), SharedIdMonitor::kOk);
    EXPECT_EQ(Unregister(Credential(L"never"), holder.Id()), SharedIdMonitor::kNotAlive);
    // Look-ups need only the signature.
    EXPECT_EQ(Unregister(CSharedId::SignatureKey(L"https://corvin/auth", L"svc", L"admin"), holder.Id()),
              SharedIdMonitor::kOk);
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
}

TEST_F(RegistryTest, EqualSignaturesShareOneCredential) {
    ChildProcess first = StartHolder(), second = StartHolder();
    ASSERT_EQ(Register(Credential(L"admin", L"first-account"), first.Id()), SharedIdMonitor::kOk);
    ASSERT_EQ(Register(Credential(L"admin", L"second-account"), second.Id()), SharedIdMonitor::kOk);
    EXPECT_EQ(monitor->LeaseCount(), 1);
    EXPECT_EQ(monitor->SignatureEntryCount(), 1u);
    EXPECT_EQ(FileCount(), 1u) << "the earlier file of a credential written again is removed";

    CSharedId stored;
    ASSERT_TRUE(monitor->IsCredsRegistered(CSharedId::SignatureKey(L"https://corvin/auth", L"svc", L"admin"), &stored));
    EXPECT_EQ(stored.GetSharedId(), L"first-account") << "the second caller's texts are ignored";
    EXPECT_EQ(stored.GetHolderPids(), (std::vector<DWORD>{first.Id(), second.Id()}));
    CSharedId onDisk;
    std::list<DWORD> errors;
    ASSERT_TRUE(NS_SHAREDID_UTILS::readSharedIdFromFile(onDisk, stored.GetFileName(), errors));
    EXPECT_EQ(onDisk.GetSharedId(), L"first-account");

    // The credential stays while either holder lives.
    first.Kill();
    ASSERT_TRUE(WaitUntil([&] { return monitor->ProcessCount() == 1; }));
    EXPECT_EQ(monitor->LeaseCount(), 1);
    EXPECT_EQ(FileCount(), 1u);
    second.Kill();
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
}

TEST_F(RegistryTest, RegisteringTwiceNeedsTwoReleases) {
    ChildProcess holder = StartHolder();
    CSharedId credential = Credential(L"admin");
    ASSERT_EQ(Register(credential, holder.Id()), SharedIdMonitor::kOk);
    ASSERT_EQ(Register(credential, holder.Id()), SharedIdMonitor::kOk);
    EXPECT_EQ(monitor->LeaseCount(), 1);
    EXPECT_EQ(Unregister(credential, holder.Id()), SharedIdMonitor::kOk);
    CSharedId stored;
    EXPECT_TRUE(monitor->IsCredsRegistered(credential, &stored));
    EXPECT_EQ(Unregister(credential, holder.Id()), SharedIdMonitor::kOk);
    EXPECT_FALSE(monitor->IsCredsRegistered(credential, &stored));
    EXPECT_EQ(Unregister(credential, holder.Id()), SharedIdMonitor::kProcessNotRegistered);
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
}

TEST_F(RegistryTest, HolderExitReleasesItsCredentials) {
    ChildProcess holder = StartHolder();
    ASSERT_EQ(Register(Credential(L"admin"), holder.Id()), SharedIdMonitor::kOk);
    ASSERT_EQ(Register(Credential(L"audit"), holder.Id()), SharedIdMonitor::kOk);
    EXPECT_EQ(monitor->LeaseCount(), 2);
    EXPECT_EQ(FileCount(), 2u);
    holder.Kill();
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_GE(CountInServiceLog(L"WaitInfo::TerminateWait\t GLE is ERROR_IO_PENDING, object is being queued for GC."), 1u);
    EXPECT_TRUE(WaitUntil([] { return CountInServiceLog(L"FreeWaitInfo\t Deleting WaitInfo shared_ptr.") >= 1; }));
}

TEST_F(RegistryTest, ProcessThatUnregisteredBeforeExitingLeavesNoWork) {
    ChildProcess holder = StartHolder();
    CSharedId credential = Credential(L"admin");
    ASSERT_EQ(Register(credential, holder.Id()), SharedIdMonitor::kOk);
    ASSERT_EQ(Unregister(credential, holder.Id()), SharedIdMonitor::kOk);
    EXPECT_EQ(monitor->ProcessCount(), 0u);
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
    const std::wstring exitLine = L"Start clearing shared credentials for PID(" + std::to_wstring(holder.Id()) + L")";
    size_t before = CountInServiceLog(exitLine);
    holder.Kill();
    // Its wait is gone: the next process's exit is handled, and nothing is left of the first.
    ChildProcess other = StartHolder();
    ASSERT_EQ(Register(credential, other.Id()), SharedIdMonitor::kOk);
    other.Kill();
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_EQ(CountInServiceLog(exitLine), before);
}

TEST_F(RegistryTest, ReleasedCredentialIsGoneBeforeTheCollectorRuns) {
    ChildProcess holder = StartHolder();
    CSharedId credential = Credential(L"admin");
    ASSERT_EQ(Register(credential, holder.Id()), SharedIdMonitor::kOk);
    // Hold the collector's worker in an item of our own.
    NS_Utils::UniqueHandle release(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    NS_Utils::UniqueHandle busy(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    monitor->Collector().Queue([&] {
        ::SetEvent(busy.get());
        ::WaitForSingleObject(release.get(), INFINITE);
    });
    ASSERT_EQ(::WaitForSingleObject(busy.get(), 30000), WAIT_OBJECT_0);

    ASSERT_EQ(Unregister(credential, holder.Id()), SharedIdMonitor::kOk);
    CSharedId stored;
    EXPECT_FALSE(monitor->IsCredsRegistered(credential, &stored));
    DWORD pid = holder.Id();
    EXPECT_FALSE(monitor->GetCredsRegistered(pid, credential, &stored));
    EXPECT_EQ(monitor->SignatureEntryCount(), 1u) << "the expired entry waits for the collector";
    EXPECT_EQ(monitor->LeaseCount(), 1);

    // Registered again meanwhile: a fresh credential; the collector erases only the old entry.
    ASSERT_EQ(Register(credential, pid), SharedIdMonitor::kOk);
    EXPECT_EQ(monitor->SignatureEntryCount(), 1u);
    ::SetEvent(release.get());
    ASSERT_TRUE(WaitUntil([&] { return monitor->LeaseCount() == 1 && FileCount() == 1; }));
    EXPECT_TRUE(monitor->IsCredsRegistered(credential, &stored));
    EXPECT_EQ(monitor->SignatureEntryCount(), 1u);
}

TEST_F(RegistryTest, TakingOverAddsTheCallerAsHolder) {
    ChildProcess owner = StartHolder(), taker = StartHolder();
    CSharedId credential = Credential(L"admin");
    ASSERT_EQ(Register(credential, owner.Id()), SharedIdMonitor::kOk);
    CSharedId copy;
    EXPECT_FALSE(monitor->GetCredsRegistered(0, credential, &copy));
    ASSERT_TRUE(monitor->GetCredsRegistered(taker.Id(), credential, &copy));
    EXPECT_EQ(copy.GetHolderPids(), (std::vector<DWORD>{owner.Id(), taker.Id()}));
    EXPECT_EQ(monitor->LeaseCount(), 1);
    owner.Kill();
    ASSERT_TRUE(WaitUntil([&] { return monitor->ProcessCount() == 1; }));
    EXPECT_TRUE(monitor->IsCredsRegistered(credential, &copy)) << "the taker still holds it";
    taker.Kill();
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
}

TEST_F(RegistryTest, StartUpQueuesEveryFileLeftOnDisk) {
    {
        PersistantStorage storage;
        for (int i = 0; i < 5; ++i) {
            CSharedId left = Credential(L"role-" + std::to_wstring(i));
            ASSERT_TRUE(WaitUntil([&] { return storage.Persist(left) == PersistantStorage::kOk; }));
        }
    }
    ASSERT_EQ(FileCount(), 5u);
    ASSERT_TRUE(monitor->GCUncheckedInCredentials());
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_GE(CountInServiceLog(L"[SharedIdMonitor::GCUncheckedInCredentials]\t Number of unchecked-in credentials "
                                L"added to GC = 5"),
              1u);
}

TEST_F(RegistryTest, StartUpWithoutFilesCountsZero) {
    ASSERT_TRUE(monitor->GCUncheckedInCredentials());
    EXPECT_GE(CountInServiceLog(L"Number of unchecked-in credentials added to GC = 0"), 1u);
}

}  // namespace
