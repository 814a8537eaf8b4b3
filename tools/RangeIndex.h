// Which range holds a point: the index behind qdbg's section lookup by address and its
// function-symbol lookup. Ranges may nest or overlap (a local label's symbol inside a function,
// aliases of one function); the index answers the innermost one.
#ifndef QDBG_RANGE_INDEX_H
#define QDBG_RANGE_INDEX_H

#include <algorithm>
#include <cstdint>
#include <vector>

namespace qdbg {

// Half-open ranges [start, end), each with a value. After Build, Find answers the value of the
// range that holds a point; where ranges overlap, the one that starts last wins, and of ranges
// with the same bounds, the one added last. Build is O(n log n), Find O(log n).
template <class T> class RangeIndex {
public:
    void Add(uint64_t start, uint64_t end, T value) {
        if (start < end)
            m_Pending.push_back({start, end, value});
    }

    // Flattens the ranges into disjoint segments, each naming the innermost range over it.
    void Build() {
        // By start, longer first, so that a range nested at the same start comes later and wins;
        // stable, so that of equal ranges the later one wins.
        std::stable_sort(m_Pending.begin(), m_Pending.end(), [](const Range &a, const Range &b) {
            return a.start != b.start ? a.start < b.start : a.end > b.end;
        });
        std::vector<const Range *> open; // enclosing ranges, innermost last
        uint64_t cursor = 0;
        auto closeUpTo = [&](uint64_t limit) {
            while (!open.empty() && open.back()->end <= limit) {
                Emit(cursor, open.back()->end, open.back()->value);
                cursor = std::max(cursor, open.back()->end);
                open.pop_back();
            }
        };
        for (const Range &range : m_Pending) {
            closeUpTo(range.start);
            if (!open.empty())
                Emit(cursor, range.start, open.back()->value);
            cursor = range.start;
            open.push_back(&range);
        }
        closeUpTo(UINT64_MAX);
        m_Pending.clear();
        m_Pending.shrink_to_fit();
    }

    // The value of the innermost range that holds point, or null.
    const T *Find(uint64_t point) const {
        auto after = std::upper_bound(m_Starts.begin(), m_Starts.end(), point);
        if (after == m_Starts.begin())
            return nullptr;
        size_t at = size_t(after - m_Starts.begin()) - 1;
        return point < m_Ends[at] ? &m_Values[at] : nullptr;
    }

    bool Empty() const { return m_Starts.empty() && m_Pending.empty(); }

private:
    struct Range {
        uint64_t start, end;
        T value;
    };

    void Emit(uint64_t start, uint64_t end, const T &value) {
        if (start < end) {
            m_Starts.push_back(start);
            m_Ends.push_back(end);
            m_Values.push_back(value);
        }
    }

    std::vector<Range> m_Pending;
    std::vector<uint64_t> m_Starts, m_Ends; // disjoint segments in ascending order
    std::vector<T> m_Values;
};

} // namespace qdbg

#endif
