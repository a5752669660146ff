#pragma once
// The one way a broken rule ends the process: for rules whose breach would corrupt memory a
// moment later. The rule's name, file and line go to the log, then a fail-fast exception ends
// the process at once, which Windows Error Reporting records with the breaking thread's context,
// rather than running on into a use after free. Checked in every build.

#include <source_location>

namespace NS_Utils {

[[noreturn]] void FailFast(const wchar_t* rule, const std::source_location& where);

inline void FailFastUnless(bool holds, const wchar_t* rule,
                           const std::source_location& where = std::source_location::current()) {
    if (!holds) FailFast(rule, where);
}

}  // namespace NS_Utils
