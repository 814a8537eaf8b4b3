#include "platform/ObjectArena.h"

#include <new>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define QUILLET_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define QUILLET_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define QUILLET_POISON(p, n) ((void)(p), (void)(n))
#define QUILLET_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace quillet {

ObjectArena::~ObjectArena() {
    Clear();
}

void *ObjectArena::Allocate(size_t size) {
    size_t slotSize = (size + kGranule - 1) / kGranule * kGranule;
    SizeClass &sizeClass = m_Classes[slotSize];
    void *p = nullptr;
    Block *block = nullptr;
    if (!sizeClass.free.empty()) {
        p = sizeClass.free.back();
        sizeClass.free.pop_back();
        block = BlockOf(p);
    } else {
        if (!sizeClass.current || sizeClass.next == sizeClass.current->slots) {
            auto fresh = std::make_unique<Block>();
            fresh->slotSize = slotSize;
            fresh->slots = slotSize > kBlockBytes ? 1 : kBlockBytes / slotSize;
            fresh->memory.reset(new uint8_t[fresh->slots * slotSize]);
            fresh->start = reinterpret_cast<uintptr_t>(fresh->memory.get());
            fresh->used.assign(fresh->slots, false);
            QUILLET_POISON(fresh->memory.get(), fresh->slots * slotSize);
            sizeClass.current = fresh.get();
            sizeClass.next = 0;
            m_Blocks.emplace(fresh->start, std::move(fresh));
        }
        block = sizeClass.current;
        p = block->memory.get() + sizeClass.next++ * slotSize;
    }
    block->used[(reinterpret_cast<uintptr_t>(p) - block->start) / slotSize] = true;
    QUILLET_UNPOISON(p, slotSize);
    return p;
}

void ObjectArena::Release(void *p) {
    Block *block = BlockOf(p);
    if (!block)
        return;
    size_t slot = (reinterpret_cast<uintptr_t>(p) - block->start) / block->slotSize;
    block->used[slot] = false;
    QUILLET_POISON(p, block->slotSize);
    m_Classes[block->slotSize].free.push_back(p);
}

ObjectArena::Block *ObjectArena::BlockOf(const void *p) const {
    uintptr_t address = reinterpret_cast<uintptr_t>(p);
    Block *block = m_pLastBlock;
    if (!block || address < block->start ||
        address >= block->start + block->slots * block->slotSize) {
        auto it = m_Blocks.upper_bound(address);
        if (it == m_Blocks.begin())
            return nullptr;
        block = std::prev(it)->second.get();
        if (address >= block->start + block->slots * block->slotSize)
            return nullptr;
        m_pLastBlock = block;
    }
    return block;
}

bool ObjectArena::Contains(const void *p) const {
    Block *block = BlockOf(p);
    if (!block)
        return false;
    uintptr_t offset = reinterpret_cast<uintptr_t>(p) - block->start;
    return offset % block->slotSize == 0 && block->used[offset / block->slotSize];
}

void ObjectArena::Clear() {
    for (auto &entry : m_Blocks)
        QUILLET_UNPOISON(entry.second->memory.get(), entry.second->slots * entry.second->slotSize);
    m_Blocks.clear();
    m_Classes.clear();
    m_pLastBlock = nullptr;
}

} // namespace quillet
