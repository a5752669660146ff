#pragma once
// The Application event log's source "Tarrow", pointing at the message library beside the
// executable. Only a registration for all users writes it: the key lies under the machine's
// services, which a user without administrator rights cannot write. Only that one key is written
// and removed; the other sources of the Application log (the agent's among them) are not touched.

#include <windows.h>

namespace NS_Registration {

[[nodiscard]] HRESULT RegisterEventSource();
// Removing a source that is not there succeeds.
[[nodiscard]] HRESULT UnregisterEventSource();

}  // namespace NS_Registration
