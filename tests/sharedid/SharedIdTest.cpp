#include "common/ComHandles.h"
#include "sharedid/SharedId.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

CSharedId Record(const std::wstring& url, const std::wstring& authSvcId, const std::wstring& roleId,
                 const std::wstring& sharedId = L"acct-1") {
    return CSharedId(url, L"srv-9", L"aux1", authSvcId, sharedId, L"aux2", roleId, L"aux4", L"cn=lease,o=x",
                     L"20170312T140500Z", true, L"aux3", L"aux6");
}

TEST(SharedIdTest, SignatureJoinsServiceRoleAndUrlAsTheyAre) {
    EXPECT_EQ(Record(L"https://corvin/auth", L"svc-17", L"role-admin").GetSignature(),
              L"svc-17:role-admin:https://corvin/auth");
    // No escaping: texts holding ":" can meet in the middle.
    EXPECT_EQ(Record(L"u", L"a:b", L"c").GetSignature(), Record(L"u", L"a", L"b:c").GetSignature());
    // Case matters.
    EXPECT_NE(Record(L"u", L"A", L"r").GetSignature(), Record(L"u", L"a", L"r").GetSignature());
}

TEST(SharedIdTest, SignatureIgnoresAccountLeaseAndAuxiliaryTexts) {
    CSharedId a = Record(L"u", L"s", L"r", L"account-1");
    CSharedId b(L"u", L"other-srv", L"x", L"s", L"account-2", L"y", L"r", L"z", L"cn=other", L"20200101T000000Z",
                false, L"w", L"v");
    EXPECT_EQ(a.GetSignature(), b.GetSignature());
}

TEST(SharedIdTest, CompletenessNeedsSixTextsSignatureOnlyThree) {
    CSharedId noAccount = Record(L"u", L"s", L"r", L"");
    EXPECT_TRUE(noAccount.HasSignature());
    EXPECT_FALSE(noAccount.IsComplete());
    EXPECT_TRUE(Record(L"u", L"s", L"r").IsComplete());

    CSharedId key = CSharedId::SignatureKey(L"u", L"s", L"r");
    EXPECT_TRUE(key.HasSignature());
    EXPECT_FALSE(key.IsComplete());
    EXPECT_EQ(key.GetSignature(), L"s:r:u");

    for (CSharedId partial : {CSharedId::SignatureKey(L"", L"s", L"r"), CSharedId::SignatureKey(L"u", L"", L"r"),
                              CSharedId::SignatureKey(L"u", L"s", L"")}) {
        EXPECT_FALSE(partial.HasSignature());
        EXPECT_EQ(partial.GetSignature(), L"");
    }
}

TEST(SharedIdTest, DumpShowsLabelledFieldsAndNoAuxiliaryText) {
    CSharedId record = Record(L"https://corvin", L"svc", L"role");
    EXPECT_EQ(record.Dump(),
              L"\nCreds Object Content: \n"
              L"Corvin Auth Svc Url = https://corvin,\n"
              L"Corvin Auth Srv ID = srv-9,\n"
              L"Auth Svc ID = svc,\n"
              L"Shared ID = acct-1,\n"
              L"Role ID = role,\n"
              L"LeaseDN = cn=lease,o=x,\n"
              L"Filename = \n");
    record.SetFileName(L"C:\\x\\1.dat");
    EXPECT_NE(record.Dump().find(L"Filename = C:\\x\\1.dat\n"), std::wstring::npos);
    EXPECT_EQ(record.Dump().find(L"aux"), std::wstring::npos);
}

TEST(SharedIdTest, WithoutTheAgentTheEnterpriseIdentityStaysEmptyAndIsLogged) {
    NS_Utils::ComApartment com;
    const std::wstring line = L"[CKelUtils::ObtainMirelIdFromBriskScriptSupport]\t Cannot create object BriskScriptSupport";
    size_t before = testsupport::CountInServiceLog(line);
    CSharedId record = Record(L"u", L"s", L"r");
    EXPECT_TRUE(record.GetEnterpriseId().empty());
    EXPECT_EQ(testsupport::CountInServiceLog(line), before + 1);
}

}  // namespace
