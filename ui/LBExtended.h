#pragma once
// An owner-drawn list box whose items carry a key into a map of rows as their data and the row's
// text as their string (LBS_HASSTRINGS), so that a screen reader, or any process that sends
// LB_GETTEXT, reads what the row shows. Keys only grow, so a key taken out of the map never
// names a later row. The map may be used from any thread under the owner's lock; the list box
// only from the thread that owns it.

#include <windows.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

template <typename Row>
class LBExtended {
public:
    void Attach(HWND listBox) noexcept { m_listBox = listBox; }
    HWND ListBox() const noexcept { return m_listBox; }

    int Add(Row row) {
        int key = m_nextKey++;
        m_rows.emplace(key, std::move(row));
        return key;
    }
    Row Find(int key) const {
        auto it = m_rows.find(key);
        return it == m_rows.end() ? Row{} : it->second;
    }
    bool Erase(int key) { return m_rows.erase(key) > 0; }
    void Clear() { m_rows.clear(); }
    bool Empty() const noexcept { return m_rows.empty(); }
    std::vector<std::pair<int, Row>> Rows() const { return {m_rows.begin(), m_rows.end()}; }

    LRESULT Append(int key, const std::wstring& text) const {
        LRESULT index = Send(LB_INSERTSTRING, static_cast<WPARAM>(-1), reinterpret_cast<LPARAM>(text.c_str()));
        if (index >= 0) Send(LB_SETITEMDATA, static_cast<WPARAM>(index), key);
        return index;
    }
    // The strings are the rows' texts, so a key is found by the item data.
    LRESULT IndexOf(int key) const {
        for (LRESULT index = 0, count = Count(); index < count; ++index)
            if (KeyAt(index) == key) return index;
        return LB_ERR;
    }
    int KeyAt(LRESULT index) const { return static_cast<int>(Send(LB_GETITEMDATA, static_cast<WPARAM>(index), 0)); }
    std::wstring TextAt(LRESULT index) const {
        LRESULT length = Send(LB_GETTEXTLEN, static_cast<WPARAM>(index), 0);
        if (length <= 0) return {};
        std::wstring text(static_cast<size_t>(length) + 1, L'\0');
        length = Send(LB_GETTEXT, static_cast<WPARAM>(index), reinterpret_cast<LPARAM>(text.data()));
        text.resize(length > 0 ? static_cast<size_t>(length) : 0);
        return text;
    }
    // A list box has no message that changes an item's string: the item is put in again at its
    // place, with its key, and the caret and selection are kept.
    void SetText(LRESULT index, const std::wstring& text) const {
        int key = KeyAt(index);
        LRESULT caret = Send(LB_GETCARETINDEX, 0, 0);
        LRESULT selected = Send(LB_GETCURSEL, 0, 0);
        Send(LB_DELETESTRING, static_cast<WPARAM>(index), 0);
        Send(LB_INSERTSTRING, static_cast<WPARAM>(index), reinterpret_cast<LPARAM>(text.c_str()));
        Send(LB_SETITEMDATA, static_cast<WPARAM>(index), key);
        if (selected == index) Send(LB_SETCURSEL, static_cast<WPARAM>(index), 0);
        if (caret == index) Send(LB_SETCARETINDEX, static_cast<WPARAM>(index), FALSE);
    }
    LRESULT Count() const { return Send(LB_GETCOUNT, 0, 0); }
    LRESULT Delete(LRESULT index) const { return Send(LB_DELETESTRING, static_cast<WPARAM>(index), 0); }
    // Every item the same height, after the window's DPI or font changed.
    void SetItemHeights(int height) const {
        for (LRESULT index = 0, count = Count(); index < count; ++index)
            Send(LB_SETITEMHEIGHT, static_cast<WPARAM>(index), height);
    }

private:
    LRESULT Send(UINT message, WPARAM wParam, LPARAM lParam) const {
        return m_listBox ? ::SendMessageW(m_listBox, message, wParam, lParam) : LB_ERR;
    }

    std::map<int, Row> m_rows;
    int m_nextKey = 0;
    HWND m_listBox = nullptr;
};
