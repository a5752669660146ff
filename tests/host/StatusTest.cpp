// The status view from another process, reached the way scripts reach it (ProgID, active object,
// IDispatch by name): a held credential with its holder, one whose check-in keeps failing as
// retrying with its code and count, no memory-only text anywhere; tarrowctl prints the same as
// CSV and as JSON that a strict reader takes (texts with quotes, controls and non-ASCII intact),
// and answers 101 once the service has gone; its help needs no service.

#include "common/ModulePath.h"
#include "common/Registry.h"
#include "testing/agent/StandInControl.h"
#include "tests/host/ServiceFixture.h"
#include "tests/support/StrictJson.h"
#include "tools/StatusReader.h"

#include "TarrowVersion.h"

#include <map>

namespace testsupport {
namespace {

void AllTexts(const VARIANT& value, std::wstring& texts) {
    if (value.vt == VT_BSTR && value.bstrVal) texts += std::wstring(value.bstrVal) + L"\n";
    if (value.vt != (VT_ARRAY | VT_VARIANT)) return;
    NS_Utils::SafeArrayLock lock(value.parray);
    for (ULONG i = 0; i < lock.Count(); ++i) AllTexts(lock.Data<VARIANT>()[i], texts);
}

// tarrowctl with its standard output in a file: the exit code, and the output in `output`.
DWORD RunCtl(const std::wstring& arguments, std::string& output) {
    const std::wstring path = MakeTempFolder(L"ctl") + L"out.txt";
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    NS_Utils::UniqueHandle file(
        ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0, nullptr));
    std::wstring commandLine = L"\"" + NS_Utils::ExecutableFolder() + L"tarrowctl.exe\" " + arguments;
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = startup.hStdError = file.get();
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info))
        return 0xFFFFFFFF;
    NS_Utils::UniqueHandle process(info.hProcess), thread(info.hThread);
    DWORD code = 0xFFFFFFFF;
    if (::WaitForSingleObject(process.get(), 60000) == WAIT_OBJECT_0) ::GetExitCodeProcess(process.get(), &code);
    file.reset();
    std::vector<std::uint8_t> bytes = ReadFileBytes(path);
    output.assign(bytes.begin(), bytes.end());
    return code;
}

class StatusTest : public ServiceTest {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(standin::Install(L"C:\\TarrowTestInstall\\"));
        standin::ClearJournal();
        standin::SetScript(L"CheckInResults", std::wstring(L"37"));
        NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"FreeSharedIdWaitTime", 600000);
        // Wine's COM finds ProgIDs under HKLM only: registered for all users as well.
        ASSERT_EQ(RunTarrow(L"/RegServer"), 0u);
        ServiceTest::SetUpTestSuite();
    }

    // GetStatus by name through the IDispatch of the class's active object.
    bool ReadAsScript(NS_Utils::UniqueVariant& snapshot, tarrowctl::StatusText& text) {
        CLSID clsid{};
        NS_Utils::ComPtr<IUnknown> object;
        NS_Utils::ComPtr<IDispatch> dispatch;
        LPOLESTR name = const_cast<LPOLESTR>(L"GetStatus");
        DISPID id = 0;
        DISPPARAMS none{};
        return ::CLSIDFromProgID(L"Tarrow.Tarrow", &clsid) == S_OK &&
               ::GetActiveObject(clsid, nullptr, object.put()) == S_OK && object.As(dispatch) == S_OK &&
               dispatch->GetIDsOfNames(IID_NULL, &name, 1, 0, &id) == S_OK &&
               dispatch->Invoke(id, IID_NULL, 0, DISPATCH_METHOD, &none, snapshot.put(), nullptr, nullptr) == S_OK &&
               tarrowctl::ReadStatus(*snapshot.get(), text);
    }
};

std::vector<std::wstring> Row(const tarrowctl::StatusText& text, const std::wstring& role) {
    for (const auto& row : text.credentials)
        if (row[0] == kService + L":" + role + L":" + kUrl) return row;
    return std::vector<std::wstring>(tarrowctl::StatusColumns().size());
}

TEST_F(StatusTest, ScriptsAndTarrowctlSeeWhatIsHeldAndWhatIsRetried) {
    ChildProcess holder = StartHolder(), leaving = StartHolder();
    ASSERT_EQ(Register(holder.Id(), Credential(L"held")), 0u);
    ASSERT_EQ(Register(leaving.Id(), Credential(L"leaving")), 0u);
    leaving.Kill();
    NS_Utils::UniqueVariant snapshot;
    tarrowctl::StatusText text;
    ASSERT_TRUE(WaitUntil([&] { return ReadAsScript(snapshot, text) && Row(text, L"leaving").at(6) == L"retrying"; }));

    for (const auto& expected : {std::pair<std::wstring, std::wstring>{L"lease count", L"2"},
                                 {L"version", L"" TARROW_VERSION_TEXT},
                                 {L"agent reachable", L"yes"}})
        EXPECT_NE(std::find(text.service.begin(), text.service.end(), expected), text.service.end()) << expected.first;
    // Columns: credential, account, lease DN, expiry, holders, file, state, result, attempts, next, end.
    const std::vector<std::wstring> retrying = Row(text, L"leaving"), held = Row(text, L"held");
    EXPECT_EQ(retrying[4] + L"|" + retrying[6] + L"|" + retrying[7] + L"|" + retrying[8], L"|retrying|37|1");
    EXPECT_FALSE(retrying[9].empty());
    EXPECT_EQ(held[1] + L"|" + held[2] + L"|" + held[4] + L"|" + held[6],
              L"acct|cn=held|" + std::to_wstring(holder.Id()) + L" tarrow_testchild.exe|held");
    EXPECT_NE(held[5].find(L".dat"), std::wstring::npos);
    std::wstring texts;
    AllTexts(*snapshot.get(), texts);
    EXPECT_EQ(texts.find(L"mem-"), std::wstring::npos) << "a memory-only text in the status";

    std::string csv;
    ASSERT_EQ(RunCtl(L"status --csv", csv), 0u) << csv;
    EXPECT_EQ(
        csv.substr(0, csv.find_first_of("\r\n")),
        "credential,account,lease_dn,lease_expiry,holders,file,state,last_result,attempts,next_attempt,holders_end,"
        "checking_in_since");
    EXPECT_NE(csv.find("svc:leaving:https://corvin/auth,acct,cn=leaving,"), std::string::npos) << csv;
    EXPECT_NE(csv.find(",retrying,37,1,"), std::string::npos) << csv;

    ChildProcess odd = StartHolder();
    ASSERT_EQ(Register(odd.Id(), Credential(L"odd", L"a\"b\\c\td\u00e9\U0001F600")), 0u);
    std::string json;
    ASSERT_EQ(RunCtl(L"status --json", json), 0u) << json;
    JsonValue parsed;
    ASSERT_TRUE(StrictJson::Parse(json, parsed)) << json;
    const JsonValue* service = parsed.Find("service");
    const JsonValue* credentials = parsed.Find("credentials");
    ASSERT_TRUE(service && credentials && credentials->kind == JsonValue::Kind::kArray) << json;
    std::string names;
    for (const JsonValue& value : service->items) names.append(value.name).append(value.text.empty() ? "=? " : " ");
    EXPECT_EQ(names, "lease_count queued_work_items started version agent_reachable check_in_worker_running ");
    EXPECT_EQ(service->Find("lease_count")->text, "3");
    ASSERT_EQ(credentials->items.size(), 3u) << json;
    std::map<std::string, const JsonValue*> byLease;
    for (const JsonValue& credential : credentials->items) {
        std::string columns;
        for (const JsonValue& value : credential.items)
            columns.append(value.name).append(value.kind == JsonValue::Kind::kString ? "," : "=not a string,");
        EXPECT_EQ(columns, csv.substr(0, csv.find_first_of("\r\n")) + ",");
        if (const JsonValue* dn = credential.Find("lease_dn")) byLease[dn->text] = &credential;
    }
    ASSERT_TRUE(byLease.count("cn=odd") && byLease.count("cn=leaving")) << json;
    EXPECT_EQ(byLease["cn=odd"]->Find("account")->text, "a\"b\\c\td\xC3\xA9\xF0\x9F\x98\x80");
    EXPECT_EQ(byLease["cn=leaving"]->Find("state")->text + "|" + byLease["cn=leaving"]->Find("last_result")->text,
              "retrying|37");
    // Read again so that the clean-up below also finds the third credential's file.
    ASSERT_TRUE(ReadAsScript(snapshot, text));

    tarrow.reset();
    s_service->Stop();
    EXPECT_EQ(RunCtl(L"status", csv), 101u);
    // What the stopped service left for its next start would be checked in by the next suite's.
    wchar_t appData[MAX_PATH] = {};
    ::GetEnvironmentVariableW(L"appdata", appData, MAX_PATH);
    for (const auto& row : text.credentials)
        ::DeleteFileW((std::wstring(appData) + L"\\Kel\\Tarrow\\" + row.at(5)).c_str());
}

// Help needs no service: each spelling prints the commands and the exit codes and ends with 0,
// where anything unknown is a usage error.
TEST(TarrowCtlHelpTest, EverySpellingPrintsCommandsAndExitCodes) {
    for (const wchar_t* spelling : {L"help", L"--help", L"-h", L"/?"}) {
        std::string help;
        EXPECT_EQ(RunCtl(spelling, help), 0u) << help;
        for (const char* part : {"register", "release", "query", "status", "--json", "--version", "Exit codes",
                                 "100 bad arguments", "101 the service is not running"})
            EXPECT_NE(help.find(part), std::string::npos) << part;
    }
    std::string usage;
    EXPECT_EQ(RunCtl(L"--helpme", usage), 100u);
    EXPECT_NE(usage.find("tarrowctl help"), std::string::npos) << usage;
    EXPECT_EQ(RunCtl(L"status --csv --json", usage), 100u) << usage;
}

}  // namespace
}  // namespace testsupport
