#pragma once
// A queue of items for one consumer thread: producers append and signal the item event; the
// consumer takes one item per wake-up and re-signals while items remain.

#include "common/CriticalSection.h"
#include "common/WinHandles.h"

#include <deque>
#include <optional>

namespace NS_Utils {

template <typename T>
class CConcurrentQueue {
public:
    CConcurrentQueue()
        : m_itemEvent(::CreateEventW(nullptr, FALSE, FALSE, nullptr)),
          m_stopEvent(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

    bool Valid() const { return m_itemEvent && m_stopEvent; }

    void Push(T item) {
        CritSecGuard guard(m_lock);
        m_items.push_back(std::move(item));
        ++m_count;
        ::SetEvent(m_itemEvent.get());
    }

    // The front item, if any; the item event is signalled again when more remain.
    std::optional<T> TakeFront() {
        CritSecGuard guard(m_lock);
        if (m_items.empty()) return std::nullopt;
        std::optional<T> item(std::move(m_items.front()));
        m_items.pop_front();
        --m_count;
        if (!m_items.empty()) ::SetEvent(m_itemEvent.get());
        return item;
    }

    size_t Count() const {
        CritSecGuard guard(m_lock);
        return m_count;
    }

    HANDLE ItemEvent() const { return m_itemEvent.get(); }
    HANDLE StopEvent() const { return m_stopEvent.get(); }

private:
    std::deque<T> m_items;
    mutable CriticalSection m_lock;
    UniqueHandle m_itemEvent;  // auto-reset: one wake-up per signal
    UniqueHandle m_stopEvent;  // manual reset: stays set for items that pause while it is stopping
    size_t m_count = 0;
};

}  // namespace NS_Utils
