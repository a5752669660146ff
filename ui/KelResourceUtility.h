#pragma once
// Texts of the agent's message library, looked up by the agent's message keys. The library is
// the agent's, installed beside it in the user's language; this program ships no texts.

#include <string>

class KelResourceUtility {
public:
    // Fills `text` with the text for `key`, or leaves it empty when the library or the key is
    // missing; always 0, so that a window without texts still opens.
    static int GetKelMessage(const std::wstring& key, std::wstring& text);
    // "InstalledLang" of the agent's configuration, "en-us" when it cannot be read.
    static std::wstring GetInstalledLanguage();
    // ProgramDir\KelResource_<language>.dll
    static std::wstring ResourceLibraryPath();
};
