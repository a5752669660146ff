#include "ui/KelResourceUtility.h"

#include "common/CriticalSection.h"
#include "common/Log.h"
#include "common/ModulePath.h"
#include "common/Registry.h"
#include "common/Settings.h"

#include <windows.h>

#include <atomic>
#include <iterator>

namespace {

struct MessageRow {
    const wchar_t* key;
    UINT id;
};

// The agent's whole table: its identifiers are shared with the agent's other programs, so rows
// this program never asks for stay in place.
constexpr MessageRow kMessageTable[] = {
    {L"DIALOG_TITLE_ROLE_SELECTION", 100},
    {L"DIALOG_TEXT_ROLE_SELECTION", 101},
    {L"ERROR_MSG_CICO_MGR_SUCCESS", 102},
    {L"ERROR_MSG_CICO_MGR_SCRIPT_HOST_RUNTIME_ERROR", 103},
    {L"ERROR_MSG_CICO_MGR_MIREL_ID_RETRIEVAL_FAILED", 104},
    {L"ERROR_MSG_CICO_MGR_REAUTH_PASSCODE_FAILED", 105},
    {L"ERROR_MSG_CICO_MGR_CORVIN_CRED_RETRIEVAL_FAILED", 106},
    {L"ERROR_MSG_CICO_MGR_AUTH_SVC_ID_NOT_FOUND", 107},
    {L"ERROR_MSG_CICO_MGR_CORVIN_SRV_CONNECTION_FAILED", 108},
    {L"ERROR_MSG_CICO_MGR_NETWORK_ERROR", 109},
    {L"ERROR_MSG_CICO_MGR_LOGON_CORVIN_FAILED", 110},
    {L"ERROR_MSG_CICO_MGR_CHECKIN_ALL_FAILED", 111},
    {L"ERROR_MSG_CICO_MGR_GET_ROLES_LIST_FAILED", 112},
    {L"ERROR_MSG_CICO_MGR_EMPTY_ROLES_LIST", 113},
    {L"ERROR_MSG_CICO_MGR_SHOW_ROLE_POPUP_FAILED", 114},
    {L"ERROR_MSG_CICO_MGR_CHECKOUT_FAILED", 115},
    {L"ERROR_MSG_CICO_MGR_LOGOFF_CORVIN_FAILED", 116},
    {L"ERROR_MSG_CICO_MGR_PRIV_USER_ID_NOT_FOUND", 117},
    {L"ERROR_MSG_CICO_MGR_CHECKIN_FAILED", 118},
    {L"ERROR_MSG_CICO_MGR_RESPONSE_MSG_PARSE_ERROR", 119},
    {L"ERROR_MSG_CICO_MGR_USER_CANCELLED_ROLE_POPUP", 120},
    {L"ERROR_MSG_CICO_MGR_PROPERTIES_CONTAINER_ERROR", 121},
    {L"ERROR_MSG_CICO_MGR_INVALID_CORVIN_SVC_URL", 122},
    {L"ERROR_MSG_CICO_MGR_INVALID_CORVIN_AUTH_SVC_ID", 123},
    {L"ERROR_MSG_CICO_MGR_CORVIN_URL_NOT_DEFINED_FOR_CUSTOMER", 124},
    {L"ERROR_MSG_UNKNOWN", 125},
    {L"IDD_DIALOG_EXPORT_PASSWORD_IDOK", 126},
    {L"IDD_DIALOG_EXPORT_PASSWORD_IDCANCEL", 127},
    {L"ERROR_MSG_NULL_PPROPMGR", 128},
    {L"ERROR_MSG_UNDEFINED_GLOBAL_PROPERTY_ID_MAP", 129},
    {L"ERROR_MSG_SSO_USER_ID_RETRIEVAL_FAILED", 130},
    {L"ERROR_MSG_NO_CORVIN_CREDENTIAL", 131},
    {L"ERROR_MSG_FUNCTION_FAILED", 132},
    {L"ERROR_MSG_FUNCTION_RETURN_EMPTY_STRING_WITH_DETAILS", 133},
    {L"ERROR_MSG_APPLICATION_DOES_NOT_EXIST_WITH_DETAILS", 134},
    {L"ERROR_MSG_NOT_PROCESSED_PCR", 135},
    {L"ERROR_MSG_PWD_CHANGE_ERROR", 136},
    {L"ERROR_MSG_TIMEOUT", 137},
    {L"ERROR_MSG_PWD_CHANGE_TIMEOUT", 138},
    {L"ERROR_MSG_CICO_CHECKOUT_FAILED_DETAILS", 139},
    {L"ERROR_MSG_CICO_CHECKIN_FAILED_DETAILS", 140},
    {L"ERROR_MGS_EMPTY_IAMAPCAUTHID", 141},
    {L"ERROR_MSG_REMOTE_CMD_NOT_ENOUGH_PARAMETERS", 142},
    {L"ERROR_MSG_REMOTE_CMD_INVALID_COMMAND", 143},
    {L"INFO_MSG_NO_PASSWORD_CHANGE", 144},
    {L"INFO_MSG_NO_PCR", 145},
    {L"LABEL_USAGE_WITH_COLON", 146},
    {L"LABEL_ERROR", 147},
    {L"ERROR_MSG_APC_MGR_SUCCESS", 148},
    {L"ERROR_MSG_APC_MGR_SCRIPT_HOST_RUNTIME_ERROR", 149},
    {L"ERROR_MSG_APC_MGR_PROPERTIES_CONTAINER_ERROR", 150},
    {L"ERROR_MSG_APC_MGR_NETWORK_ERROR", 151},
    {L"ERROR_MSG_APC_MGR_RESPONSE_MSG_PARSE_ERROR", 152},
    {L"ERROR_MSG_APC_MGR_CORVIN_CRED_RETRIEVAL_FAILED", 153},
    {L"ERROR_MSG_APC_MGR_CORVIN_SRV_CONNECTION_FAILED", 154},
    {L"ERROR_MSG_APC_MGR_LOGON_CORVIN_FAILED", 155},
    {L"ERROR_MSG_APC_MGR_LOGOFF_CORVIN_FAILED", 156},
    {L"ERROR_MSG_APC_MGR_GLOBAL_PROP_ID_NOT_DEFINED", 157},
    {L"ERROR_MSG_APC_MGR_GET_PWD_CHG_SVRS_FAILED", 158},
    {L"ERROR_MSG_APC_MGR_INVALID_APPLICATION_FROM_APP_MAP", 159},
    {L"ERROR_MSG_APC_MGR_GET_SVR_PCR_ITEMS_FAILED", 160},
    {L"ERROR_MSG_APC_MGR_GET_USR_ID_PWD_FAILED", 161},
    {L"ERROR_MSG_APC_MGR_COMPLETE_PWD_CHG_FAILED", 162},
    {L"ERROR_MSG_APC_MGR_APPLICATION_FILE_NOT_FOUND", 163},
    {L"ERROR_MSG_APC_MGR_APPLICATION_EXECUTION_ERROR", 164},
    {L"ERROR_MSG_APC_MGR_PCR_ITEM_TIMEOUT", 165},
    {L"ERROR_MSG_APC_MGR_REGISTRY_READ_FAILED", 166},
    {L"ERROR_MSG_APC_MGR_INVALID_CORVIN_SVC_URL", 167},
    {L"ERROR_MSG_APC_MGR_HOP_SHARED_ID_CHECKOUT_FAILED", 168},
    {L"ERROR_MSG_APC_MGR_HOP_SHARED_ID_CHECKIN_FAILED", 169},
    {L"ERROR_MSG_APC_MGR_NONLOGGABLE_SHARED_ID_CHECKOUT_FAILED", 170},
    {L"ERROR_MSG_APC_MGR_NONLOGGABLE_SHARED_ID_CHECKIN_FAILED", 171},
    {L"ERROR_MSG_CICO_MGR_CORVIN_URL_NOT_DEFINED_FOR_CUSTOMER2", 172},
    {L"ERROR_MSG_CORVIN_CONNECTION_FAIL2", 173},
    {L"ERROR_MSG_CICO_MGR_INVALID_CORVIN_AUTH_SVC_ID2", 174},
    {L"ERROR_MSG_CICO_MGR_NO_CREDENTIAL_AVAILABLE", 175},
    {L"ERROR_MSG_CICO_MGR_APP_ABORT_CREDENTIAL_CHECKIN", 176},
    {L"ERROR_MSG_CICO_MGR_CREDENTIAL_CHECKIN", 177},
    {L"ERROR_MSG_CICO_MGR_LEASE_EXPIRE", 178},
    {L"ERROR_MSG_CICO_MGR_LEASE_EXTENSION", 179},
    {L"INFO_MSG_CICO_MGR_SHARED_ACCESS_REQUEST", 180},
    {L"DIALOG_TEXT_ROLE_SELECTION2", 181},
    {L"DIALOG_TITLE_CICO_MGR_CHECKIN_FAILED", 182},
    {L"DIALOG_TITLE_CICO_MGR_CHECKOUT_FAILED", 183},
    {L"DIALOG_TITLE_CICO_MGR_CHECKIN", 184},
    {L"DIALOG_TITLE_CICO_MGR_CHECKOUT", 185},
    {L"DIALOG_TITLE_ROLE_SELECTION2", 186},
    {L"POLICY_GROUP_CORVIN", 187},
    {L"POLICY_CORVIN_AUTH_SVC_URL", 188},
    {L"POLICY_CORVIN_AUTH_SVC_ID", 189},
    {L"CONFIG_TOOL_THUMBNAIL", 190},
    {L"CONFIG_TOOL_SHOW_THUMBNAIL", 191},
    {L"CONFIG_TOOL_ENABLE_LIVE_TRACE", 192},
    {L"CONFIG_TOOL_CLEAR_TRACE", 193},
    {L"DIALOG_ENTER_CORVIN_CREDENTIAL", 194},
    {L"DIALOG_TITLE_LEASE_EXPIRY", 195},
    {L"DIALOG_CONTENT_LEASE_EXPIRY", 196},
    {L"CONFIG_TOOL_NAVIGATOR", 197},
    {L"CONFIG_TOOL_CLEAR_LIVE_TRACE", 198},
    {L"KEL_USE_SHARED_CREDENTIAL", 199},
    {L"KEL_FOR_KEL_APPLICATION", 200},
    {L"KEL_CURRENT_CREDENTIAL_ABOUT_TO_EXPIRE", 201},
    {L"KEL_CHECKOUT_REUSE_OPTION", 202},
    {L"KEL_CHECKOUT_REUSE_BUTTON", 203},
    {L"DIALOG_LEASE_EXPIRY_TIME_REMAIN", 204},
    {L"ERROR_MSG_CICO_MGR_PSR_SERVICE_DOWN", 205},
    {L"ERROR_MSG_CICO_MGR_PSR_SERVER_UNREACHABLE", 206},
    {L"ERROR_MSG_CICO_MGR_PSR_ERROR", 207},
    {L"ERROR_MSG_CICO_MGR_PSR_REJECT", 208},
    {L"DIALOG_TITLE_CICO_MGR_CHECKIN_NOUN", 209},
    {L"DIALOG_TITLE_CICO_MGR_CHECKOUT_NOUN", 210},
    {L"LEASE_EXPIRY_PROCESS", 211},
    {L"LEASE_EXPIRY_TIME", 212},
    {L"BUTTON_OK", 213},
    {L"BUTTON_CANCEL", 214},
    {L"LABEL_REQUESTED_CHECKOUT_DURATION", 215},
    {L"LABEL_JUSTIFICATION", 216},
    {L"ERROR_MSG_CICO_MGR_CORVIN_CRED_INCOMPLETE", 217},
    {L"ERROR_MSG_UNKNOWN_WITHOUT_ERROR_CODE", 218},
    {L"ERROR_MSG_CICO_MGR_CORVIN_PASSWORD_EXPIRED", 219},
    {L"LABEL_ENTER_CORVIN_CRED", 220},
    {L"LABEL_USER_NAME", 221},
    {L"LABEL_PASSWORD", 222},
};
static_assert(std::size(kMessageTable) == 123);

NS_Utils::CriticalSection& LanguageLock() {
    static NS_Utils::CriticalSection lock;
    return lock;
}

NS_Utils::CriticalSection& LibraryLock() {
    static NS_Utils::CriticalSection lock;
    return lock;
}

// Loaded once and never unloaded: strings are read from it for the life of the process.
std::atomic<HMODULE> g_resourceLibrary{nullptr};

// A missing library is tried again at the next look-up: the agent may be installed meanwhile.
HMODULE ResourceLibrary() {
    HMODULE module = g_resourceLibrary.load();
    if (module) return module;
    NS_Utils::CritSecGuard guard(LibraryLock());
    module = g_resourceLibrary.load();
    if (!module) {
        module = ::LoadLibraryW(KelResourceUtility::ResourceLibraryPath().c_str());
        g_resourceLibrary.store(module);
    }
    return module;
}

}  // namespace

std::wstring KelResourceUtility::GetInstalledLanguage() {
    NS_Utils::CritSecGuard guard(LanguageLock());
    const std::optional<std::wstring> language = NS_Settings::ReadText(NS_Settings::kInstalledLang);
    return language && !language->empty() ? *language : NS_Settings::kInstalledLang.defaultText;
}

std::wstring KelResourceUtility::ResourceLibraryPath() {
    return NS_Utils::AgentInstallFolder() + L"KelResource" + L"_" + GetInstalledLanguage() + L".dll";
}

int KelResourceUtility::GetKelMessage(const std::wstring& key, std::wstring& text) {
    NS_Log::Log(4, L"[KelResourceUtility::GetKelMessage]\t started");
    HMODULE module = ResourceLibrary();
    for (const MessageRow& row : kMessageTable) {
        if (!module || key != row.key) continue;
        wchar_t buffer[1024] = {};
        if (::LoadStringW(module, row.id, buffer, 1024) > 0) text = buffer;
    }
    if (text.empty()) NS_Log::Log(2, L"[KelResourceUtility::GetKelMessage]\tFailed to get string for:" + key);
    return 0;
}
