#pragma once
// The holder processes of a credential, kept beside its file ("<name>.holders" beside
// "<name>.dat"), so that a restart of the service finds the processes that still use the
// credential and holds it for them instead of checking it in under them. A process is known by
// its id and its creation time: an id alone may have been given to another process since.
//
// The list is one ASCII line per process, "<pid> <creation time as a FILETIME count>", followed
// by blank padding when it shrank. The instance that answers for the credential keeps it open and
// rewrites it in place with one write that covers the whole old text: a write within one page is
// never torn by the end of the writing process, so a crash of the service leaves the old list or
// the new one, never a mix. A list that outgrows a page is replaced as a whole instead (written
// beside, then renamed over the old one). It is not flushed: it only matters while the machine
// keeps running (after a power cut no holder runs), and the system cache outlives a crash of the
// service. A list that a power cut left empty, short or garbled names no running holder.

#include "common/WinHandles.h"

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

struct HolderProcess {
    DWORD pid = 0;
    ULONGLONG created = 0;

    bool operator==(const HolderProcess&) const = default;
};

namespace NS_SHAREDID_UTILS {

// The holder list's path for a credential file's path.
std::wstring HolderListPath(const std::wstring& credentialPath);
// The other way: the credential file's path for a holder list's path (or for the copy that is
// being written); empty when the path names no holder list.
std::wstring CredentialPathOfList(const std::wstring& listPath);
// Replaces the list; in the system cache (not flushed) when this returns true.
[[nodiscard]] bool WriteHolderList(const std::wstring& credentialPath, const std::vector<HolderProcess>& holders);
// Makes the list of a credential file that is being written (nothing is read from a file whose
// record is still empty), and keeps it open for rewrites in place; `bytes` is its size.
NS_Utils::UniqueHandle CreateHolderList(const std::wstring& credentialPath, const std::vector<HolderProcess>& holders,
                                        DWORD& bytes);
// The list opened for rewrites in place, made empty when there is none; `bytes` is its size.
NS_Utils::UniqueHandle OpenHolderList(const std::wstring& credentialPath, DWORD& bytes);
// Rewrites an open list in place with one write over its `bytes` (then the new size); false,
// with nothing written, when the new list would not fit in one page.
[[nodiscard]] bool RewriteHolderList(HANDLE list, const std::vector<HolderProcess>& holders, DWORD& bytes);
// The list, or nothing when there is none (a file written before lists were kept) or it cannot
// be read.
std::optional<std::vector<HolderProcess>> ReadHolderList(const std::wstring& credentialPath);

// The creation time of an open process; 0 when it cannot be asked.
ULONGLONG ProcessCreationTime(HANDLE process);
// Whether the process runs now and is the one that was listed (same id, same creation time).
bool IsStillRunning(const HolderProcess& holder);

}  // namespace NS_SHAREDID_UTILS
