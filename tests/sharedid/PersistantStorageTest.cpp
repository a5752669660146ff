#include "sharedid/PersistantStorage.h"
#include "tests/support/Credential.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <set>

using namespace testsupport;

namespace {

// Names are the local time to the millisecond, so credentials persisted back to back meet on a
// name; each must still get a file of its own, and no file is written over.
TEST(PersistantStorageTest, CredentialsPersistedBackToBackEachGetAFileOfTheirOwn) {
    ::SetEnvironmentVariableW(L"appdata", MakeTempFolder(L"appdata").c_str());
    PersistantStorage storage;
    std::vector<CSharedId> records;
    std::set<std::wstring> names;
    const std::wstring taken = L"[NS_SHAREDID_UTILS::writeSharedIdToFile]\t CreateFile error. Error = 80";
    const size_t takenBefore = CountInServiceLog(taken);
    for (int i = 0; i < 2000 && CountInServiceLog(taken) == takenBefore; ++i) {
        records.push_back(Credential(L"role", L"acct-" + std::to_wstring(i)));
        ASSERT_EQ(storage.Persist(records.back()), PersistantStorage::kOk) << i;
        names.insert(records.back().GetFileName());
    }
    ASSERT_GT(CountInServiceLog(taken), takenBefore) << "no two names met";
    EXPECT_EQ(names.size(), records.size());
    for (CSharedId& record : records) record.ReleaseFileClaim();
    std::list<CSharedId> found;
    ASSERT_EQ(storage.EnumCreds(found), PersistantStorage::kOk);
    std::set<std::wstring> accounts;
    for (const CSharedId& onDisk : found) accounts.insert(onDisk.GetSharedId());
    EXPECT_EQ(accounts.size(), records.size()) << "no file was written over";
}

}  // namespace
