// The lease monitor against a real registry, real holder processes and the real window; its
// clock is the test's, and it is polled by the test instead of by its thread.

#include "common/Registry.h"
#include "lease/LeaseMonitor.h"
#include "sharedid/ExpiryTime.h"
#include "testing/agent/StandInControl.h"
#include "tests/monitor/MonitorFixture.h"
#include "ui/LMMainUIRes.h"

#include <atomic>

using namespace testsupport;
using NS_LEASE_UTILS::TimeToExpiryText;

namespace {

// Far from the real clock, so that the window never finds a row's lease run out by itself.
constexpr __time64_t kNow = 1893456000;  // 20300101T000000Z
constexpr const wchar_t* kStale = L"before time period of monitoring";

// This process's lease-expiry window, or none.
HWND LeaseDialog() {
    struct Search {
        HWND dialog = nullptr;
    } search;
    ::EnumWindows(
        [](HWND window, LPARAM context) -> BOOL {
            DWORD pid = 0;
            ::GetWindowThreadProcessId(window, &pid);
            wchar_t name[16] = {};
            ::GetClassNameW(window, name, 16);
            if (pid != ::GetCurrentProcessId() || std::wstring(name) != L"#32770") return TRUE;
            reinterpret_cast<Search*>(context)->dialog = window;
            return FALSE;
        },
        reinterpret_cast<LPARAM>(&search));
    return search.dialog;
}

// The processes the window lists, in the order their rows appeared.
std::vector<DWORD> ListedPids(const CLeaseMonitor& lease) {
    std::vector<DWORD> pids;
    for (const LMListedRow& row : lease.ListedRows()) pids.push_back(row.processId);
    return pids;
}

// Rows in this process's lease-expiry window, -1 while there is no window.
int WindowRows() {
    HWND dialog = LeaseDialog();
    HWND list = dialog ? ::GetDlgItem(dialog, IDC_LEASE_EXPIRY_LIST) : nullptr;
    DWORD_PTR rows = 0;
    if (!list || !::SendMessageTimeoutW(list, LB_GETCOUNT, 0, 0, SMTO_BLOCK, 5000, &rows)) return -1;
    return static_cast<int>(rows);
}

class LeaseTest : public MonitorTest {
protected:
    void SetUp() override {
        MonitorTest::SetUp();
        lease = CLeaseMonitor::Create([this] { return now.load(); });
        lease->WatchFor(*monitor);
    }
    void TearDown() override {
        EXPECT_TRUE(monitor->Shutdown());
        lease.reset();
        MonitorTest::TearDown();
    }
    // A holder of its own for a credential of its own, expiring at `expiry`.
    ChildProcess Hold(const std::wstring& role, const std::wstring& expiry) {
        ChildProcess holder = StartHolder();
        CSharedId credential = Credential(role);
        credential.SetLeaseExpiry(expiry);
        EXPECT_EQ(Register(credential, holder.Id()), SharedIdMonitor::kOk);
        return holder;
    }
    ChildProcess Hold(const std::wstring& role, __time64_t expiry) { return Hold(role, TimeToExpiryText(expiry)); }

    // Read by the window's thread too: the countdowns run on the lease monitor's clock.
    std::atomic<__time64_t> now = kNow;
    std::shared_ptr<CLeaseMonitor> lease;
};

// The stale lease first, then the due ones by expiry, equal expiries in registration order.
// A lease monitor whose poller could never be stopped is not started: the registry runs on
// without lease warnings, and a credential registered then is checked in as before.
TEST_F(MonitorTest, ALeaseMonitorThatCannotStartLeavesTheRegistryCheckingIn) {
    standin::ClearJournal();
    std::shared_ptr<CLeaseMonitor> lease = CLeaseMonitor::Create({}, NS_Utils::UniqueHandle());
    EXPECT_FALSE(lease->StartLeaseMonitor(*monitor));
    ChildProcess holder = StartHolder();
    ASSERT_EQ(Register(Credential(L"unwatched"), holder.Id()), SharedIdMonitor::kOk);
    EXPECT_EQ(FileCount(), 1u);
    holder.Kill();
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_EQ(standin::JournalLines("Row ").size(), 1u);
}

TEST_F(LeaseTest, PollShowsTheHoldersOfDueAndStaleLeasesOnce) {
    ChildProcess later = Hold(L"later", kNow + 61LL * 60), soon = Hold(L"soon", kNow + 60LL * 60);
    ChildProcess low = Hold(L"low", kNow - 3600), stale = Hold(L"stale", kNow - 7200);
    ChildProcess first = Hold(L"first", kNow), second = Hold(L"second", kNow);
    const size_t staleLines = CountInServiceLog(kStale);

    lease->Poll(1);
    std::vector<DWORD> shown{stale.Id(), low.Id(), first.Id(), second.Id(), soon.Id()};
    EXPECT_EQ(ListedPids(*lease), shown);
    EXPECT_EQ(CountInServiceLog(kStale), staleLines + 1);
    EXPECT_EQ(lease->PendingCount(), 1u);

    now += 60;
    lease->Poll(2);
    shown.push_back(later.Id());
    EXPECT_EQ(ListedPids(*lease), shown) << "each registration is shown once";
    EXPECT_EQ(lease->PendingCount(), 0u);
}

// A client that registers and releases in a loop, its leases a year ahead: what the releases
// leave in the expiry map goes while the loop runs and all of it at the next poll (a held
// credential's entry stays: PollShowsTheHoldersOfDueAndStaleLeasesOnce).
TEST_F(LeaseTest, ReleasedCredentialsLeaveNoExpiryEntries) {
    ChildProcess holder = StartHolder();
    constexpr int kCycles = 300;
    for (int i = 0; i < kCycles; ++i) {
        CSharedId credential = Credential(L"cycle-" + std::to_wstring(i));
        credential.SetLeaseExpiry(TimeToExpiryText(kNow + 365LL * 86400));
        ASSERT_EQ(Register(credential, holder.Id()), SharedIdMonitor::kOk);
        ASSERT_EQ(Unregister(credential, holder.Id()), SharedIdMonitor::kOk);
    }
    ASSERT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_LT(lease->PendingCount(), static_cast<size_t>(kCycles)) << "dropped while registering";
    lease->Poll(1);
    EXPECT_EQ(lease->PendingCount(), 0u);
}

TEST_F(LeaseTest, AnUnreadableExpiryIsTheDefaultDurationFromNowInTheRecordToo) {
    ChildProcess unparsable = Hold(L"unparsable", L"tomorrow");
    CSharedId stored;
    ASSERT_TRUE(Registered(Credential(L"unparsable"), &stored));
    EXPECT_EQ(stored.GetLeaseExpiry(), TimeToExpiryText(kNow + 28800));
    now += 28800 - 3600 - 1;
    lease->Poll(1);
    EXPECT_TRUE(ListedPids(*lease).empty());
    now += 1;
    lease->Poll(2);
    EXPECT_EQ(ListedPids(*lease), std::vector<DWORD>{unparsable.Id()});
}

// "No end" written as the year 9999 is kept as written and never comes due; a date that does not
// exist is no date, and gets the default lease from now.
TEST_F(LeaseTest, AnyRealDateIsKeptAsWrittenAndOnlyTextThatIsNoDateGetsTheDefault) {
    ChildProcess forever = Hold(L"forever", L"99991231T235959Z"), noDay = Hold(L"noday", L"20290229T000000Z");
    CSharedId stored;
    ASSERT_TRUE(Registered(Credential(L"forever"), &stored));
    EXPECT_EQ(stored.GetLeaseExpiry(), L"99991231T235959Z");
    ASSERT_TRUE(Registered(Credential(L"noday"), &stored));
    EXPECT_EQ(stored.GetLeaseExpiry(), TimeToExpiryText(kNow + 28800));
    now += 100LL * 365 * 86400;
    lease->Poll(1);
    EXPECT_EQ(ListedPids(*lease), std::vector<DWORD>{noDay.Id()}) << "a century later, only the default has run out";
    EXPECT_EQ(lease->PendingCount(), 1u);
}

// Stale: before now - delta; due: from now - delta up to now + delta. A negative delta makes
// nothing due, and the poll must not walk past the end of the map.
TEST_F(LeaseTest, EveryDeltaSplitsStaleDueAndLaterLeases) {
    auto restore = NS_Utils::MakeScopeExit(
        [] { NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"LeaseMonitorDeltaTime"); });
    ChildProcess holder = StartHolder();
    // Of the seven expiries, in order: how many are stale, then how many due.
    const struct {
        LONG delta;
        size_t stale, due;
    } splits[] = {{3600, 1, 5}, {0, 3, 1}, {-3600, 5, 0}};
    for (const auto& [delta, stale, due] : splits) {
        NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"LeaseMonitorDeltaTime", delta);
        std::shared_ptr<CLeaseMonitor> previous = std::exchange(lease,
                                                                CLeaseMonitor::Create([this] { return now.load(); }));
        lease->WatchFor(*monitor);
        previous.reset();
        for (__time64_t offset : {-7200, -3600, -1, 0, 1, 3600, 7200}) {
            CSharedId credential = Credential(std::to_wstring(delta) + L"/" + std::to_wstring(offset));
            credential.SetLeaseExpiry(TimeToExpiryText(kNow + offset));
            ASSERT_EQ(Register(credential, holder.Id()), SharedIdMonitor::kOk);
        }
        const size_t staleBefore = CountInServiceLog(kStale);
        lease->Poll(1);
        EXPECT_EQ(CountInServiceLog(kStale) - staleBefore, stale) << delta;
        EXPECT_EQ(ListedPids(*lease), std::vector<DWORD>(stale + due, holder.Id())) << delta;
        EXPECT_EQ(lease->PendingCount(), 7 - stale - due) << delta;
    }
}

TEST_F(LeaseTest, TheWindowFollowsHoldersDuringTheWarning) {
    ChildProcess holder = Hold(L"warned", kNow);
    lease->Poll(1);
    ASSERT_TRUE(WaitUntil([] { return WindowRows() == 1; }));
    ChildProcess joining = StartHolder();
    ASSERT_EQ(Register(Credential(L"warned"), joining.Id()), SharedIdMonitor::kOk);
    EXPECT_TRUE(WaitUntil([] { return WindowRows() == 2; })) << "a holder registering during the warning";
    ASSERT_EQ(Unregister(Credential(L"warned"), joining.Id()), SharedIdMonitor::kOk);
    EXPECT_TRUE(WaitUntil([] { return WindowRows() == 1; })) << "a release loses its row";
}

// A holder of two credentials lets go of one; another holder joins the other during the warning.
TEST_F(LeaseTest, ARowIsAHolderAndItsCredentialAndCountsDownToItsEnd) {
    ChildProcess first = StartHolder(), joining = StartHolder();
    CSharedId kept = Credential(L"kept"), released = Credential(L"released");
    for (CSharedId* credential : {&kept, &released}) {
        credential->SetLeaseExpiry(TimeToExpiryText(kNow));
        ASSERT_EQ(Register(*credential, first.Id()), SharedIdMonitor::kOk);
    }
    lease->Poll(1);
    now += 60;
    ASSERT_EQ(Register(kept, joining.Id()), SharedIdMonitor::kOk);
    ASSERT_EQ(Unregister(released, first.Id()), SharedIdMonitor::kOk);
    const __time64_t end = kNow + 120;  // the default grace from the first rows' appearance
    std::vector<std::pair<DWORD, __time64_t>> rows;
    for (const LMListedRow& row : lease->ListedRows()) rows.emplace_back(row.processId, row.endTime);
    EXPECT_EQ(rows, (decltype(rows){{first.Id(), end}, {joining.Id(), end}}));

    HWND dialog = nullptr;
    ASSERT_TRUE(WaitUntil([&] { return (dialog = LeaseDialog()) != nullptr; }));
    now = end - 1;
    ::SendMessageW(dialog, WM_TIMER, 0, 0);
    EXPECT_EQ(first.Wait(1000), static_cast<DWORD>(WAIT_TIMEOUT)) << "ended before its row reached zero";
    now = end;
    ::SendMessageW(dialog, WM_TIMER, 0, 0);
    for (const ChildProcess* holder : {&first, &joining}) {
        ASSERT_EQ(holder->Wait(60000), WAIT_OBJECT_0);
        EXPECT_EQ(holder->ExitCode(), SharedIdMonitor::kTerminatedExitCode);
    }
}

// On the real clock, without grace: the window's own tick finds the lease run out and calls back.
TEST_F(LeaseTest, ExpiryEndsEveryHolderAndTheCredentialIsReleased) {
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"WaitingTimeToKillProcess", 0);
    std::shared_ptr<CLeaseMonitor> realTime = CLeaseMonitor::Create();
    NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"WaitingTimeToKillProcess");
    realTime->WatchFor(*monitor);
    ChildProcess twice = StartHolder(), takeover = StartHolder(), bystander = StartHolder();
    CSharedId credential = Credential(L"expiring");
    credential.SetLeaseExpiry(TimeToExpiryText(::_time64(nullptr) - 10));
    ASSERT_EQ(Register(credential, twice.Id()), SharedIdMonitor::kOk);
    ASSERT_EQ(Register(credential, twice.Id()), SharedIdMonitor::kOk);
    CSharedId found;
    ASSERT_TRUE(monitor->GetCredsRegistered(takeover.Id(), credential, &found));
    ASSERT_EQ(Register(credential, takeover.Id()), SharedIdMonitor::kOk);
    ASSERT_EQ(Unregister(credential, twice.Id()), SharedIdMonitor::kOk);
    ASSERT_EQ(Unregister(credential, takeover.Id()), SharedIdMonitor::kOk);
    ASSERT_EQ(Register(Credential(L"other"), bystander.Id()), SharedIdMonitor::kOk);
    ASSERT_TRUE(Registered(credential, &found));
    EXPECT_EQ(found.GetHolderPids(), (std::vector<DWORD>{twice.Id(), takeover.Id()})) << "both still hold it";

    realTime->Poll(1);
    for (const ChildProcess* holder : {&twice, &takeover}) {
        ASSERT_EQ(holder->Wait(60000), WAIT_OBJECT_0);
        EXPECT_EQ(holder->ExitCode(), SharedIdMonitor::kTerminatedExitCode);
    }
    EXPECT_TRUE(WaitUntil([&] { return !Registered(credential) && monitor->LeaseCount() == 1; }));
    EXPECT_EQ(bystander.Wait(0), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(LeaseTest, LogoffEndsEveryHolderAndReturnsOnceAllAreCheckedIn) {
    ChildProcess holders[] = {Hold(L"a", kNow + 86400), Hold(L"b", kNow + 86400), Hold(L"c", kNow + 86400)};
    ASSERT_EQ(monitor->LeaseCount(), 3);
    monitor->OnWndSessionEnd();
    EXPECT_EQ(monitor->LeaseCount(), 0);
    for (const ChildProcess& holder : holders) {
        ASSERT_EQ(holder.Wait(30000), WAIT_OBJECT_0);
        EXPECT_EQ(holder.ExitCode(), SharedIdMonitor::kTerminatedExitCode);
    }
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
}

// The agent keeps answering 37, so the handler waits its full two minutes, on a clock that runs
// sixty times as fast as the real one.
TEST_F(LeaseTest, LogoffGivesUpAfterTwoMinutesAndCountsWhatIsLeft) {
    standin::SetScript(L"CheckInResults", std::wstring(L"37"));
    const ULONGLONG start = ::GetTickCount64();
    std::atomic<ULONGLONG> lastRead{start};
    monitor->SetLogoffClock([start, &lastRead] { return lastRead = start + (::GetTickCount64() - start) * 60; });
    ChildProcess first = Hold(L"first", kNow + 86400), second = Hold(L"second", kNow + 86400);
    monitor->OnWndSessionEnd();
    EXPECT_GE(lastRead - start, SharedIdMonitor::kLogoffWaitMs) << "given up before two minutes on its clock";
    EXPECT_EQ(CountInServiceLog(L"2 credentials were not checked in to Corvin during windows logoff."), 1u);
    EXPECT_EQ(monitor->LeaseCount(), 2);
    standin::ClearScript();
}

}  // namespace
