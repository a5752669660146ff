#include "sharedid/PersistantStorage.h"
#include "tests/support/Credential.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

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

}  // namespace
