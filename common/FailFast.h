#pragma once
// For rules whose breach would corrupt memory a moment later: the reason goes to the log and
// the process ends at once, rather than running on into a use after free.

#include "common/Log.h"

#include <cstdlib>

namespace NS_Utils {

inline void FailFastUnless(bool rule, const wchar_t* reason) {
    if (rule) return;
    NS_Log::Log(1, reason);
    std::abort();
}

}  // namespace NS_Utils
