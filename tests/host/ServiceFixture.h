#pragma once
// The real Tarrow.exe, registered for the current user and started in this test's prefix, and
// a connection to it from this process through the running object table.

#include "common/ComHandles.h"
#include "tests/support/TestSupport.h"
#include "tools/TarrowClient.h"

#include <gtest/gtest.h>

namespace testsupport {

// Runs Tarrow.exe with `arguments` to its end; its exit code.
inline DWORD RunTarrow(const std::wstring& arguments) {
    ChildProcess run = ChildProcess::Start(L"Tarrow.exe", arguments);
    if (!run.Valid() || run.Wait(60000) != WAIT_OBJECT_0) return 0xFFFFFFFF;
    return run.ExitCode();
}

class Service {
public:
    // Starts the service and waits until its object can be reached.
    bool Start() {
        m_process = ChildProcess::Start(L"Tarrow.exe", L"");
        if (!m_process.Valid()) return false;
        NS_Utils::ComApartment com;
        for (ULONGLONG deadline = ::GetTickCount64() + 60000; ::GetTickCount64() < deadline; ::Sleep(20)) {
            NS_Utils::ComPtr<ITarrow> tarrow;
            if (SUCCEEDED(tarrowctl::ConnectToTarrow(tarrow))) return true;
            if (m_process.Wait(0) == WAIT_OBJECT_0) return false;
        }
        return false;
    }
    // Ends the message loop as the end of the session would; the service revokes its object.
    DWORD Stop() {
        if (!m_process.Valid()) return 0;
        ::PostThreadMessageW(m_process.MainThreadId(), WM_QUIT, 0, 0);
        if (m_process.Wait(30000) != WAIT_OBJECT_0) m_process.Kill();
        DWORD code = m_process.ExitCode();
        m_process = ChildProcess();
        return code;
    }
    bool Running() const { return m_process.Valid() && m_process.Wait(0) == WAIT_TIMEOUT; }
    ~Service() { Stop(); }

private:
    ChildProcess m_process;
};

// One service for a whole suite; each test gets its own apartment and proxy.
class ServiceTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(RunTarrow(L"/RegServerPerUser"), 0u);
        s_service = new Service();
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

    static inline Service* s_service = nullptr;
    NS_Utils::ComApartment m_com;
    NS_Utils::ComPtr<ITarrow> tarrow;
};

}  // namespace testsupport
