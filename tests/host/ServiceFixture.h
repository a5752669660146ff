#pragma once
// The real Tarrow.exe, registered for the current user and started in this test's prefix, a
// connection to it from this process through the running object table, and its three calls.

#include "common/ComHandles.h"
#include "tests/support/Credential.h"
#include "tests/support/ServiceProcess.h"
#include "tests/support/TestSupport.h"
#include "tools/TarrowClient.h"

#include <gtest/gtest.h>

#include <array>

namespace testsupport {

// Runs Tarrow.exe with `arguments` to its end; its exit code.
inline DWORD RunTarrow(const std::wstring& arguments) {
    ChildProcess run = ChildProcess::Start(L"Tarrow.exe", arguments);
    if (!run.Valid() || run.Wait(60000) != WAIT_OBJECT_0) return 0xFFFFFFFF;
    return run.ExitCode();
}

// One service for a whole suite; each test gets its own apartment and proxy.
class ServiceTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(RunTarrow(L"/RegServerPerUser"), 0u);
        s_service = new ServiceProcess();
        ASSERT_TRUE(s_service->Start());
    }
    static void TearDownTestSuite() {
        delete s_service;
        s_service = nullptr;
    }
    void SetUp() override {
        ASSERT_TRUE(SUCCEEDED(m_com.Result()));
        ASSERT_TRUE(SUCCEEDED(tarrowctl::ConnectToTarrow(tarrow)));
    }

    // The texts of a registration in the order of the call's arguments.
    using Text = const std::wstring& (CSharedId::*)() const;
    static constexpr Text kTexts[12] = {
        &CSharedId::GetCorvinAuthSvcUrl, &CSharedId::GetCorvinAuthSrvId, &CSharedId::GetAuxText1,
        &CSharedId::GetAuthSvcId,        &CSharedId::GetSharedId,        &CSharedId::GetAuxText2,
        &CSharedId::GetRoleId,           &CSharedId::GetAuxText4,        &CSharedId::GetLeaseDN,
        &CSharedId::GetLeaseExpiry,      &CSharedId::GetAuxText3,        &CSharedId::GetAuxText6};
    // The service's answers; each call itself must succeed.
    DWORD Register(DWORD pid, const CSharedId& c, VARIANT_BOOL flag = VARIANT_TRUE) {
        std::array<NS_Utils::UniqueBstr, 12> b;
        for (size_t i = 0; i < 12; ++i) b[i] = NS_Utils::UniqueBstr((c.*kTexts[i])());
        DWORD result = 99;
        EXPECT_EQ(tarrow->RegisterSharedId(pid, b[0].get(), b[1].get(), b[2].get(), b[3].get(), b[4].get(), b[5].get(),
                                           b[6].get(), b[7].get(), b[8].get(), b[9].get(), b[10].get(), flag,
                                           b[11].get(), &result),
                  S_OK);
        return result;
    }
    DWORD Release(DWORD pid, const CSharedId& key) {
        NS_Utils::UniqueBstr url(key.GetCorvinAuthSvcUrl()), svc(key.GetAuthSvcId()), role(key.GetRoleId());
        DWORD result = 99;
        EXPECT_EQ(tarrow->ReleaseSharedId(pid, url.get(), svc.get(), role.get(), &result), S_OK);
        return result;
    }
    HRESULT Query(DWORD pid, const CSharedId& key, bool ownOnly, NS_Utils::UniqueBstr& out) {
        NS_Utils::UniqueBstr url(key.GetCorvinAuthSvcUrl()), svc(key.GetAuthSvcId()), role(key.GetRoleId());
        out.reset();
        return tarrow->GetRegisteredSharedId(pid, url.get(), svc.get(), role.get(),
                                             ownOnly ? VARIANT_TRUE : VARIANT_FALSE, out.put());
    }
    bool Found(const CSharedId& key) {
        NS_Utils::UniqueBstr out;
        return Query(::GetCurrentProcessId(), key, false, out) == S_OK;
    }

    static inline ServiceProcess* s_service = nullptr;
    NS_Utils::ComApartment m_com;
    NS_Utils::ComPtr<ITarrow> tarrow;
};

}  // namespace testsupport
