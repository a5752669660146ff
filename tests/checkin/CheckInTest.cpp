// The check-in client against the stand-in agent, over real COM in the test's own prefix.

#include "checkin/AgentRuntime.h"
#include "checkin/CheckInRow.h"
#include "checkin/CorvinUrlResolver.h"
#include "checkin/KelUtils.h"
#include "checkin/SharedIdReleaser.h"
#include "common/CriticalSection.h"
#include "common/FailFast.h"
#include "common/Registry.h"
#include "testing/agent/StandInControl.h"
#include "tests/support/FailFastTest.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <thread>

namespace {

constexpr const wchar_t* kProgId = L"Software\\Classes\\BriskScriptSupport.ScriptSupport\\CLSID";

// As the service makes it: the enterprise identity asked of the agent's script support.
CSharedId Record(const std::wstring& leaseDN, bool flag, const std::wstring& bag = {}) {
    CSharedId record(L"https://corvin/auth", L"srv-1", L"aux-1", L"svc", L"acct", L"mem-2", L"role", L"aux-4", leaseDN,
                     L"20301231T120000Z", flag, L"mem-3", bag);
    record.SetEnterpriseId(CKelUtils::ObtainMirelIdFromBriskScriptSupport());
    return record;
}

class CheckInTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_com = std::make_unique<NS_Utils::ComApartment>();
        ASSERT_TRUE(standin::Install(L"C:\\TarrowTestInstall"));
    }
    static void TearDownTestSuite() { s_com.reset(); }
    void SetUp() override {
        standin::ClearScript();
        m_journalStart = standin::JournalLines().size();
    }
    void TearDown() override {
        for (const wchar_t* value : {L"UseLocalKelSettings", L"AUTH_SVC"})
            NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, value);
    }

    // Journal lines since the test began, or since the last check-in began, that start with `prefix`.
    std::vector<std::string> NewLines(const std::string& prefix) const {
        std::vector<std::string> all = standin::JournalLines(), found;
        std::copy_if(all.begin() + static_cast<long>(m_journalStart), all.end(), std::back_inserter(found),
                     [&](const std::string& line) { return line.starts_with(prefix); });
        return found;
    }
    // The row of the one CheckIn call of the last check-in.
    std::string CheckedInRow() const {
        std::vector<std::string> calls = NewLines("CheckIn ");
        return calls.size() == 1 ? calls[0].substr(calls[0].find(" row=") + 5)
                                 : "calls: " + std::to_string(calls.size());
    }
    int CheckIn(const CSharedId& record) {
        m_journalStart = standin::JournalLines().size();
        HRESULT hr = E_UNEXPECTED;
        EXPECT_TRUE(m_releaser.Init());
        return m_releaser.ReleaseCredInternal(record, &hr).result;
    }

    static inline std::unique_ptr<NS_Utils::ComApartment> s_com;
    SharedIdReleaser m_releaser{1};  // poll the agent's logon every millisecond
    size_t m_journalStart = 0;
};

TEST_F(CheckInTest, RowAndRowKeyAsTheAgentReadsThemAndNRetFirst) {
    EXPECT_EQ(CheckIn(Record(L"cn=lease", true)), 0);
    EXPECT_EQ(CheckedInRow(),
              "cn=lease|aux-1|;svc;aux-4;acct;mem-3;{ERROR_CODE};;cn=lease|user@example.test|20301231T120000Z");
    EXPECT_NE(NewLines("CheckIn ")[0].find("url=https://corvin/auth srvId=srv-1 user=corvin-user"), std::string::npos);
    EXPECT_EQ(CheckIn(Record(L"", false)), 0);
    EXPECT_EQ(CheckedInRow(), "|aux-1|;svc;;acct;mem-3;{ERROR_CODE};;|user@example.test|20301231T120000Z");
    standin::SetScript(L"CheckInNRet", 9);
    EXPECT_EQ(CheckIn(Record(L"cn=lease", true)), 9) << "a non-zero nRet is the result";
}

TEST_F(CheckInTest, GlobalDataBagIsDeletedBeforeTheCheckInOnlyWhenItExists) {
    standin::SetScript(L"ExistingBags", std::wstring(L"bag-present\0other", 17));
    CheckIn(Record(L"cn=lease", true));  // no bag named: only the wallet's own bags are asked about
    EXPECT_TRUE(NewLines("DeleteAccDataBag").empty());
    for (const std::string& line : NewLines("IsAccDataBagExist")) EXPECT_EQ(line.find("scope=0"), std::string::npos);

    CheckIn(Record(L"cn=lease", true, L"bag-present"));
    std::vector<std::string> lines = NewLines("");
    auto at = [&](const std::string& text) {
        return std::find_if(lines.begin(), lines.end(), [&](auto& l) { return l.starts_with(text); }) - lines.begin();
    };
    EXPECT_LT(at("IsAccDataBagExist bag=bag-present scope=0 exists=1"), at("DeleteAccDataBag bag=bag-present scope=0"));
    EXPECT_LT(at("DeleteAccDataBag bag=bag-present scope=0"), at("CheckIn "));

    CheckIn(Record(L"cn=lease", true, L"bag-missing"));
    EXPECT_EQ(NewLines("IsAccDataBagExist bag=bag-missing").size(), 1u);
    EXPECT_TRUE(NewLines("DeleteAccDataBag").empty());
    EXPECT_EQ(NewLines("CheckIn ").size(), 1u);
}

TEST_F(CheckInTest, InitNeedsTheScriptSupportAndAcceptsAMultithreadedThread) {
    std::wstring clsid;
    ASSERT_TRUE(NS_Utils::ReadRegistryString(HKEY_LOCAL_MACHINE, kProgId, nullptr, clsid));
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"Software\\Classes\\BriskScriptSupport.ScriptSupport");
    EXPECT_TRUE(!m_releaser.Init() && m_releaser.IsReady());
    ASSERT_TRUE(NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, kProgId, nullptr, clsid));
    std::thread([] {
        NS_Utils::ComApartment multithreaded(COINIT_MULTITHREADED);
        EXPECT_TRUE(SharedIdReleaser().Init());  // CoInitialize answers RPC_E_CHANGED_MODE here
    }).join();
}

TEST_F(CheckInTest, EmptyWalletKeepsTheLastGoodAccount) {
    standin::SetScript(L"WalletUser", std::wstring(L"first-user"));
    ASSERT_TRUE(m_releaser.Init());
    EXPECT_TRUE(m_releaser.UpdateCorvinCred());
    standin::SetScript(L"WalletUser", std::wstring());
    EXPECT_FALSE(m_releaser.UpdateCorvinCred());
    CheckIn(Record(L"cn=lease", true));
    EXPECT_NE(NewLines("CheckIn ")[0].find(" user=first-user "), std::string::npos);
}

TEST_F(CheckInTest, LoginWaitEndsWhenEnterpriseIdAppearsOrCannotBeRead) {
    ASSERT_TRUE(m_releaser.Init());
    standin::SetScript(L"LoggedOff", 1);
    int pauses = 0;
    m_releaser.SetPause([&](DWORD) {
        if (++pauses == 2) standin::SetScript(L"LoggedOff", 0);  // the user logs on
        return true;
    });
    m_journalStart = standin::JournalLines().size();
    EXPECT_TRUE(m_releaser.WaitForBriskLoginBlocking());
    EXPECT_EQ(NewLines("EnterpriseId"), (std::vector<std::string>{"EnterpriseId value=", "EnterpriseId value=",
                                                                  "EnterpriseId value=user@example.test"}));
    EXPECT_EQ(m_releaser.EnterpriseId(), L"user@example.test") << "kept for the registrations";

    standin::SetScript(L"EnterpriseIdFails", 1);
    EXPECT_FALSE(m_releaser.WaitForBriskLoginBlocking());
}

// Only an answer is final: a call that failed without a result leaves every row of a batch
// unanswered, to be sent again, and does not make the batch go one row per call; a call that
// succeeded without a result for its row is final.
TEST_F(CheckInTest, AFailedCallIsNoAnswerForEveryRowAndASucceededEmptyOneIsFinal) {
    standin::SetScript(L"CheckInHResults", std::wstring(L"0x8001010A"));  // every call: "retry later"
    ASSERT_TRUE(m_releaser.Init());
    m_journalStart = standin::JournalLines().size();
    const CSharedId first = Record(L"cn=a", true), second = Record(L"cn=b", true);
    const CSharedId* const rows[] = {&first, &second};
    NS_CheckIn::RowOutcome outcomes[2];
    HRESULT hr = S_OK;
    m_releaser.ReleaseCreds(rows, outcomes, &hr);
    for (const NS_CheckIn::RowOutcome& outcome : outcomes) {
        EXPECT_EQ(outcome.reply, NS_CheckIn::Reply::kNoAnswer);
        EXPECT_EQ(outcome.call, RPC_E_SERVERCALL_RETRYLATER);
        EXPECT_EQ(NS_CheckIn::Decide(outcome), NS_CheckIn::Action::kRetryLater);
    }
    EXPECT_EQ(NewLines("CheckIn ").size(), 1u);
    EXPECT_FALSE(m_releaser.WantsSingleRows());
    EXPECT_TRUE(m_releaser.IsReady()) << "not a server gone: the objects stay";

    standin::SetScript(L"CheckInHResults", std::wstring(L"0"));
    standin::SetScript(L"CheckInOutputCount", 0);
    EXPECT_EQ(CheckIn(first), NS_CheckIn::kNoSingleAnswer);
}

TEST_F(CheckInTest, AuthServiceFromPolicyUnlessLocalSettingsAreExactlyOne) {
    NS_Utils::ComPtr<IKelStateEngineRuntime> runtime;
    NS_AgentRuntime::GetRuntimeFromObs(runtime);
    ASSERT_TRUE(runtime);
    std::wstring id;
    NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"AUTH_SVC", L"local-svc");
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"UseLocalKelSettings", 2);
    EXPECT_EQ(CCorvinUrlResolver::ResolveAuthSvcId(runtime.get(), id), 0);
    EXPECT_EQ(id, L"corvin-auth-svc");
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"UseLocalKelSettings", 1);
    EXPECT_EQ(CCorvinUrlResolver::ResolveAuthSvcId(runtime.get(), id), 0);
    EXPECT_EQ(id, L"local-svc");
    EXPECT_EQ(NewLines("GetPolicy id=pid_kel_corvin_auth_svc_id").size(), 1u);
    standin::SetScript(L"Policy", std::wstring(L"string"));
    EXPECT_EQ(CCorvinUrlResolver::GetKelSystemPolicy(runtime.get(), id), 1) << "not an array of strings";
    standin::SetScript(L"Policy", std::wstring(L"emptyfirst"));
    EXPECT_EQ(CCorvinUrlResolver::GetKelSystemPolicy(runtime.get(), id), 1) << "empty";
}

}  // namespace

namespace {

TEST(ThreadRuleDeathTest, TheReleaserCalledOffItsWorkerEndsTheProcess) {
    testsupport::ExpectFailFast(L"called off the collector's worker thread", [] {
        SharedIdReleaser releaser;  // its worker is the thread that made it
        std::thread([&] { (void)releaser.Init(); }).join();
    });
}

// The rule the registry checks before it calls a listener, the window or the agent.
TEST(ThreadRuleDeathTest, ACallUnderTheLockEndsTheProcessAndOnlyTheHolderIsUnderIt) {
    NS_Utils::CriticalSection lock;
    EXPECT_FALSE(lock.HeldByThisThread());
    NS_Utils::CritSecGuard held(lock);
    bool elsewhere = true;
    std::thread([&] { elsewhere = lock.HeldByThisThread(); }).join();
    EXPECT_FALSE(elsewhere);
    testsupport::ExpectFailFast(L"called under the lock, as a test",
                                [&] { lock.CheckNotHeld(L"called under the lock, as a test"); });
}

}  // namespace

namespace {

// An answer of `count` integers whose lower bound is `lower`.
void Answer(NS_Utils::UniqueVariant& output, LONG lower, ULONG count) {
    SAFEARRAYBOUND bound{count, lower};
    NS_Utils::UniqueSafeArray array(::SafeArrayCreate(VT_VARIANT, 1, &bound));
    ASSERT_NE(array.get(), nullptr);
    for (ULONG i = 0; i < count; ++i) {
        LONG at = static_cast<LONG>(static_cast<long long>(lower) + i);
        VARIANT value{};
        value.vt = VT_I4;
        value.lVal = 7;
        ASSERT_EQ(::SafeArrayPutElement(array.get(), &at, &value), S_OK);
    }
    output.get()->parray = array.release();
    output.get()->vt = VT_ARRAY | VT_VARIANT;
}

// The agent's answer is read without trusting its shape: any lower bound is read, and more
// results than rows, or none of the expected type, are no results at all.
TEST(CheckInRowTest, AnswersOfAnyShapeAreReadOnlyAsFarAsTheRowsGo) {
    NS_Utils::UniqueVariant three, text;
    Answer(three, -1, 3);
    EXPECT_TRUE(NS_CheckInRow::ReadResults(*three.get(), 2).empty());
    EXPECT_EQ(NS_CheckInRow::ReadResults(*three.get(), 3).size(), 3u);
    text.get()->vt = VT_BSTR;
    text.get()->bstrVal = ::SysAllocString(L"0");
    EXPECT_TRUE(NS_CheckInRow::ReadResults(*text.get(), 1).empty());
}

}  // namespace
