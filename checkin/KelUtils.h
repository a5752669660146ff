#pragma once
// Small look-ups in the agent's own COM objects.

#include <string>

class CKelUtils {
public:
    // The logged-on user's single-sign-on identity from the agent's script-support object;
    // empty (and logged) when the object cannot be created or does not answer.
    static std::wstring ObtainMirelIdFromBriskScriptSupport();
};
