// The keyed C interface: translates handles and keys into the object model, and the model's
// outcomes into the numeric results. Nothing below this file returns numbers of the interface.
#include "Formats.h"
#include "Model.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <sys/stat.h>

using namespace brix;

namespace {

constexpr int32_t kOk = BRX_OK;
constexpr int32_t kFailed = BRX_ERR_FAILED;

template <class T> bool Load(const void *p, T &out) {
    if (!p)
        return false;
    std::memcpy(&out, p, sizeof(T));
    return true;
}

template <class T> int32_t Store(void *p, T v) {
    if (!p)
        return kFailed;
    std::memcpy(p, &v, sizeof(T));
    return kOk;
}

// Width in bytes of a key's numeric value; 0 for keys whose value is not a number.
unsigned NumericWidth(uint32_t key) {
    switch (key) {
    case BRX_KEY_SECTION_FLAGS:
        return 2;
    case BRX_KEY_FORMAT:
    case BRX_KEY_SYMBOL_STORAGE:
    case BRX_KEY_OBJECT_KIND:
    case BRX_KEY_MACHINE:
    case BRX_KEY_SECTION_KIND:
    case BRX_KEY_SECTION_ALIGNMENT:
    case BRX_KEY_SYMBOL_BINDING:
    case BRX_KEY_SYMBOL_TYPE:
    case BRX_KEY_RELOC_TYPE:
    case BRX_KEY_OWNER:
    case BRX_KEY_SYMBOL_SECTION:
    case BRX_KEY_RELOC_TARGET:
    case BRX_KEY_LINE_ITEM_COUNT:
    case BRX_KEY_LINE_ITEM_LINE:
    case BRX_KEY_LINE_ITEM_COLUMN:
    case BRX_KEY_LINE_BLOCK_FILE:
    case BRX_KEY_LINE_FILE_SYMBOL:
        return 4;
    case BRX_KEY_SECTION_SIZE:
    case BRX_KEY_SECTION_ADDRESS:
    case BRX_KEY_SYMBOL_OFFSET:
    case BRX_KEY_RELOC_OFFSET:
    case BRX_KEY_RELOC_ADDEND:
    case BRX_KEY_LINE_ITEM_ADDRESS:
        return 8;
    default:
        return 0;
    }
}

BrxHandle OwnerOf(const CHandleEntry &e) {
    const CBrxFile &f = *e.m_pFile;
    switch (e.m_Kind) {
    case Kind::Section:
    case Kind::SymbolTable:
    case Kind::FileReference:
        return f.m_Handle;
    case Kind::Relocation:
        return f.m_Sections[f.m_Relocations[e.m_nIndex].m_nSection].m_Handle;
    case Kind::Symbol:
        return f.m_SymbolTable;
    case Kind::LineBlock:
        return f.m_Sections[f.m_LineBlocks[e.m_nIndex].m_nSection].m_Handle;
    case Kind::LineItem:
        return f.m_LineBlocks[f.m_LineItems[e.m_nIndex].m_nBlock].m_Handle;
    default:
        return 0;
    }
}

// The numeric attributes of every kind, shared by queries and by the find keys.
bool NumericAttribute(const CHandleEntry &e, uint32_t key, uint64_t &out) {
    const CBrxFile &f = *e.m_pFile;
    if (key == BRX_KEY_OWNER) {
        out = OwnerOf(e);
        return out != 0;
    }
    switch (e.m_Kind) {
    case Kind::File:
        switch (key) {
        case BRX_KEY_FORMAT:
            out = uint32_t(f.m_nFormat);
            return true;
        case BRX_KEY_OBJECT_KIND:
            out = f.m_nObjectKind;
            return true;
        case BRX_KEY_MACHINE:
            out = f.m_nMachine;
            return true;
        }
        return false;
    case Kind::Section: {
        const CSection &s = f.m_Sections[e.m_nIndex];
        switch (key) {
        case BRX_KEY_SECTION_SIZE:
            out = s.Size();
            return true;
        case BRX_KEY_SECTION_ADDRESS:
            out = s.m_nAddress;
            return true;
        case BRX_KEY_SECTION_FLAGS:
            out = s.m_nFlags;
            return true;
        case BRX_KEY_SECTION_KIND:
            out = s.m_nKind;
            return true;
        case BRX_KEY_SECTION_ALIGNMENT:
            out = s.m_nAlignment;
            return true;
        }
        return false;
    }
    case Kind::Relocation: {
        const CRelocation &r = f.m_Relocations[e.m_nIndex];
        switch (key) {
        case BRX_KEY_RELOC_OFFSET:
            out = r.m_nOffset;
            return true;
        case BRX_KEY_RELOC_TYPE:
            out = r.m_nType;
            return true;
        case BRX_KEY_RELOC_TARGET:
            out = r.m_Target;
            return r.m_Target != 0;
        case BRX_KEY_RELOC_ADDEND:
            out = uint64_t(r.m_nAddend);
            return true;
        }
        return false;
    }
    case Kind::Symbol: {
        const CSymbol &s = f.m_Symbols[e.m_nIndex];
        switch (key) {
        case BRX_KEY_SYMBOL_STORAGE:
            out = s.m_nStorage;
            return true;
        case BRX_KEY_SYMBOL_SECTION:
            out = s.m_Section;
            return true;
        case BRX_KEY_SYMBOL_BINDING:
            out = s.m_nBinding;
            return true;
        case BRX_KEY_SYMBOL_TYPE:
            out = s.m_nType;
            return true;
        case BRX_KEY_SYMBOL_OFFSET:
            out = s.m_nOffset;
            return true;
        }
        return false;
    }
    case Kind::LineBlock: {
        const CLineBlock &b = f.m_LineBlocks[e.m_nIndex];
        switch (key) {
        case BRX_KEY_LINE_ITEM_COUNT:
            out = b.m_nItemCount;
            return true;
        case BRX_KEY_LINE_BLOCK_FILE:
            out = b.m_FileReference;
            return b.m_FileReference != 0;
        }
        return false;
    }
    case Kind::LineItem: {
        const CLineItem &item = f.m_LineItems[e.m_nIndex];
        switch (key) {
        case BRX_KEY_LINE_ITEM_LINE:
            out = item.m_nLine;
            return true;
        case BRX_KEY_LINE_ITEM_ADDRESS:
            out = item.m_nAddress;
            return true;
        case BRX_KEY_LINE_ITEM_COLUMN:
            out = item.m_nColumn;
            return true;
        }
        return false;
    }
    case Kind::FileReference:
        if (key == BRX_KEY_LINE_FILE_SYMBOL) {
            out = f.m_FileReferences[e.m_nIndex].m_Symbol;
            return true;
        }
        return false;
    default:
        return false;
    }
}

// The name of a section or symbol; false for other kinds.
bool NameOf(const CHandleEntry &e, std::string_view &out) {
    if (e.m_Kind == Kind::Section) {
        out = e.m_pFile->m_Sections[e.m_nIndex].m_Name;
        return true;
    }
    if (e.m_Kind == Kind::Symbol) {
        out = e.m_pFile->SymbolName(e.m_pFile->m_Symbols[e.m_nIndex]);
        return true;
    }
    return false;
}

// Whether an object's attribute `key` has the value `value` points at (BRX_ANY: any object).
bool Matches(const CHandleEntry &e, uint32_t key, const void *value) {
    if (key == BRX_ANY)
        return true;
    if (!value)
        return false;
    if (key == BRX_KEY_NAME || key == BRX_KEY_SYMBOL_NAME) {
        std::string_view name;
        return NameOf(e, name) && name == static_cast<const char *>(value);
    }
    unsigned width = NumericWidth(key);
    uint64_t actual = 0, wanted = 0;
    if (width == 0 || !NumericAttribute(e, key, actual))
        return false;
    std::memcpy(&wanted, value, width); // little-endian host: the low bytes
    return actual == wanted;
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

int32_t ReadBytes(const CSection &s, BrxBytes *rec) {
    if (!rec || rec->offset > s.Size() || (rec->count > 0 && !rec->data))
        return kFailed;
    rec->count = s.Read(rec->offset, rec->count, static_cast<uint8_t *>(rec->data));
    return kOk;
}

int32_t WriteBytes(CSection &s, BrxBytes *rec) {
    if (!rec || rec->offset > s.Size() || (rec->count > 0 && !rec->data))
        return kFailed;
    if (rec->count > UINT64_MAX - rec->offset)
        return kFailed;
    s.MakeWritable();
    uint64_t end = rec->offset + rec->count;
    if (end > s.m_Data.size()) {
        if (end > s.m_Data.max_size())
            return kFailed;
        // Doubling keeps appends amortised O(1) even when callers append a few bytes at a time.
        if (end > s.m_Data.capacity())
            s.m_Data.reserve(std::max<uint64_t>(end, 2 * s.m_Data.capacity()));
        s.m_Data.resize(end);
    }
    if (rec->count > 0)
        std::memcpy(s.m_Data.data() + rec->offset, rec->data, rec->count);
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

// Changes one attribute of an object; false when the key does not apply or the value is refused.
bool SetAttribute(const CHandleEntry &e, uint32_t key, const void *value) {
    CBrxFile &f = *e.m_pFile;
    if (!value)
        return false;
    uint32_t u32 = 0;
    uint64_t u64 = 0;
    switch (e.m_Kind) {
    case Kind::File:
        if (key == BRX_KEY_MACHINE)
            return Load(value, f.m_nMachine);
        if (key == BRX_KEY_OBJECT_KIND)
            return Load(value, f.m_nObjectKind);
        return false;
    case Kind::Section: {
        CSection &s = f.m_Sections[e.m_nIndex];
        switch (key) {
        case BRX_KEY_NAME:
            s.m_Name = static_cast<const char *>(value);
            return true;
        case BRX_KEY_SECTION_DATA:
            return WriteBytes(s, BytesRecord(value, nullptr)) == kOk;
        case BRX_KEY_SECTION_ADDRESS:
            return Load(value, s.m_nAddress);
        case BRX_KEY_SECTION_FLAGS:
            return Load(value, s.m_nFlags);
        case BRX_KEY_SECTION_KIND:
            return Load(value, s.m_nKind);
        case BRX_KEY_SECTION_ALIGNMENT:
            Load(value, u32);
            if (u32 == 0)
                u32 = 1;
            if ((u32 & (u32 - 1)) != 0)
                return false;
            s.m_nAlignment = u32;
            return true;
        case BRX_KEY_COMDAT: {
            BrxComdat c{};
            Load(value, c);
            if (c.selection > BRX_COMDAT_LARGEST)
                return false;
            if (c.selection == BRX_COMDAT_ASSOCIATIVE) {
                const CHandleEntry *t = LookupKind(c.section, Kind::Section);
                if (!t || t->m_pFile != &f || t->m_nIndex == e.m_nIndex)
                    return false;
            } else {
                c.section = 0;
            }
            s.m_nComdatSelection = c.selection;
            s.m_AssociatedSection = c.section;
            return true;
        }
        }
        return false;
    }
    case Kind::Relocation: {
        CRelocation &r = f.m_Relocations[e.m_nIndex];
        switch (key) {
        case BRX_KEY_RELOC_OFFSET:
            return Load(value, r.m_nOffset);
        case BRX_KEY_RELOC_TYPE:
            return Load(value, r.m_nType);
        case BRX_KEY_RELOC_ADDEND:
            return Load(value, r.m_nAddend);
        case BRX_KEY_RELOC_TARGET: {
            BrxHandle target = 0;
            Load(value, target);
            const CHandleEntry *t = State().Lookup(target);
            if (!t || t->m_pFile != &f || (t->m_Kind != Kind::Section && t->m_Kind != Kind::Symbol))
                return false;
            r.m_Target = target;
            return true;
        }
        }
        return false;
    }
    case Kind::Symbol: {
        CSymbol &s = f.m_Symbols[e.m_nIndex];
        switch (key) {
        case BRX_KEY_SYMBOL_NAME:
        case BRX_KEY_NAME:
            f.SetSymbolName(s, static_cast<const char *>(value));
            return true;
        case BRX_KEY_SYMBOL_STORAGE:
            return Load(value, s.m_nStorage);
        case BRX_KEY_SYMBOL_BINDING:
            Load(value, u32);
            if (u32 != BRX_BINDING_LOCAL && u32 != BRX_BINDING_GLOBAL)
                return false;
            s.m_nBinding = u32;
            return true;
        case BRX_KEY_SYMBOL_TYPE:
            return Load(value, s.m_nType);
        case BRX_KEY_SYMBOL_OFFSET:
            return Load(value, s.m_nOffset);
        case BRX_KEY_SYMBOL_SECTION: {
            BrxHandle section = 0;
            Load(value, section);
            if (section != 0) {
                const CHandleEntry *t = LookupKind(section, Kind::Section);
                if (!t || t->m_pFile != &f)
                    return false;
            }
            s.m_Section = section;
            return true;
        }
        }
        (void)u64;
        return false;
    }
    default:
        return false;
    }
}

// Takes back the object that a failed creation just added (always the last of its vector).
void Withdraw(CBrxFile &f, Kind kind) {
    CBrixState &state = State();
    if (kind == Kind::Section) {
        state.Release(f.m_Sections.back().m_Handle);
        f.m_Sections.pop_back();
    } else if (kind == Kind::Relocation) {
        CRelocation &r = f.m_Relocations.back();
        state.Release(r.m_Handle);
        f.m_Sections[r.m_nSection].m_Relocations.pop_back();
        f.m_Relocations.pop_back();
    } else if (kind == Kind::Symbol) {
        state.Release(f.m_Symbols.back().m_Handle);
        f.m_Symbols.pop_back();
    }
}

int32_t Create(BrxHandle parent, uint32_t kind, uint32_t count, const BrxAttr *attrs,
               BrxHandle *out) {
    const CHandleEntry *p = State().Lookup(parent);
    if (!p || !out || (count > 0 && !attrs))
        return kFailed;
    CBrxFile &f = *p->m_pFile;

    if (kind == BRX_KIND_SYMBOL_TABLE) {
        if (p->m_Kind != Kind::File || f.m_SymbolTable == 0)
            return kFailed;
        *out = f.m_SymbolTable;
        return kOk;
    }

    Kind made;
    CHandleEntry entry;
    entry.m_pFile = &f;
    if (kind == BRX_KIND_SECTION && p->m_Kind == Kind::File) {
        made = Kind::Section;
        entry.m_nIndex = f.AddSection(std::string());
    } else if (kind == BRX_KIND_RELOCATION && p->m_Kind == Kind::Section) {
        made = Kind::Relocation;
        entry.m_nIndex = f.AddRelocation(p->m_nIndex);
    } else if (kind == BRX_KIND_SYMBOL &&
               (p->m_Kind == Kind::SymbolTable || p->m_Kind == Kind::File)) {
        made = Kind::Symbol;
        entry.m_nIndex = f.AddSymbol(std::string_view());
    } else {
        return kFailed;
    }
    entry.m_Kind = made;
    BrxHandle handle = made == Kind::Section      ? f.m_Sections.back().m_Handle
                       : made == Kind::Relocation ? f.m_Relocations.back().m_Handle
                                                  : f.m_Symbols.back().m_Handle;
    bool ok = handle != 0;
    for (uint32_t i = 0; ok && i < count; ++i)
        ok = SetAttribute(entry, attrs[i].key, attrs[i].value);
    // A relocation is useless without its target; refuse it now rather than at writing time.
    if (ok && made == Kind::Relocation && f.m_Relocations.back().m_Target == 0)
        ok = false;
    if (!ok) {
        Withdraw(f, made);
        return kFailed;
    }
    *out = handle;
    return kOk;
}

// Reads a regular file whole; directories and other special files are refused (their reported
// sizes mean nothing).
bool ReadWholeFile(const char *path, std::vector<uint8_t> &out) {
    FILE *fp = std::fopen(path, "rb");
    if (!fp)
        return false;
    struct stat info;
    bool ok = fstat(fileno(fp), &info) == 0 && S_ISREG(info.st_mode) && info.st_size >= 0;
    if (ok) {
        out.resize(size_t(info.st_size));
        ok = out.empty() || std::fread(out.data(), 1, out.size(), fp) == out.size();
    }
    std::fclose(fp);
    return ok;
}

bool WriteWholeFile(const std::string &path, const std::vector<uint8_t> &bytes) {
    FILE *fp = std::fopen(path.c_str(), "wb");
    if (!fp)
        return false;
    bool ok = bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), fp) == bytes.size();
    ok = std::fclose(fp) == 0 && ok;
    return ok;
}

// Every entry point catches what the standard library may throw (an allocation that fails on a
// size taken from a file or a caller), so that the C boundary only ever sees a result.
template <class Body> int32_t Guarded(Body body) {
    try {
        return body();
    } catch (...) {
        return kFailed;
    }
}

} // namespace

extern "C" {

BRIX_API int32_t _brx_get_keyed(BrxHandle object, uint32_t key, const void *input, void *output,
                                uint32_t) {
    return Guarded([&] { return GetKeyed(object, key, input, output, false); });
}

BRIX_API int32_t _wcbrx_get_keyed(BrxHandle object, uint32_t key, const void *input, void *output,
                                  uint32_t) {
    return Guarded([&] { return GetKeyed(object, key, input, output, true); });
}

BRIX_API int32_t _brx_set_value(BrxHandle object, uint32_t key, const void *value, uint32_t) {
    return Guarded([&] {
        const CHandleEntry *e = State().Lookup(object);
        if (!e)
            return kFailed;
        return SetAttribute(*e, key, value) ? kOk : kFailed;
    });
}

BRIX_API int32_t _brx_create_object(BrxHandle parent, int32_t, uint32_t kind, uint32_t count,
                                    const BrxAttr *attrs, BrxHandle *out, uint32_t) {
    return Guarded([&] { return Create(parent, kind, count, attrs, out); });
}

BRIX_API int32_t _brx_open_file(const char *path, uint32_t *mode, BrxHandle *out_file, uint32_t) {
    return Guarded([&] {
        if (!path || !out_file)
            return kFailed;
        auto owned = std::make_unique<CBrxFile>(0, path, false);
        if (!ReadWholeFile(path, owned->m_Image))
            return kFailed;
        CBrxFile *f = State().Adopt(std::move(owned));
        bool ok = f->m_Handle != 0;
        if (ok && LooksLikeElf(f->m_Image))
            ok = ReadElf(*f);
        else if (ok && LooksLikeCoff(f->m_Image))
            ok = ReadCoff(*f);
        else
            ok = false;
        if (!ok || f->m_bOutOfHandles) {
            State().Close(f);
            return kFailed;
        }
        if (mode)
            *mode = f->m_nObjectKind;
        *out_file = f->m_Handle;
        return kOk;
    });
}

BRIX_API int32_t _brx_new_file(const char *path, int32_t format, BrxHandle *out_file) {
    return Guarded([&] {
        if (!path || !out_file || format < BRX_FORMAT_ELF32 || format > BRX_FORMAT_COFF)
            return kFailed;
        CBrxFile *f = State().Adopt(std::make_unique<CBrxFile>(format, path, true));
        f->AddSymbolTable();
        if (f->m_bOutOfHandles || f->m_Handle == 0) {
            State().Close(f);
            return kFailed;
        }
        *out_file = f->m_Handle;
        return kOk;
    });
}

BRIX_API int32_t _brx_write_file(BrxHandle file) {
    return Guarded([&] {
        const CHandleEntry *e = LookupKind(file, Kind::File);
        if (!e || !e->m_pFile->m_bWritable)
            return kFailed;
        const CBrxFile &f = *e->m_pFile;
        std::vector<uint8_t> bytes;
        bool ok = f.m_nFormat == BRX_FORMAT_COFF ? WriteCoff(f, bytes) : WriteElf(f, bytes);
        return ok && WriteWholeFile(f.m_Path, bytes) ? kOk : kFailed;
    });
}

BRIX_API int32_t _brx_close_file(BrxHandle file) {
    return Guarded([&] {
        const CHandleEntry *e = LookupKind(file, Kind::File);
        if (!e)
            return kFailed;
        State().Close(e->m_pFile);
        return kOk;
    });
}

} // extern "C"
