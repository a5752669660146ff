#include "sharedid/HolderList.h"
#include "sharedid/PersistantStorage.h"
#include "tests/support/Credential.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

using namespace testsupport;

namespace {

// Names are the local time to the millisecond: a credential persisted in a millisecond whose name
// another file already has (made in the same millisecond, or on another date with the same digits)
// gets a file of its own, and the other file is never written over.
TEST(PersistantStorageTest, ATakenNameIsNeverWrittenOverAndTheCredentialGetsAnother) {
    ::SetEnvironmentVariableW(L"appdata", MakeTempFolder(L"appdata").c_str());
    PersistantStorage storage;
    std::vector<CSharedId> records;
    for (int i = 0; i < 300; ++i) {
        const std::wstring taken = storage.Folder() + PersistantStorage::NewFileName();
        const bool ours = !FileExists(taken) && WriteFileBytes(taken, "x", 1);
        records.push_back(Credential(L"role", L"acct-" + std::to_wstring(i)));
        ASSERT_EQ(storage.Persist(records.back()), PersistantStorage::kOk) << i;
        ASSERT_NE(records.back().GetFileName(), taken);
        if (ours) {
            ASSERT_EQ(ReadFileBytes(taken).size(), 1u) << "written over";
        }
    }
    EXPECT_GT(CountInServiceLog(L"[NS_SHAREDID_UTILS::writeSharedIdToFile]\t CreateFile error. Error = 80"), 0u)
        << "the clock moved on every time: no name was met";
    for (CSharedId& record : records) record.ReleaseFileClaim();
    std::list<CSharedId> found;
    ASSERT_EQ(storage.EnumCreds(found), PersistantStorage::kOk);
    std::set<std::wstring> accounts;
    for (const CSharedId& onDisk : found) accounts.insert(onDisk.GetSharedId());
    EXPECT_EQ(accounts.size(), records.size()) << "every credential has its own file";
}

// A holder list is not flushed: after a power cut it may be empty, cut short or garbage, and each
// of those must name no running holder, so that the credential is checked in.
TEST(PersistantStorageTest, AHolderListThatAPowerCutSpoiledNamesNoRunningHolder) {
    ::SetEnvironmentVariableW(L"appdata", MakeTempFolder(L"appdata").c_str());
    PersistantStorage storage;
    CSharedId record = Credential(L"listed");
    ChildProcess holder = StartHolder();
    const HolderProcess running{holder.Id(), NS_SHAREDID_UTILS::ProcessCreationTime(holder.Handle())};
    const std::vector<HolderProcess> holders{running};
    ASSERT_EQ(storage.Persist(record, &holders), PersistantStorage::kOk);
    ASSERT_EQ(storage.ReadHolders(record), holders);
    ASSERT_TRUE(NS_SHAREDID_UTILS::IsStillRunning(running));
    const std::string whole = std::to_string(running.pid) + " " + std::to_string(running.created) + "\n";
    const std::string spoiled[] = {"", whole.substr(0, whole.size() / 2), whole.substr(0, whole.size() - 1),
                                   std::string(whole.size(), '\0'), "garbage\n"};
    const std::wstring list = NS_SHAREDID_UTILS::HolderListPath(record.GetFileName());
    record.ReleaseFileClaim();
    for (const std::string& text : spoiled) {
        ASSERT_TRUE(WriteFileBytes(list, text.data(), text.size()));
        const auto read = storage.ReadHolders(record);
        const bool namesRunning = read && std::any_of(read->begin(), read->end(), [](const HolderProcess& h) {
                                      return NS_SHAREDID_UTILS::IsStillRunning(h);
                                  });
        EXPECT_FALSE(namesRunning) << "list of " << text.size() << " bytes";
    }
}

// The list is rewritten in place through the record's claim: what is left of a longer list must
// read as nothing, and a list that outgrows a page (replaced whole) still reads back as written.
TEST(PersistantStorageTest, AHolderListRewrittenInPlaceReadsBackAsWritten) {
    ::SetEnvironmentVariableW(L"appdata", MakeTempFolder(L"appdata").c_str());
    PersistantStorage storage;
    CSharedId record = Credential(L"rewritten");
    auto holders = [](size_t count) {
        std::vector<HolderProcess> list;
        for (size_t i = 0; i < count; ++i) list.push_back({static_cast<DWORD>(1000 + i), 132000000000000000ull + i});
        return list;
    };
    const std::vector<HolderProcess> first = holders(3);
    ASSERT_EQ(storage.Persist(record, &first), PersistantStorage::kOk);
    for (size_t count : {1, 0, 2, 300, 1}) {
        ASSERT_TRUE(storage.WriteHolders(record, holders(count))) << count;
        EXPECT_EQ(storage.ReadHolders(record), holders(count)) << count;
    }
}

// A file that cannot be deleted keeps its holder list; a file that cannot be claimed (read-only)
// is never taken up, and is logged once however often the folder is taken up.
TEST(PersistantStorageTest, AFileThatCannotBeDeletedOrClaimedIsLeftWithItsList) {
    ::SetEnvironmentVariableW(L"appdata", MakeTempFolder(L"appdata").c_str());
    PersistantStorage storage;
    CSharedId stuck = Credential(L"stuck");
    const std::vector<HolderProcess> holders{{4242, 1}};
    ASSERT_EQ(storage.Persist(stuck, &holders), PersistantStorage::kOk);
    const std::wstring path = stuck.GetFileName(), list = NS_SHAREDID_UTILS::HolderListPath(path);
    ASSERT_TRUE(::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ(storage.Delete(stuck), PersistantStorage::kDeleteFailed);
    EXPECT_TRUE(FileExists(path) && FileExists(list));

    const size_t logged = CountInServiceLog(L"cannot be claimed");
    for (int takeUp = 0; takeUp < 3; ++takeUp) {
        std::list<CSharedId> found;
        ASSERT_EQ(storage.EnumCreds(found), PersistantStorage::kOk);
        EXPECT_TRUE(found.empty());
    }
    EXPECT_EQ(CountInServiceLog(L"cannot be claimed"), logged + 1);
    EXPECT_TRUE(FileExists(path) && FileExists(list));
    ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
}

// Another instance's files (marked as claimed) are left alone for good; a file that some other
// program has open is tried again and taken up once that program lets go.
TEST(PersistantStorageTest, AFileInUseIsTriedAgainUnlessALiveInstanceClaimsIt) {
    ::SetEnvironmentVariableW(L"appdata", MakeTempFolder(L"appdata").c_str());
    PersistantStorage sibling, storage;
    CSharedId held = Credential(L"held"), left = Credential(L"left");
    ASSERT_EQ(sibling.Persist(held), PersistantStorage::kOk);
    ASSERT_EQ(sibling.Persist(left), PersistantStorage::kOk);
    left.ReleaseFileClaim();
    NS_Utils::UniqueHandle scanner(
        ::CreateFileW(left.GetFileName().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(scanner.valid());
    std::list<CSharedId> found;
    ASSERT_EQ(storage.EnumCreds(found), PersistantStorage::kOk);
    EXPECT_TRUE(found.empty());
    EXPECT_TRUE(storage.HasBusyFiles());
    storage.TakeUpBusyFiles(found);
    EXPECT_TRUE(found.empty()) << "taken from under the program that has it open";
    scanner.reset();
    storage.TakeUpBusyFiles(found);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found.front().GetLeaseDN(), left.GetLeaseDN());
    EXPECT_FALSE(storage.HasBusyFiles()) << "the sibling's file is tried again for ever";
}

}  // namespace
