#pragma once
// An owner-drawn list box whose items carry a row's key (LeaseRows) as their data and the row's
// text as their string (LBS_HASSTRINGS), so that a screen reader, or any process that sends
// LB_GETTEXT, reads what the row shows. Only the thread that owns the list box calls it.

#include <windows.h>

#include <string>

class LBExtended {
public:
    void Attach(HWND listBox) noexcept { m_listBox = listBox; }
    HWND ListBox() const noexcept { return m_listBox; }

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

    HWND m_listBox = nullptr;
};
