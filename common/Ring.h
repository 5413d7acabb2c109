#pragma once
// A first-in first-out queue over one vector. Once it has held its most, pushing and
// popping allocate nothing; a std::deque allocates and frees a block every few dozen
// elements, which shows on a per-frame path.

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

template <class T>
class Ring {
public:
    bool empty() const { return m_count == 0; }
    size_t size() const { return m_count; }
    T& front() { return m_items[m_head]; }

    void push_back(T value)
    {
        if (m_count == m_items.size())
            grow();
        m_items[(m_head + m_count) % m_items.size()] = std::move(value);
        ++m_count;
    }

    void pop_front()
    {
        m_head = (m_head + 1) % m_items.size();
        --m_count;
    }

    void clear() { m_head = m_count = 0; }

    // Oldest first.
    template <class F>
    void forEach(F&& visit) const
    {
        for (size_t i = 0; i < m_count; ++i)
            visit(m_items[(m_head + i) % m_items.size()]);
    }

private:
    void grow()
    {
        std::vector<T> bigger(std::max<size_t>(8, 2 * m_items.size()));
        for (size_t i = 0; i < m_count; ++i)
            bigger[i] = std::move(m_items[(m_head + i) % m_items.size()]);
        m_items = std::move(bigger);
        m_head = 0;
    }

    std::vector<T> m_items;
    size_t m_head = 0;
    size_t m_count = 0;
};
