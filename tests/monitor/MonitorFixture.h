#pragma once
// A monitor with a credential folder of its own, holder processes to register credentials for, and
// the stand-in agent to check them in: without an agent a credential is kept on the disk.

#include "monitor/SharedIdMonitor.h"
#include "testing/agent/StandInControl.h"
#include "tests/support/Credential.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

namespace testsupport {

class MonitorTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Installed once: the runtime library stays loaded in this process and cannot be replaced.
        static const bool installed = standin::Install(L"C:\\TarrowTestInstall\\");
        ASSERT_TRUE(installed && standin::Register());
        std::wstring appData = MakeTempFolder(L"monitor");
        ::SetEnvironmentVariableW(L"appdata", appData.c_str());
        folder = appData + L"\\Kel\\Tarrow\\";
        monitor = SharedIdMonitor::Create();
    }
    // As the service does: the worker ends first, so the last reference drops here and not on it.
    void TearDown() override {
        if (monitor) {
            EXPECT_TRUE(monitor->Shutdown());
        }
        monitor.reset();
    }

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
    bool Registered(const CSharedId& credential, CSharedId* stored = nullptr) {
        CSharedId ignored;
        return monitor->IsCredsRegistered(credential, stored ? stored : &ignored);
    }

    std::wstring folder;
    std::shared_ptr<SharedIdMonitor> monitor;
};

}  // namespace testsupport
