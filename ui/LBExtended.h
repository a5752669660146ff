#pragma once
// An owner-drawn list box whose items are keys into a map of rows. Keys only grow, so a key
// taken out of the map never names a later row. The map may be used from any thread under the
// owner's lock; the list box only from the thread that owns it.

#include <windows.h>

#include <map>
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

    LRESULT Append(int key) const { return Send(LB_INSERTSTRING, static_cast<WPARAM>(-1), key); }
    // Without LBS_HASSTRINGS the list box compares the item data with the key.
    LRESULT IndexOf(int key) const { return Send(LB_FINDSTRING, static_cast<WPARAM>(-1), key); }
    LRESULT Count() const { return Send(LB_GETCOUNT, 0, 0); }
    LRESULT Delete(LRESULT index) const { return Send(LB_DELETESTRING, static_cast<WPARAM>(index), 0); }

private:
    LRESULT Send(UINT message, WPARAM wParam, LPARAM lParam) const {
        return m_listBox ? ::SendMessageW(m_listBox, message, wParam, lParam) : LB_ERR;
    }

    std::map<int, Row> m_rows;
    int m_nextKey = 0;
    HWND m_listBox = nullptr;
};
