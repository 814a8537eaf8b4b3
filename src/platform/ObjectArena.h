// Storage for the language objects, which come by the hundred thousand. Objects of one size
// class share large blocks, so an object costs no allocator header and no registry entry: an
// address is a live object exactly when it lies in a block at a slot boundary whose slot is in
// use, which the arena answers without reading the address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace quillet {

class ObjectArena {
public:
    ObjectArena() = default;
    ~ObjectArena();
    ObjectArena(const ObjectArena &) = delete;
    ObjectArena &operator=(const ObjectArena &) = delete;

    void *Allocate(size_t size);
    void Release(void *p);
    // True when `p` is the start of an object that is allocated and not released.
    bool Contains(const void *p) const;
    // Releases every block; no object may be used afterwards.
    void Clear();

private:
    static constexpr size_t kGranule = 16;
    static constexpr size_t kBlockBytes = 64 * 1024;

    struct Block {
        uintptr_t start = 0;
        size_t slotSize = 0;
        size_t slots = 0;
        std::vector<bool> used;
        std::unique_ptr<uint8_t[]> memory;
    };
    struct SizeClass {
        Block *current = nullptr;
        size_t next = 0;          // first never-used slot of the current block
        std::vector<void *> free; // released slots
    };

    Block *BlockOf(const void *p) const;

    std::map<uintptr_t, std::unique_ptr<Block>> m_Blocks;
    std::map<size_t, SizeClass> m_Classes;
    // The block last looked up: objects of one scope are usually neighbours.
    mutable Block *m_pLastBlock = nullptr;
};

} // namespace quillet
