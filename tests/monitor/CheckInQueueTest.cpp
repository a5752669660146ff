// The order in which waiting credentials go to the agent: a call takes the rows of the server of
// the oldest row wherever they stand, and no server waits behind another for more than one call.

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

void Push(CCheckInQueue& queue, const std::wstring& role, const std::wstring& url) {
    queue.Push({std::make_shared<CSharedId>(Credential(role, L"acct", url)), false});
}

TEST(CheckInQueueTest, ACallTakesTheOldestRowsServerWhereverItsRowsStand) {
    CCheckInQueue queue;
    for (const wchar_t* role : {L"a", L"B", L"c", L"D", L"e"}) Push(queue, role, iswupper(*role) ? kOtherUrl : kUrl);
    EXPECT_EQ(Roles(queue.Take(64)), L"ace");
    queue.PutBack(queue.Take(1));
    EXPECT_EQ(Roles(queue.Take(64)), L"BD") << "a row put back keeps its place";
    EXPECT_TRUE(queue.Take(64).empty());
}

TEST(CheckInQueueTest, AServerWithMoreRowsThanACallWaitsBehindTheOthersForItsRest) {
    CCheckInQueue queue;
    Push(queue, L"a", kUrl);
    Push(queue, L"b", kUrl);
    Push(queue, L"c", kUrl);
    Push(queue, L"X", kOtherUrl);
    EXPECT_EQ(Roles(queue.Take(2)), L"ab");
    EXPECT_EQ(Roles(queue.Take(2)), L"X");
    EXPECT_EQ(Roles(queue.Take(2)), L"c");
}

}  // namespace
}  // namespace testsupport
