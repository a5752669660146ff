// The lease-expiry window's rows without the window, on the test's clock. Every row stands for
// this process (any process will do) under a made-up process id.

#include "sharedid/ExpiryTime.h"
#include "ui/LeaseRows.h"

#include <gtest/gtest.h>

namespace {

using NS_LEASE_UTILS::TimeToExpiryText;

constexpr __time64_t kNow = 1893456000;  // 20300101T000000Z
constexpr unsigned kGrace = 120;

std::shared_ptr<CSharedId> Expiring(const std::wstring& expiry) {
    auto credential = std::make_shared<CSharedId>();
    credential->SetLeaseExpiry(expiry);
    return credential;
}

class LeaseRowsTest : public ::testing::Test {
protected:
    int Add(DWORD pid, const std::weak_ptr<CSharedId>& credential) {
        NS_Utils::UniqueHandle self(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, ::GetCurrentProcessId()));
        return rows.Add(pid, std::move(self), credential);
    }
    __time64_t EndOf(int key) const { return key < 0 ? -1 : rows.Find(key)->GetEndTime(); }

    __time64_t now = kNow;
    LeaseRows rows{[this] { return now; }, kGrace};
};

TEST_F(LeaseRowsTest, AProcessHasOneRowPerCredential) {
    auto released = Expiring(TimeToExpiryText(kNow)), kept = Expiring(TimeToExpiryText(kNow));
    const int first = Add(1001, released);
    ASSERT_GE(first, 0);
    EXPECT_LT(Add(1001, released), 0) << "reported by the listener and by the poll: one row";
    const int other = Add(1001, kept);
    ASSERT_GE(other, 0);
    EXPECT_LT(rows.Remove(1002, released), 0) << "another process's row";

    std::weak_ptr<CSharedId> gone = released;
    released.reset();
    EXPECT_EQ(rows.Remove(1001, gone), first) << "a credential whose record has gone is still told apart";
    ASSERT_EQ(rows.Listed().size(), 1u);
    EXPECT_TRUE(rows.Listed()[0].processId == 1001 && rows.Listed()[0].credential.lock() == kept);
    EXPECT_GT(Add(1001, gone), other) << "a key taken out never names a later row";
}

// The first row of a credential ends at the later of its lease expiry and its appearance plus
// the grace time; an expiry that cannot be read counts as due now.
TEST_F(LeaseRowsTest, TheFirstRowOfACredentialFixesItsMoment) {
    const struct {
        std::wstring expiry;
        __time64_t end;
    } cases[] = {
        {TimeToExpiryText(kNow + 600), kNow + 600},
        {TimeToExpiryText(kNow + 60), kNow + kGrace},
        {L"20200101T000000Z", kNow + kGrace},  // run out before its row appeared: still the grace time
        {L"tomorrow", kNow + kGrace},
    };
    DWORD pid = 1000;
    for (const auto& [expiry, end] : cases) EXPECT_EQ(EndOf(Add(++pid, Expiring(expiry))), end) << expiry;
    EXPECT_EQ(ProcessInfo::ParseExpiry(L"20200101T000000Z"), 1577836800);
    EXPECT_EQ(ProcessInfo::ParseExpiry(L"2020-01-01 00:00"), -1);
}

TEST_F(LeaseRowsTest, LaterRowsShareTheMomentUntilEveryRowOfTheCredentialHasGone) {
    auto credential = Expiring(TimeToExpiryText(kNow));
    const int first = Add(1001, credential);
    now += 100;
    const int joining = Add(1002, credential);
    EXPECT_EQ(EndOf(joining), kNow + kGrace) << "what is left of the warning, not a grace time of its own";
    now += 100;
    EXPECT_EQ(EndOf(Add(1003, Expiring(TimeToExpiryText(kNow)))), now + kGrace) << "another credential";

    ASSERT_EQ(rows.Remove(1001, credential), first);
    EXPECT_EQ(EndOf(Add(1004, credential)), kNow + kGrace) << "one row of it is still there";
    ASSERT_GE(rows.Remove(1002, credential), 0);
    ASSERT_GE(rows.Remove(1004, credential), 0);
    EXPECT_EQ(EndOf(Add(1001, credential)), now + kGrace) << "all gone: the next row fixes a new moment";
}

TEST_F(LeaseRowsTest, TextsShowTheProgramAndTheTimeLeftOnTheClock) {
    const int key = Add(1001, Expiring(TimeToExpiryText(kNow + 3909)));
    rows.SetLabels({L"Program", L"Closes in", L"left"});
    EXPECT_EQ(rows.Texts(), (std::map<int, std::wstring>{{key, L"Program: ui_tests.exe\nCloses in: 1:05:09 left"}}));
    now += 3909 - 299;
    EXPECT_EQ(rows.Text(*rows.Find(key)), L"Program: ui_tests.exe\nCloses in: 4:59 left");
    now += 300;
    rows.SetLabels({});  // no message library: the values stand alone
    EXPECT_EQ(rows.Text(*rows.Find(key)), L"ui_tests.exe\n0:00");
}

}  // namespace
