#pragma once
// The mark of a live instance on a credential file it claims: a named mutex that exists exactly
// while some instance keeps the file open for its credential. Another instance that cannot open
// the file so tells a live sibling (whose credential it must leave alone) from a program that
// has the file open for a while (a virus scanner, a backup), after which the file is taken up.
// The name is machine-wide, so instances of the same user in other sessions see it too; it is
// made from the file's full path, which is the user's own.

#include "common/WinHandles.h"

#include <string>

namespace NS_SHAREDID_UTILS {

// The mark for `path`, held until the handle closes; none when it cannot be made (the file is
// then tried again by other instances, never taken from under this one: it stays open).
NS_Utils::UniqueHandle MarkClaim(const std::wstring& path);
// Whether some live instance marks `path` now.
bool IsClaimMarked(const std::wstring& path);

}  // namespace NS_SHAREDID_UTILS
