// The keyed queries: names and paths into caller buffers, section bytes, the find keys and the
// child iterations, and the numeric attributes.
#include "KeyedQueries.h"
#include "Attributes.h"
#include "Relocations.h"

#include <algorithm>

#include <string>

namespace brix {

namespace {

constexpr int32_t kOk = BRX_OK;
constexpr int32_t kFailed = BRX_ERR_FAILED;

template <class T> int32_t Store(void *p, T v) {
    if (!p)
        return kFailed;
    std::memcpy(p, &v, sizeof(T));
    return kOk;
}

int32_t CopyName(std::string_view name, const void *input, void *output) {
    uint32_t capacity = 0;
    if (!Load(input, capacity) || !output)
        return kFailed;
    if (uint64_t(name.size()) + 1 > capacity)
        return BRX_ERR_BUFFER_TOO_SMALL;
    std::memcpy(output, name.data(), name.size());
    static_cast<char *>(output)[name.size()] = '\0';
    return kOk;
}

// UTF-8 to UTF-16; a malformed byte becomes U+FFFD.
std::u16string ToUtf16(std::string_view s) {
    std::u16string out;
    size_t i = 0;
    while (i < s.size()) {
        uint8_t c = uint8_t(s[i]);
        size_t extra = c < 0x80         ? 0
                       : (c >> 5) == 6  ? 1
                       : (c >> 4) == 14 ? 2
                       : (c >> 3) == 30 ? 3
                                        : 4;
        uint32_t cp = extra == 0 ? c : c & (0x3fu >> extra);
        bool ok = extra <= 3 && i + extra < s.size();
        for (size_t k = 1; ok && k <= extra; ++k) {
            ok = (uint8_t(s[i + k]) & 0xc0) == 0x80;
            cp = (cp << 6) | (uint8_t(s[i + k]) & 0x3f);
        }
        if (!ok) {
            cp = 0xfffd;
            extra = 0;
        }
        i += extra + 1;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(char16_t(0xd800 + (cp >> 10)));
            out.push_back(char16_t(0xdc00 + (cp & 0x3ff)));
        } else {
            out.push_back(char16_t(cp));
        }
    }
    return out;
}

int32_t CopyPath(const CBrxFile &f, bool wide, const void *input, void *output) {
    if (!wide)
        return CopyName(f.m_Path, input, output);
    uint32_t capacity = 0;
    if (!Load(input, capacity) || !output)
        return kFailed;
    std::u16string path = ToUtf16(f.m_Path);
    if ((uint64_t(path.size()) + 1) * 2 > capacity)
        return BRX_ERR_BUFFER_TOO_SMALL;
    std::memcpy(output, path.data(), path.size() * 2);
    static_cast<char16_t *>(output)[path.size()] = u'\0';
    return kOk;
}

// The one record of key 38: the output pointer when given, else the input.
BrxBytes *BytesRecord(const void *input, void *output) {
    return static_cast<BrxBytes *>(output ? output : const_cast<void *>(input));
}

int32_t ReadBytes(CSection &s, BrxBytes *rec) {
    if (!rec || rec->offset > s.Size() || (rec->count > 0 && !rec->data))
        return kFailed;
    int32_t inflated = s.Inflate();
    if (inflated != BRX_OK)
        return inflated;
    rec->count = s.Read(rec->offset, rec->count, static_cast<uint8_t *>(rec->data));
    return kOk;
}

// Next element of a child list after `previous` (BRX_FIRST: the first). position(entry) answers
// the previous element's position in the list, or false when it is not an element of it.
template <class PositionOf>
int32_t NextInList(const std::vector<uint32_t> &list, const void *input, void *output, Kind kind,
                   PositionOf position, const CBrxFile &file,
                   BrxHandle (*handleAt)(const CBrxFile &, uint32_t)) {
    BrxHandle previous = 0;
    if (!Load(input, previous) || !output)
        return kFailed;
    size_t next = 0;
    if (previous != BRX_FIRST) {
        const CHandleEntry *p = LookupKind(previous, kind);
        uint32_t pos = 0;
        if (!p || p->m_pFile != &file || !position(*p, pos))
            return kFailed;
        next = size_t(pos) + 1;
    }
    if (next >= list.size())
        return BRX_ERR_NO_MORE;
    return Store(output, handleAt(file, list[next]));
}

// Key 25 on a file: the next object of a kind after `after` whose attribute matches.
int32_t Find(const CBrxFile &f, const void *input, void *output) {
    BrxFind find{};
    if (!Load(input, find) || !output)
        return kFailed;
    if (find.kind == BRX_KIND_SYMBOL_TABLE) {
        if (find.after != BRX_FIRST || f.m_SymbolTable == 0)
            return BRX_ERR_NO_MORE;
        return Store(output, f.m_SymbolTable);
    }
    Kind kind;
    size_t count;
    if (find.kind == BRX_KIND_SECTION) {
        kind = Kind::Section;
        count = f.m_Sections.size();
    } else if (find.kind == BRX_KIND_SYMBOL) {
        kind = Kind::Symbol;
        count = f.m_Symbols.size();
    } else if (find.kind == BRX_KIND_RELOCATION) {
        kind = Kind::Relocation;
        count = f.m_Relocations.size();
    } else {
        return kFailed;
    }
    size_t start = 0;
    if (find.after != BRX_FIRST) {
        const CHandleEntry *a = LookupKind(find.after, kind);
        if (!a || a->m_pFile != &f)
            return kFailed;
        start = size_t(a->m_nIndex) + 1;
    }
    CHandleEntry probe;
    probe.m_pFile = const_cast<CBrxFile *>(&f);
    probe.m_Kind = kind;
    for (size_t i = start; i < count; ++i) {
        probe.m_nIndex = uint32_t(i);
        if (Matches(probe, find.key, find.value)) {
            BrxHandle h = kind == Kind::Section  ? f.m_Sections[i].m_Handle
                          : kind == Kind::Symbol ? f.m_Symbols[i].m_Handle
                                                 : f.m_Relocations[i].m_Handle;
            return Store(output, h);
        }
    }
    return BRX_ERR_NO_MORE;
}

// Key 57 on a symbol table.
int32_t FindSymbol(const CBrxFile &f, const void *input, void *output) {
    BrxFindSymbol find{};
    if (!Load(input, find))
        return kFailed;
    BrxFind general{find.after, BRX_KIND_SYMBOL, find.key, find.value};
    return Find(f, &general, output);
}

} // namespace

int32_t GetKeyed(BrxHandle object, uint32_t key, const void *input, void *output, bool wide) {
    const CHandleEntry *e = State().Lookup(object);
    if (!e)
        return kFailed;
    CBrxFile &f = *e->m_pFile;

    if (key == BRX_KEY_SECTION_SIZE && e->m_Kind != Kind::Section)
        return BRX_ERR_NOT_A_SECTION;

    switch (key) {
    case BRX_KEY_PATH:
        return e->m_Kind == Kind::File ? CopyPath(f, wide, input, output) : kFailed;
    case BRX_KEY_FIND:
        return e->m_Kind == Kind::File ? Find(f, input, output) : kFailed;
    case BRX_KEY_FIND_SYMBOL:
        return e->m_Kind == Kind::SymbolTable ? FindSymbol(f, input, output) : kFailed;
    case BRX_KEY_NAME:
    case BRX_KEY_SYMBOL_NAME: {
        std::string_view name;
        if (!NameOf(*e, name))
            return kFailed;
        return CopyName(name, input, output);
    }
    case BRX_KEY_SECTION_DATA:
        if (e->m_Kind != Kind::Section)
            return BRX_ERR_NOT_A_SECTION;
        return ReadBytes(f.m_Sections[e->m_nIndex], BytesRecord(input, output));
    case BRX_KEY_RESOLVED_RELOCATIONS: {
        if (e->m_Kind != Kind::Section)
            return BRX_ERR_NOT_A_SECTION;
        auto *list = static_cast<BrxResolvedList *>(output ? output : const_cast<void *>(input));
        if (!list)
            return kFailed;
        CSection &section = f.m_Sections[e->m_nIndex];
        int32_t result = ResolveRelocations(f, section);
        if (result != BRX_OK)
            return result;
        const std::vector<BrxResolvedRelocation> &all = section.m_Resolved;
        if (!list->entries) {
            list->count = all.size();
            return kOk;
        }
        uint64_t copied = list->first < all.size()
                              ? std::min<uint64_t>(list->count, all.size() - list->first)
                              : 0;
        std::copy_n(all.begin() + static_cast<ptrdiff_t>(copied ? list->first : 0), copied,
                    list->entries);
        list->count = copied;
        return kOk;
    }
    case BRX_KEY_COMDAT: {
        if (e->m_Kind != Kind::Section)
            return BRX_ERR_NOT_A_SECTION;
        const CSection &s = f.m_Sections[e->m_nIndex];
        BrxComdat c{s.m_nComdatSelection, s.m_AssociatedSection};
        return Store(output, c);
    }
    case BRX_KEY_NEXT_RELOCATION: {
        if (e->m_Kind != Kind::Section)
            return BRX_ERR_NOT_A_SECTION;
        uint32_t section = e->m_nIndex;
        return NextInList(
            f.m_Sections[section].m_Relocations, input, output, Kind::Relocation,
            [&](const CHandleEntry &p, uint32_t &pos) {
                const CRelocation &r = f.m_Relocations[p.m_nIndex];
                pos = r.m_nPosition;
                return r.m_nSection == section;
            },
            f, [](const CBrxFile &file, uint32_t i) { return file.m_Relocations[i].m_Handle; });
    }
    case BRX_KEY_NEXT_LINE_BLOCK: {
        if (e->m_Kind != Kind::Section)
            return BRX_ERR_NOT_A_SECTION;
        uint32_t section = e->m_nIndex;
        return NextInList(
            f.m_Sections[section].m_LineBlocks, input, output, Kind::LineBlock,
            [&](const CHandleEntry &p, uint32_t &pos) {
                const CLineBlock &b = f.m_LineBlocks[p.m_nIndex];
                pos = b.m_nPosition;
                return b.m_nSection == section;
            },
            f, [](const CBrxFile &file, uint32_t i) { return file.m_LineBlocks[i].m_Handle; });
    }
    case BRX_KEY_NEXT_LINE_ITEM: {
        if (e->m_Kind != Kind::LineBlock)
            return kFailed;
        const CLineBlock &b = f.m_LineBlocks[e->m_nIndex];
        BrxHandle previous = 0;
        if (!Load(input, previous) || !output)
            return kFailed;
        uint64_t next = 0;
        if (previous != BRX_FIRST) {
            const CHandleEntry *p = LookupKind(previous, Kind::LineItem);
            if (!p || p->m_pFile != &f || f.m_LineItems[p->m_nIndex].m_nBlock != e->m_nIndex)
                return kFailed;
            next = uint64_t(p->m_nIndex - b.m_nFirstItem) + 1;
        }
        if (next >= b.m_nItemCount)
            return BRX_ERR_NO_MORE;
        return Store(output, f.m_LineItems[b.m_nFirstItem + next].m_Handle);
    }
    default:
        break;
    }

    unsigned width = NumericWidth(key);
    uint64_t value = 0;
    if (width == 0 || !output || !NumericAttribute(*e, key, value))
        return kFailed;
    std::memcpy(output, &value, width);
    return kOk;
}

} // namespace brix
