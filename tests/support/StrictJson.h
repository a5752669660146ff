#pragma once
// A strict JSON reader (RFC 8259) for checking what our programs print for scripts: anything a
// standard parser would refuse (a trailing comma, a raw control character in a string, an unknown
// escape, text after the value) makes it fail, so that a test does not pass on output that
// PowerShell's ConvertFrom-Json or Python's json module would reject.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

struct JsonValue {
    enum class Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = Kind::kNull;
    std::string name;              // a member's name in its object
    std::string text;              // a string's UTF-8, a number's digits, "true" or "false"
    std::vector<JsonValue> items;  // an array's items, an object's members in their order

    // The member called `wanted`, or null.
    const JsonValue* Find(const std::string& wanted) const {
        for (const JsonValue& member : items)
            if (member.name == wanted) return &member;
        return nullptr;
    }
};

class StrictJson {
public:
    // False when `input` is not exactly one JSON value, with white space around it.
    static bool Parse(const std::string& input, JsonValue& value) {
        StrictJson reader(input);
        return reader.Value(value, 0) && (reader.Space(), reader.m_at == input.size());
    }

private:
    explicit StrictJson(const std::string& input) : m_in(input) {}

    void Space() {
        while (m_at < m_in.size() &&
               (m_in[m_at] == ' ' || m_in[m_at] == '\t' || m_in[m_at] == '\n' || m_in[m_at] == '\r'))
            ++m_at;
    }
    bool Take(char c) {
        Space();
        if (m_at >= m_in.size() || m_in[m_at] != c) return false;
        ++m_at;
        return true;
    }
    bool Word(const char* word) {
        const std::string w(word);
        if (m_in.compare(m_at, w.size(), w) != 0) return false;
        m_at += w.size();
        return true;
    }
    bool Digits() {
        const size_t start = m_at;
        while (m_at < m_in.size() && m_in[m_at] >= '0' && m_in[m_at] <= '9') ++m_at;
        return m_at > start;
    }
    bool Number(JsonValue& value) {
        const size_t start = m_at;
        if (m_in[m_at] == '-') ++m_at;
        if (m_at < m_in.size() && m_in[m_at] == '0')
            ++m_at;
        else if (!Digits())
            return false;
        if (m_at < m_in.size() && m_in[m_at] == '.' && (++m_at, !Digits())) return false;
        if (m_at < m_in.size() && (m_in[m_at] == 'e' || m_in[m_at] == 'E')) {
            ++m_at;
            if (m_at < m_in.size() && (m_in[m_at] == '+' || m_in[m_at] == '-')) ++m_at;
            if (!Digits()) return false;
        }
        value.kind = JsonValue::Kind::kNumber;
        value.text = m_in.substr(start, m_at - start);
        return true;
    }
    bool Hex4(std::uint32_t& unit) {
        if (m_at + 4 > m_in.size()) return false;
        unit = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = m_in[m_at++];
            const int digit = c >= '0' && c <= '9'   ? c - '0'
                              : c >= 'a' && c <= 'f' ? c - 'a' + 10
                              : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                     : -1;
            if (digit < 0) return false;
            unit = unit * 16 + static_cast<std::uint32_t>(digit);
        }
        return true;
    }
    static void AppendUtf8(std::string& out, std::uint32_t code) {
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (code >> 18));
            out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
    }
    bool String(std::string& out) {
        if (!Take('"')) return false;
        out.clear();
        while (m_at < m_in.size()) {
            const char c = m_in[m_at++];
            if (c == '"') return true;
            if (static_cast<unsigned char>(c) < 0x20) return false;
            if (c != '\\') {
                out += c;
                continue;
            }
            if (m_at >= m_in.size()) return false;
            const char escaped = m_in[m_at++];
            const std::string simple = "\"\\/bfnrt", meaning = "\"\\/\b\f\n\r\t";
            if (const size_t found = simple.find(escaped); found != std::string::npos) {
                out += meaning[found];
                continue;
            }
            std::uint32_t unit = 0, low = 0;
            if (escaped != 'u' || !Hex4(unit)) return false;
            // A pair of escaped surrogates is one character; a lone one stays as it was sent.
            if (unit >= 0xD800 && unit <= 0xDBFF && m_in.compare(m_at, 2, "\\u") == 0) {
                const size_t back = m_at;
                m_at += 2;
                if (Hex4(low) && low >= 0xDC00 && low <= 0xDFFF)
                    unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                else
                    m_at = back;
            }
            AppendUtf8(out, unit);
        }
        return false;
    }
    bool Value(JsonValue& value, int depth) {
        Space();
        if (m_at >= m_in.size() || depth > 64) return false;
        value = {};
        const char c = m_in[m_at];
        if (c == '"') {
            value.kind = JsonValue::Kind::kString;
            return String(value.text);
        }
        if (c == '[') return Array(value, depth);
        if (c == '{') return Object(value, depth);
        if (c == 't' || c == 'f') {
            value.kind = JsonValue::Kind::kBool;
            value.text = c == 't' ? "true" : "false";
            return Word(value.text.c_str());
        }
        if (c == 'n') return Word("null");
        return Number(value);
    }
    bool Array(JsonValue& value, int depth) {
        Take('[');
        value.kind = JsonValue::Kind::kArray;
        if (Take(']')) return true;
        do {
            if (!Value(value.items.emplace_back(), depth + 1)) return false;
        } while (Take(','));
        return Take(']');
    }
    bool Object(JsonValue& value, int depth) {
        Take('{');
        value.kind = JsonValue::Kind::kObject;
        if (Take('}')) return true;
        do {
            std::string name;
            if (!String(name) || !Take(':')) return false;
            JsonValue& member = value.items.emplace_back();
            if (!Value(member, depth + 1)) return false;
            member.name = std::move(name);
        } while (Take(','));
        return Take('}');
    }

    const std::string& m_in;
    size_t m_at = 0;
};

}  // namespace testsupport
