#pragma once
// Small look-ups in the agent's own COM objects.

#include "checkin/AgentInterfaces.h"

#include <string>

class CKelUtils {
public:
    // The logged-on user's single-sign-on identity from the agent's script-support object;
    // empty (and logged) when the object cannot be created or does not answer.
    static std::wstring ObtainMirelIdFromBriskScriptSupport();

    // The identity-server account that the user's wallet keeps for `authSvcId`. Both outputs are
    // emptied first and stay empty when any wallet step fails (each failure is logged). The two
    // work bags it needs are created when missing and left in place for the next call.
    static void RetrieveCorvinCredentials(IKelStateEngineRuntime* runtime, const std::wstring& authSvcId,
                                          const VARIANT& scope, std::wstring& user, std::wstring& password);
};
