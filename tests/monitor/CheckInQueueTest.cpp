// The order in which waiting credentials go to the agent: a call takes the rows of the server of
// the oldest due row wherever they stand, no server waits behind another for more than one call,
// and a row in its retry pause lets every row let go after it pass.

#include "monitor/CheckInQueue.h"
#include "tests/support/Credential.h"

#include <gtest/gtest.h>

namespace testsupport {
namespace {

std::wstring Roles(const std::vector<PendingCheckIn>& taken) {
    std::wstring roles;
    for (const PendingCheckIn& pending : taken) roles += pending.credential->GetRoleId();
    return roles;
}

void Push(CCheckInQueue& queue, const std::wstring& role, const std::wstring& url, ULONGLONG dueAt = 0) {
    queue.Push({std::make_shared<CSharedId>(Credential(role, L"acct", url)), false, dueAt});
}

constexpr ULONGLONG kNow = 1000;

TEST(CheckInQueueTest, ACallTakesTheOldestRowsServerWhereverItsRowsStand) {
    CCheckInQueue queue;
    for (const wchar_t* role : {L"a", L"B", L"c", L"D", L"e"}) Push(queue, role, iswupper(*role) ? kOtherUrl : kUrl);
    EXPECT_EQ(Roles(queue.Take(64, kNow)), L"ace");
    std::vector<PendingCheckIn> taken = queue.Take(1, kNow);
    queue.PutBack(taken);
    EXPECT_TRUE(taken.empty());
    EXPECT_EQ(Roles(queue.Take(64, kNow)), L"BD") << "a row put back keeps its place";
    EXPECT_TRUE(queue.Take(64, kNow).empty());
}

TEST(CheckInQueueTest, AServerWithMoreRowsThanACallWaitsBehindTheOthersForItsRest) {
    CCheckInQueue queue;
    Push(queue, L"a", kUrl);
    Push(queue, L"b", kUrl);
    Push(queue, L"c", kUrl);
    Push(queue, L"X", kOtherUrl);
    EXPECT_EQ(Roles(queue.Take(2, kNow)), L"ab");
    EXPECT_EQ(Roles(queue.Take(2, kNow)), L"X");
    EXPECT_EQ(Roles(queue.Take(2, kNow)), L"c");
}

TEST(CheckInQueueTest, RowsInTheirPauseWaitTillDueOrTheSessionEndsWhileNewRowsGoAtOnce) {
    CCheckInQueue queue;
    Push(queue, L"p", kUrl, kNow + 500);
    Push(queue, L"Q", kOtherUrl, kNow + 200);
    Push(queue, L"n", kUrl);
    EXPECT_EQ(Roles(queue.Take(64, kNow)), L"n") << "the paused row of the same server stays";
    EXPECT_TRUE(queue.Take(64, kNow).empty());
    EXPECT_EQ(queue.NextDue(), kNow + 200);
    EXPECT_EQ(Roles(queue.Take(64, kNow + 200)), L"Q");
    queue.MakeAllDue();
    EXPECT_EQ(Roles(queue.Take(64, kNow)), L"p");
    EXPECT_EQ(queue.NextDue(), std::nullopt);
}

}  // namespace
}  // namespace testsupport
