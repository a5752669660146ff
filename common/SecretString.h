#pragma once
// A text that must not outlive its use in memory (memory-only texts of a credential, the
// identity-server password): its characters are wiped when it is destroyed, overwritten or
// moved from, so a later heap dump or a reused block does not show them.

#include <windows.h>

#include <string>
#include <utility>

namespace NS_Utils {

class SecretString {
public:
    SecretString() = default;
    explicit SecretString(std::wstring text) : m_text(std::move(text)) {}
    SecretString(const SecretString& other) : m_text(other.m_text) {}
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
    // Wipes the whole buffer, not just the characters in use: a shorter text written over a
    // longer one leaves the tail of the old one behind.
    void Wipe() noexcept {
        if (m_text.capacity() != 0) ::SecureZeroMemory(m_text.data(), m_text.capacity() * sizeof(wchar_t));
        m_text.clear();
    }

private:
    std::wstring m_text;
};

}  // namespace NS_Utils
