// A set of addresses with open addressing: no allocation per element, and lookups that never
// follow the pointers they hold. The library keeps the handles it gave out in such sets, so that
// a handle it does not know is refused without being dereferenced.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quillet {

class PointerSet {
public:
    // The tombstone value is never an element: it is refused by every operation, or a handle of
    // that value would be found in any slot that an erase left behind.
    bool Contains(const void *p) const {
        if (!p || p == Tombstone() || m_Slots.empty())
            return false;
        for (size_t i = Hash(p) & m_Mask;; i = (i + 1) & m_Mask) {
            const void *slot = m_Slots[i];
            if (slot == p)
                return true;
            if (slot == nullptr)
                return false;
        }
    }

    void Insert(const void *p) {
        if (!p || p == Tombstone())
            return;
        if ((m_Used + 1) * 4 > m_Slots.size() * 3)
            Grow();
        size_t tombstone = SIZE_MAX;
        for (size_t i = Hash(p) & m_Mask;; i = (i + 1) & m_Mask) {
            const void *slot = m_Slots[i];
            if (slot == p)
                return;
            if (slot == Tombstone() && tombstone == SIZE_MAX)
                tombstone = i;
            if (slot == nullptr) {
                if (tombstone != SIZE_MAX) {
                    m_Slots[tombstone] = p;
                } else {
                    m_Slots[i] = p;
                    ++m_Used;
                }
                ++m_Count;
                return;
            }
        }
    }

    void Erase(const void *p) {
        if (!p || p == Tombstone() || m_Slots.empty())
            return;
        for (size_t i = Hash(p) & m_Mask;; i = (i + 1) & m_Mask) {
            const void *slot = m_Slots[i];
            if (slot == p) {
                m_Slots[i] = Tombstone();
                --m_Count;
                return;
            }
            if (slot == nullptr)
                return;
        }
    }

    void Clear() {
        std::vector<const void *>().swap(m_Slots);
        m_Mask = 0;
        m_nShift = 63;
        m_Used = 0;
        m_Count = 0;
    }

    size_t Size() const { return m_Count; }

private:
    // An address no object can have: marks a slot whose element was erased.
    static const void *Tombstone() { return reinterpret_cast<const void *>(uintptr_t(1)); }

    // Fibonacci hashing: the multiplication's high bits depend on every bit of the address.
    size_t Hash(const void *p) const {
        uint64_t x = uint64_t(reinterpret_cast<uintptr_t>(p)) * 0x9E3779B97F4A7C15ull;
        return size_t(x >> m_nShift);
    }

    // Doubles the table when live elements fill it, else rebuilds it without tombstones.
    void Grow() {
        size_t capacity = m_Slots.empty() ? 64 : m_Slots.size();
        if ((m_Count + 1) * 2 > capacity)
            capacity *= 2;
        std::vector<const void *> old;
        old.swap(m_Slots);
        m_Slots.assign(capacity, nullptr);
        m_Mask = capacity - 1;
        m_nShift = 64;
        for (size_t c = capacity; c > 1; c >>= 1)
            --m_nShift;
        m_Used = 0;
        m_Count = 0;
        for (const void *p : old)
            if (p != nullptr && p != Tombstone())
                Insert(p);
    }

    std::vector<const void *> m_Slots;
    size_t m_Mask = 0;
    unsigned m_nShift = 63;
    size_t m_Used = 0;  // slots holding an element or a tombstone
    size_t m_Count = 0; // elements
};

} // namespace quillet
