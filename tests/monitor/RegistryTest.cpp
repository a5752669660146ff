#include "tests/monitor/MonitorFixture.h"

using namespace testsupport;

namespace {

class RegistryTest : public MonitorTest {};

// Whether the holders' releases and exits let go of a shared credential is checked through the
// service itself.
TEST_F(RegistryTest, EqualSignaturesShareOneCredentialAndRefusalsLeaveNothing) {
    // A process that does not exist cannot hold a credential; none is made for it.
    EXPECT_EQ(Register(Credential(L"admin"), 0x7FFFFFFC), SharedIdMonitor::kProcessEntryFailed);
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));

    ChildProcess first = StartHolder(), second = StartHolder();
    ASSERT_EQ(Register(Credential(L"admin", L"first-account"), first.Id()), SharedIdMonitor::kOk);
    ASSERT_EQ(Register(Credential(L"admin", L"first-account"), first.Id()), SharedIdMonitor::kOk);
    ASSERT_EQ(Register(Credential(L"admin", L"second-account"), second.Id()), SharedIdMonitor::kOk);
    EXPECT_EQ(monitor->LeaseCount(), 1);
    EXPECT_EQ(monitor->SignatureEntryCount(), 1u);
    EXPECT_EQ(FileCount(), 1u) << "the earlier file of a credential written again is removed";
    CSharedId stored;
    ASSERT_TRUE(Registered(CSharedId::SignatureKey(kUrl, kService, L"admin"), &stored));
    EXPECT_EQ(stored.GetHolderPids(), (std::vector<DWORD>{first.Id(), second.Id()}));
    EXPECT_NE(ReadUtf16File(stored.GetFileName()).find(L"\nfirst-account\n"), std::wstring::npos)
        << "the later callers' texts are ignored";
    EXPECT_EQ(Unregister(Credential(L"never"), first.Id()), SharedIdMonitor::kNotAlive)
        << "the service answers 7 instead";
    first.Kill();
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
    EXPECT_FALSE(Registered(credential));
    CSharedId stored;
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
