#pragma once
// The credential file: eleven UTF-16LE items separated by line feeds, no byte-order mark.
// Failures append a step code and the system error to the caller's error list:
// 1 opening, writing or an empty file; 2 reading; 4 a record not fit to be written.

#include "sharedid/SharedId.h"

#include <list>
#include <string>

namespace NS_SHAREDID_UTILS {

inline constexpr DWORD kStepFile = 1;
inline constexpr DWORD kStepRead = 2;
inline constexpr DWORD kStepRecord = 4;

// With `keepOpen`, the written file stays open through it (read and write shared, delete not).
// The text is on the disk when this returns true.
[[nodiscard]] bool writeSharedIdToFile(const CSharedId& record, const std::wstring& path, std::list<DWORD>& errors,
                                       NS_Utils::UniqueHandle* keepOpen = nullptr);
// The two halves of the write: a new empty file (never an existing one), opened for reading,
// writing and deletion, read and write shared; then the record's text written through it and
// flushed to the disk.
NS_Utils::UniqueHandle CreateSharedIdFile(const std::wstring& path, std::list<DWORD>& errors);
[[nodiscard]] bool WriteSharedIdToHandle(const CSharedId& record, HANDLE file, std::list<DWORD>& errors);
// Marks a file opened with deletion access for deletion; it goes when its last handle closes.
[[nodiscard]] bool DeleteThroughHandle(HANDLE file);

// The first stored field whose text the file cannot give back (a line feed or a zero character,
// or 512 characters or more among the first nine items), by name; null when every one fits.
const wchar_t* UnfitStoredField(const CSharedId& record);
[[nodiscard]] bool readSharedIdFromFile(CSharedId& record, const std::wstring& path, std::list<DWORD>& errors);
// The same from a file already open for reading, from its current position (the start).
[[nodiscard]] bool readSharedIdFromHandle(CSharedId& record, HANDLE file, std::list<DWORD>& errors);

// The file's text, without I/O.
std::wstring FormatSharedIdText(const CSharedId& record);
// Fills the stored fields from a file's text (up to its first zero); false when one of the
// first nine lines is missing or 512 characters or longer.
[[nodiscard]] bool ParseSharedIdText(const std::wstring& text, CSharedId& record);

}  // namespace NS_SHAREDID_UTILS
