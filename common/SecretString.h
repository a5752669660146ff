#pragma once
// A text that must not outlive its use in memory (memory-only texts of a credential, the
// identity-server password): its characters are wiped when it is destroyed, overwritten or
// moved from, so a later heap dump or a reused block does not show them.

#include <windows.h>

#include <string>
#include <utility>

namespace NS_Utils {

// Zeroes every character the buffer can hold, not only the current ones: a shorter text assigned
// earlier may have left the tail of a longer one behind. Leaves `text` empty.
inline void WipeString(std::wstring& text) noexcept {
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

class SecretString {
public:
    SecretString() = default;
    // The parameter is wiped too: a short text moved out of it stays in its inline buffer.
    explicit SecretString(std::wstring text) : m_text(std::move(text)) { WipeString(text); }
    SecretString(const SecretString& other) = default;
    SecretString(SecretString&& other) noexcept : m_text(std::move(other.m_text)) { other.Wipe(); }
    SecretString& operator=(const SecretString& other) {
        if (this != &other) {
            Wipe();
            m_text = other.m_text;
        }
        return *this;
    }
    SecretString& operator=(SecretString&& other) noexcept {
        if (this != &other) {
            Wipe();
            m_text = std::move(other.m_text);
            other.Wipe();
        }
        return *this;
    }
    ~SecretString() { Wipe(); }

    const std::wstring& get() const noexcept { return m_text; }
    bool empty() const noexcept { return m_text.empty(); }
    void Wipe() noexcept { WipeString(m_text); }

private:
    std::wstring m_text;
};

}  // namespace NS_Utils
