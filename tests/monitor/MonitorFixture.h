#pragma once
// A monitor with a credential folder of its own, credentials to register, and holder processes.

#include "monitor/SharedIdMonitor.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>


namespace testsupport {

inline CSharedId Credential(const std::wstring& role, const std::wstring& account = L"acct") {
    CSharedId r;
    r.SetCorvinAuthSvcUrl(L"https://corvin/auth");
    r.SetCorvinAuthSrvId(L"srv-1");
    r.SetAuthSvcId(L"svc");
    r.SetSharedId(account);
    r.SetRoleId(role);
    r.SetLeaseDN(L"cn=" + role + L"," + account);
    return r;
}

// A process that holds credentials until it is ended.
inline ChildProcess StartHolder() { return ChildProcess::StartHelper(L"--sleep 600000"); }

class MonitorTest : public ::testing::Test {
protected:
    void SetUp() override {
        appData = MakeTempFolder(L"monitor");
        ::SetEnvironmentVariableW(L"appdata", appData.c_str());
        folder = appData + L"\\Kel\\Tarrow\\";
        monitor = SharedIdMonitor::Create();
    }
    void TearDown() override { monitor.reset(); }

    size_t FileCount() const { return ListFiles(folder, L"*.dat").size(); }
    // Every credential released and checked in, and nothing left in the maps.
    bool Settled() const {
        return monitor->LeaseCount() == 0 && monitor->ProcessCount() == 0 && monitor->SignatureEntryCount() == 0 &&
               FileCount() == 0;
    }
    DWORD Register(const CSharedId& credential, DWORD pid) { return monitor->RegisterSharedCreds(credential, &pid); }
    DWORD Unregister(const CSharedId& credential, DWORD pid) {
        return monitor->UnregisterSharedCreds(credential, &pid);
    }

    std::wstring appData;
    std::wstring folder;
    std::shared_ptr<SharedIdMonitor> monitor;
};

}  // namespace testsupport
