#pragma once
// Finds the running service's object in the running object table.

#include "common/ComHandles.h"

#include "Tarrow_h.h"

namespace tarrowctl {

// S_OK and the object, or the failure (MK_E_UNAVAILABLE when no service runs).
HRESULT ConnectToTarrow(NS_Utils::ComPtr<ITarrow>& tarrow);

}  // namespace tarrowctl
