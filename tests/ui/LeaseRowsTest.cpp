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
    ULONGLONG elapsedMs = 7000000;
    LeaseRows rows{[this] { return now; }, kGrace, [this] { return elapsedMs; }};
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
    // Any real date is a date: "no end" as the year 9999 is held at the latest time there is.
    EXPECT_EQ(ProcessInfo::ParseExpiry(L"99991231T235959Z"), NS_LEASE_UTILS::kLatestTime);
    EXPECT_EQ(ProcessInfo::ParseExpiry(L"30001231T235959Z"), NS_LEASE_UTILS::kLatestTime);
    EXPECT_EQ(ProcessInfo::ParseExpiry(L"20240229T120000Z"), 1709208000);
    EXPECT_EQ(ProcessInfo::ParseExpiry(L"19000101T000000Z"), 0);
    for (const wchar_t* noDate : {L"20210229T000000Z", L"20241301T000000Z", L"20240431T000000Z", L"20240101T240000Z"})
        EXPECT_EQ(ProcessInfo::ParseExpiry(noDate), -1) << noDate;
}

// The wall clock jumps three hours while five seconds pass (a laptop that slept and wakes at the
// lock screen): the rows whose end it passed, or brought within the grace time, end no earlier
// than the grace time after the user can see the window again. Elapsed time alone ends rows as
// before.
TEST_F(LeaseRowsTest, AJumpOfTheClockGivesTheWholeGraceTimeFromWhenTheUserCanSee) {
    const int due = Add(1003, Expiring(TimeToExpiryText(kNow + 130)));
    EXPECT_FALSE(rows.FollowClock(true));
    now += 200;
    elapsedMs += 200000;
    EXPECT_FALSE(rows.FollowClock(true));
    EXPECT_EQ(EndOf(due), kNow + 130) << "passed by elapsed time";
    ASSERT_TRUE(rows.Erase(due));

    const __time64_t before = now;
    auto passed = Expiring(TimeToExpiryText(before + 600)), later = Expiring(TimeToExpiryText(before + 4LL * 3600));
    const int key = Add(1001, passed), distant = Add(1002, later);
    now += 3LL * 3600;
    elapsedMs += 5000;
    EXPECT_TRUE(rows.FollowClock(false));
    EXPECT_EQ(EndOf(key), now + kGrace);
    EXPECT_EQ(EndOf(distant), before + 4LL * 3600) << "still more than the grace time away";
    const int joining = Add(1004, passed);
    EXPECT_EQ(EndOf(joining), now + kGrace) << "the credential's other rows share its moment";

    now += 600;
    elapsedMs += 600000;
    EXPECT_TRUE(rows.FollowClock(false));
    EXPECT_EQ(EndOf(key), now + kGrace) << "held while the session is locked";
    EXPECT_EQ(EndOf(joining), now + kGrace);
    EXPECT_FALSE(rows.FollowClock(true));
    const __time64_t seen = now;
    now += 60;
    elapsedMs += 60000;
    EXPECT_FALSE(rows.FollowClock(true));
    EXPECT_EQ(EndOf(key), seen + kGrace) << "counts down from the moment it was seen";
}

}  // namespace
