#pragma once
// The holder processes of a credential, kept beside its file ("<name>.holders" beside
// "<name>.dat"), so that a restart of the service finds the processes that still use the
// credential and holds it for them instead of checking it in under them. A process is known by
// its id and its creation time: an id alone may have been given to another process since.
//
// The list is one ASCII line per process, "<pid> <creation time as a FILETIME count>". It is
// replaced as a whole (written beside, then renamed over the old one), so a crash of the service
// leaves the old list or the new one, never a mix. It is not flushed: it only matters while the
// machine keeps running (after a power cut no holder runs), and the system cache outlives a crash
// of the service. A list that a power cut left empty, short or garbled names no running holder.

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
// The list, or nothing when there is none (a file written before lists were kept) or it cannot
// be read.
std::optional<std::vector<HolderProcess>> ReadHolderList(const std::wstring& credentialPath);

// The creation time of an open process; 0 when it cannot be asked.
ULONGLONG ProcessCreationTime(HANDLE process);
// Whether the process runs now and is the one that was listed (same id, same creation time).
bool IsStillRunning(const HolderProcess& holder);

}  // namespace NS_SHAREDID_UTILS
