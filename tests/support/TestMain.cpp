// Every test program starts here. The prefix is the test's own, so the agent's installation
// folder is pointed into it: logs written while testing stay inside the prefix.

#include "common/Registry.h"
#include "common/Settings.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    ::CreateDirectoryW(L"C:\\TarrowTestInstall", nullptr);
    NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, NS_Settings::kProgramDir.key, NS_Settings::kProgramDir.valueName,
                                  L"C:\\TarrowTestInstall");
    // Every line, so that tests can look for the lines that explain an outcome.
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kLogging, L"LogLevel", 4);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
