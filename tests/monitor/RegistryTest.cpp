#include "tests/monitor/MonitorFixture.h"

#include "sharedid/SharedIdFile.h"

using namespace testsupport;

namespace {

class RegistryTest : public MonitorTest {};

// The codes of the refusals the service's callers cannot reach; the others are checked through
// the service itself.
TEST_F(RegistryTest, RefusalsGiveTheirCodesAndLeaveNothingBehind) {
    ChildProcess holder = StartHolder();
    ASSERT_TRUE(holder.Valid());
    CSharedId good = Credential(L"admin");
    // A process that does not exist cannot hold a credential; the credential made for it is
    // released at once.
    EXPECT_EQ(Register(good, 0x7FFFFFFC), SharedIdMonitor::kProcessEntryFailed);
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));

    EXPECT_EQ(Unregister(CSharedId::SignatureKey(L"", kService, L"admin"), holder.Id()), SharedIdMonitor::kIncomplete);
    ASSERT_EQ(Register(good, holder.Id()), SharedIdMonitor::kOk);
    EXPECT_EQ(Unregister(Credential(L"never"), holder.Id()), SharedIdMonitor::kNotAlive);
    EXPECT_EQ(Unregister(CSharedId::SignatureKey(kUrl, kService, L"admin"), holder.Id()), SharedIdMonitor::kOk)
        << "look-ups need only the signature";
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
}

TEST_F(RegistryTest, EqualSignaturesShareOneCredentialUntilItsLastHolderLetsGo) {
    ChildProcess first = StartHolder(), second = StartHolder();
    ASSERT_EQ(Register(Credential(L"admin", L"first-account"), first.Id()), SharedIdMonitor::kOk);
    ASSERT_EQ(Register(Credential(L"admin", L"first-account"), first.Id()), SharedIdMonitor::kOk);
    ASSERT_EQ(Register(Credential(L"admin", L"second-account"), second.Id()), SharedIdMonitor::kOk);
    EXPECT_EQ(monitor->LeaseCount(), 1);
    EXPECT_EQ(monitor->SignatureEntryCount(), 1u);
    EXPECT_EQ(FileCount(), 1u) << "the earlier file of a credential written again is removed";

    const CSharedId key = CSharedId::SignatureKey(kUrl, kService, L"admin");
    CSharedId stored, onDisk;
    ASSERT_TRUE(Registered(key, &stored));
    EXPECT_EQ(stored.GetHolderPids(), (std::vector<DWORD>{first.Id(), second.Id()}));
    std::list<DWORD> errors;
    ASSERT_TRUE(NS_SHAREDID_UTILS::readSharedIdFromFile(onDisk, stored.GetFileName(), errors));
    EXPECT_EQ(onDisk.GetSharedId(), L"first-account") << "the later callers' texts are ignored";

    // Registered twice by the first holder: one release is not enough, its exit is.
    ASSERT_EQ(Unregister(key, first.Id()), SharedIdMonitor::kOk);
    first.Kill();
    ASSERT_TRUE(WaitUntil([&] { return monitor->ProcessCount() == 1; }));
    EXPECT_TRUE(Registered(key)) << "the second holder still holds it";
    EXPECT_EQ(FileCount(), 1u);
    second.Kill();
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
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
    EXPECT_FALSE(Registered(credential));
    EXPECT_FALSE(monitor->GetCredsRegistered(holder.Id(), credential, &stored));
    EXPECT_EQ(monitor->SignatureEntryCount(), 1u) << "the expired entry waits for the collector";

    // Registered again meanwhile: a fresh credential; the collector erases only the old entry.
    ASSERT_EQ(Register(credential, holder.Id()), SharedIdMonitor::kOk);
    ::SetEvent(release.get());
    ASSERT_TRUE(WaitUntil([&] { return monitor->LeaseCount() == 1 && FileCount() == 1; }));
    EXPECT_TRUE(Registered(credential));
    EXPECT_EQ(monitor->SignatureEntryCount(), 1u);
}

}  // namespace
