#include "testing/mutator/CredentialMutator.h"

#include <iterator>

namespace mutator {

std::vector<std::wstring> ExpectedLines(const std::wstring& raw) {
    std::wstring text = raw.substr(0, raw.find(L'\0'));
    std::vector<std::wstring> lines;
    for (size_t start = 0, end = 0; lines.size() < 9; lines.push_back(text.substr(start, end - start)), start = end + 1)
        if ((end = text.find(L'\n', start)) == std::wstring::npos || end - start > 511) return {};
    return lines;
}

std::wstring Mutate(std::wstring text, std::mt19937& rng) {
    auto pick = [&](size_t n) { return n == 0 ? 0 : std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
    const wchar_t specials[] = {L'\n', L'\r', L'\0', 0xD800, 0xDFFF, 0xFFFF, L':', L'x'};
    for (int steps = 1 + static_cast<int>(pick(4)); steps > 0; --steps) {
        size_t at = pick(text.size() + 1);
        switch (pick(4)) {
        case 0:  // overwrite a unit with anything
            if (at < text.size()) text[at] = static_cast<wchar_t>(rng() & 0xFFFF);
            break;
        case 1:  // insert a special unit
            text.insert(at, 1, specials[pick(std::size(specials))]);
            break;
        case 2:  // cut here, or drop a stretch from here
            text.erase(at, pick(2) ? std::wstring::npos : pick(text.size() - at + 1));
            break;
        default:  // stretch a line around the 511-character limit, or far past it
            text.insert(at, std::wstring(pick(2) ? 505 + pick(12) : pick(5000), L'y'));
        }
    }
    return text;
}

}  // namespace mutator
