#pragma once
// Which identity-server authentication service the user's wallet keeps the account under: the
// agent's central policy, or a local value where an administrator has switched local settings on.

#include "checkin/AgentInterfaces.h"

#include <string>

class CCorvinUrlResolver {
public:
    // Clears `authSvcId`, then fills it from the policy or, when local settings are on, from
    // the registry; the choice is made anew on every call. 0 on success, non-zero on failure
    // (an empty id is a failure). `runtime` may be null: only the policy needs it.
    [[nodiscard]] static int ResolveAuthSvcId(IKelStateEngineRuntime* runtime, std::wstring& authSvcId);

    // "UseLocalKelSettings" is exactly 1; any other value, or none, means central policy.
    static bool IsUseLocalKelSettingsEnabled();
    // The first string of the policy "pid_kel_corvin_auth_svc_id"; 0, or 1 when the provider is
    // missing or the policy is not an array of strings whose first one is non-empty.
    [[nodiscard]] static int GetKelSystemPolicy(IKelStateEngineRuntime* runtime, std::wstring& value);
    // "AUTH_SVC" from the settings key; the registry's result (ERROR_SUCCESS is 0).
    [[nodiscard]] static LSTATUS GetKelStringValueFromRegistry(std::wstring& value);
};
