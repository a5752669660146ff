#pragma once
// Wiping of texts that hold the identity-server password: a freed or reused buffer must not
// keep it for a memory dump to find.

#include <windows.h>

#include <string>

namespace NS_Utils {

// Zeroes every character the buffer can hold, not only the current ones: a shorter text assigned
// earlier may have left the tail of a longer one behind. Leaves `text` empty.
inline void WipeString(std::wstring& text) {
    text.resize(text.capacity());  // within capacity: no reallocation, no copy left elsewhere
    ::SecureZeroMemory(text.data(), text.size() * sizeof(wchar_t));
    text.clear();
}

// Replaces `target` with `source` and wipes both the old value and `source`. Copies rather than
// moves: a moved short text leaves its characters in the source's inline buffer.
inline void ReplaceSecret(std::wstring& target, std::wstring& source) {
    WipeString(target);
    target = source;
    WipeString(source);
}

}  // namespace NS_Utils
