// The order in which a setting is looked up: the machine's policy, the user's policy (for the
// rows that allow one), the service's own key, the default; a value of the wrong type is passed
// over, and removing the policies brings the own value back untouched.

#include "common/LogSettings.h"
#include "common/Registry.h"
#include "common/Settings.h"

#include <gtest/gtest.h>

namespace {

using NS_Settings::ReadNumber;

TEST(SettingsTest, PoliciesComeFirstMachineThenUserAndLeaveNothingWhenRemoved) {
    const NS_Settings::Setting& grace = NS_Settings::kWaitingTimeToKillProcess;
    const NS_Settings::Setting& retry = NS_Settings::kFreeSharedIdWaitTime;
    ASSERT_TRUE(NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, grace.key, grace.valueName, 120));
    EXPECT_EQ(ReadNumber(grace), 120);

    ASSERT_TRUE(NS_Utils::WriteRegistryDword(HKEY_CURRENT_USER, grace.policyKey, grace.valueName, 30));
    EXPECT_EQ(ReadNumber(grace), 30) << "the user's policy over the own key";
    ASSERT_TRUE(NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, grace.policyKey, grace.valueName, 60));
    EXPECT_EQ(ReadNumber(grace), 60) << "the machine's policy over the user's";
    ASSERT_TRUE(NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, grace.policyKey, grace.valueName, L"5"));
    EXPECT_EQ(ReadNumber(grace), 30) << "a text where a number belongs is passed over";

    ASSERT_TRUE(NS_Utils::WriteRegistryDword(HKEY_CURRENT_USER, retry.policyKey, retry.valueName, 1));
    EXPECT_EQ(NS_Settings::NumberOrDefault(retry), 10000) << "a machine-only setting ignores the user's policy";
    ASSERT_TRUE(NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, retry.policyKey, retry.valueName, 2000));
    EXPECT_EQ(NS_Settings::NumberOrDefault(retry), 2000);

    const NS_Settings::Setting& language = NS_Settings::kInstalledLang;
    ASSERT_TRUE(NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, language.key, language.valueName, L"fr-fr"));
    ASSERT_TRUE(NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, language.policyKey, language.valueName, L"de-de"));
    EXPECT_EQ(NS_Settings::ReadText(language), L"de-de");

    // The log's reader opens the keys once and reads all its values through them.
    ASSERT_TRUE(NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Settings::kLogLevel.key, L"LogLevel", 1));
    ASSERT_TRUE(NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Settings::kLogLevel.policyKey, L"LogLevel", 3));
    EXPECT_EQ(NS_Log::ReadLogSettings().level, 3u);

    for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER})
        ASSERT_TRUE(NS_Utils::DeleteRegistryKey(root, L"SOFTWARE\\Policies\\Orvane"));
    EXPECT_EQ(ReadNumber(grace), 120);
    EXPECT_EQ(NS_Settings::NumberOrDefault(retry), 10000);
    EXPECT_EQ(NS_Settings::ReadText(language), L"fr-fr");
    EXPECT_EQ(NS_Log::ReadLogSettings().level, 1u);
    NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, grace.key, grace.valueName);
    NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, language.key, language.valueName);
    NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Settings::kLogLevel.key, L"LogLevel");
}

}  // namespace
