#include "Attributes.h"

#include <algorithm>

namespace brix {

namespace {

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

} // namespace

unsigned NumericWidth(uint32_t key) {
    switch (key) {
    case BRX_KEY_SECTION_FLAGS:
        return 2;
    case BRX_KEY_FORMAT:
    case BRX_KEY_SYMBOL_STORAGE:
    case BRX_KEY_OBJECT_KIND:
    case BRX_KEY_MACHINE:
    case BRX_KEY_MACHINE_FLAGS:
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
    case BRX_KEY_SYMBOL_SIZE:
    case BRX_KEY_RELOC_OFFSET:
    case BRX_KEY_RELOC_ADDEND:
    case BRX_KEY_LINE_ITEM_ADDRESS:
    case BRX_KEY_LINE_BLOCK_END:
        return 8;
    default:
        return 0;
    }
}

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
        case BRX_KEY_MACHINE_FLAGS:
            out = f.m_nMachineFlags;
            return f.m_nFormat != BRX_FORMAT_COFF;
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
        case BRX_KEY_SYMBOL_SIZE:
            out = s.m_nSize;
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
        case BRX_KEY_LINE_BLOCK_END:
            out = b.m_nCodeEnd;
            return true;
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

bool WriteBytes(CSection &s, BrxBytes *rec) {
    if (!rec || rec->offset > s.Size() || (rec->count > 0 && !rec->data))
        return false;
    if (rec->count > UINT64_MAX - rec->offset || s.Inflate() != BRX_OK)
        return false;
    s.MakeWritable();
    uint64_t end = rec->offset + rec->count;
    if (end > s.m_Data.size()) {
        if (end > s.m_Data.max_size())
            return false;
        // Doubling keeps appends amortised O(1) even when callers append a few bytes at a time.
        if (end > s.m_Data.capacity())
            s.m_Data.reserve(std::max<uint64_t>(end, 2 * s.m_Data.capacity()));
        s.m_Data.resize(end);
    }
    if (rec->count > 0)
        std::memcpy(s.m_Data.data() + rec->offset, rec->data, rec->count);
    return true;
}

bool SetAttribute(const CHandleEntry &e, uint32_t key, const void *value) {
    CBrxFile &f = *e.m_pFile;
    if (!value)
        return false;
    uint32_t u32 = 0;
    switch (e.m_Kind) {
    case Kind::File:
        // A file read back is what it is; only a file being made takes a machine.
        if (key == BRX_KEY_MACHINE)
            return f.m_bWritable && Load(value, f.m_nMachine);
        if (key == BRX_KEY_MACHINE_FLAGS)
            return f.m_bWritable && f.m_nFormat != BRX_FORMAT_COFF &&
                   Load(value, f.m_nMachineFlags);
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
            return WriteBytes(s, static_cast<BrxBytes *>(const_cast<void *>(value)));
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
        return false;
    }
    default:
        return false;
    }
}

} // namespace brix
