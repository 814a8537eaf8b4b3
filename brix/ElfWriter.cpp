// Writes a file of the object model as a relocatable little-endian ELF32 or ELF64 object.
//
// Section header order: the null section; for every section of the model, in creation order, its
// COMDAT group (when it leads one), the section itself and its relocation section (REL on machines
// whose ABI keeps the addend in the relocated field, RELA elsewhere); then .symtab,
// .symtab_shndx (only with 0xff00 sections or more), .strtab and .shstrtab. Symbol order: the null
// symbol, source files, section symbols, the other local symbols, then the global ones (sh_info of
// .symtab is the first global).
#include "ByteBuffer.h"
#include "ElfFormat.h"
#include "Formats.h"

#include <algorithm>
#include <string>

namespace brix {

namespace {

using namespace elf;

constexpr uint32_t kNone = 0xffffffffu;

struct COutSection {
    uint32_t m_nName = 0; // offset in .shstrtab
    uint32_t m_nType = SHT_NULL;
    uint64_t m_nFlags = 0;
    uint64_t m_nAddress = 0;
    uint64_t m_nOffset = 0;
    uint64_t m_nSize = 0;
    uint32_t m_nLink = 0;
    uint32_t m_nInfo = 0;
    uint64_t m_nAlignment = 1;
    uint64_t m_nEntrySize = 0;
};

bool Fits32(uint64_t v);

class CElfWriter {
public:
    CElfWriter(const CBrxFile &file, CByteBuffer &out)
        : m_File(file), m_Out(out), m_b64(file.m_nFormat == BRX_FORMAT_ELF64),
          m_bRel(UsesRel(file.m_nMachine)), m_nWord(m_b64 ? 8 : 4) {}

    bool Write();

private:
    // Index in the model's section vector of a section handle of this file, or kNone.
    uint32_t SectionIndex(BrxHandle handle) const {
        const CHandleEntry *e = LookupKind(handle, Kind::Section);
        return e && e->m_pFile == &m_File ? e->m_nIndex : kNone;
    }
    uint32_t AddName(std::string &table, std::string_view name) {
        if (name.empty())
            return 0;
        uint32_t at = uint32_t(table.size());
        table.append(name);
        table.push_back('\0');
        return at;
    }

    bool PlanGroups();
    bool PlanSymbols();
    bool PlanImplicitAddends() const;
    void WriteImplicitAddends(const CSection &s, uint64_t at);
    unsigned RelocationEntrySize() const {
        return m_bRel ? (m_b64 ? kRelSize64 : kRelSize32) : (m_b64 ? kRelaSize64 : kRelaSize32);
    }
    void PlanSections();
    void WriteContents();
    void WriteSymbolTable();
    uint16_t SymbolSectionField(size_t symbol, uint32_t header);
    // .strtab is not kept: a name's offset is counted out while .symtab is written, and the
    // names are written again, in the same order, as .strtab.
    uint32_t StrTabName(std::string_view name) {
        if (name.empty())
            return 0;
        uint32_t at = m_nStrTabSize;
        m_nStrTabSize += uint32_t(name.size()) + 1;
        return at;
    }
    void WriteStrTab();
    void WriteRelocations(const CSection &s);
    void WriteSymbol(uint32_t name, uint64_t value, uint8_t info, uint16_t shndx);
    void WriteHeaders(uint64_t sectionHeaders);

    const CBrxFile &m_File;
    CByteBuffer &m_Out;
    bool m_b64;
    bool m_bRel; // REL relocation sections, the addends written into the relocated fields
    unsigned m_nWord;

    // Per model section.
    std::vector<uint32_t> m_GroupLeader;   // the leader of the group it belongs to, or kNone
    std::vector<uint32_t> m_SectionSymbol; // index of its section symbol, or 0 without one
    std::vector<uint32_t> m_Signature;     // for a leader: index of its signature symbol
    std::vector<uint32_t> m_HeaderIndex;   // its section header index
    std::vector<uint32_t> m_RelaIndex;     // its RELA section header index, or 0
    std::vector<uint32_t> m_GroupIndex;    // for a leader: its SHT_GROUP header index
    std::vector<std::vector<uint32_t>> m_GroupMembers; // for a leader: member header indices

    // Per model symbol: its index in .symtab.
    std::vector<uint32_t> m_SymbolIndex;
    // .symtab in order: (model symbol index, or kNone + section for a section symbol).
    struct CSymbolSlot {
        uint32_t m_nSymbol;  // model symbol, or kNone
        uint32_t m_nSection; // for a section symbol: the model section
    };
    std::vector<CSymbolSlot> m_SymbolOrder;
    uint32_t m_nFirstGlobal = 0;

    std::vector<COutSection> m_Headers;
    std::string m_ShStrTab{'\0'};
    uint32_t m_nStrTabSize = 1; // starts with the empty name
    uint32_t m_nSymTab = 0, m_nStrTab = 0, m_nShStrTab = 0;
    uint32_t m_nSymTabIndices = 0;           // .symtab_shndx, 0 when not needed
    std::vector<uint32_t> m_ExtendedIndices; // its content, filled while .symtab is written
};

bool CElfWriter::PlanGroups() {
    size_t n = m_File.m_Sections.size();
    m_GroupLeader.assign(n, kNone);
    for (size_t i = 0; i < n; ++i) {
        uint32_t selection = m_File.m_Sections[i].m_nComdatSelection;
        if (selection != BRX_COMDAT_NONE && selection != BRX_COMDAT_ASSOCIATIVE)
            m_GroupLeader[i] = uint32_t(i);
    }
    // Sections tied to a COMDAT section join its group; a tie to a plain section means nothing
    // in ELF.
    for (size_t i = 0; i < n; ++i) {
        const CSection &s = m_File.m_Sections[i];
        if (s.m_nComdatSelection != BRX_COMDAT_ASSOCIATIVE)
            continue;
        uint32_t target = SectionIndex(s.m_AssociatedSection);
        if (target == kNone)
            return false;
        if (m_GroupLeader[target] == target)
            m_GroupLeader[i] = target;
    }
    return true;
}

bool CElfWriter::PlanSymbols() {
    size_t sectionCount = m_File.m_Sections.size();
    m_SectionSymbol.assign(sectionCount, 0);
    m_Signature.assign(sectionCount, 0);
    std::vector<bool> needsSectionSymbol(sectionCount, false);
    for (const CRelocation &r : m_File.m_Relocations) {
        const CHandleEntry *t = State().Lookup(r.m_Target);
        if (!t || t->m_pFile != &m_File)
            return false;
        if (t->m_Kind == Kind::Section)
            needsSectionSymbol[t->m_nIndex] = true;
        else if (t->m_Kind != Kind::Symbol)
            return false;
    }

    // A group's signature is the first global symbol defined in its leader, else the first
    // local one, else the leader's section symbol.
    std::vector<uint32_t> signatureSymbol(sectionCount, kNone);
    for (size_t i = 0; i < m_File.m_Symbols.size(); ++i) {
        const CSymbol &s = m_File.m_Symbols[i];
        if (s.m_Section == 0)
            continue;
        uint32_t section = SectionIndex(s.m_Section);
        if (section == kNone)
            return false;
        if (m_GroupLeader[section] != section)
            continue;
        uint32_t &current = signatureSymbol[section];
        if (current == kNone || (s.m_nBinding == BRX_BINDING_GLOBAL &&
                                 m_File.m_Symbols[current].m_nBinding != BRX_BINDING_GLOBAL))
            current = uint32_t(i);
    }
    for (size_t i = 0; i < sectionCount; ++i)
        if (m_GroupLeader[i] == i && signatureSymbol[i] == kNone)
            needsSectionSymbol[i] = true;

    size_t sectionSymbols = 0;
    for (size_t i = 0; i < sectionCount; ++i)
        sectionSymbols += needsSectionSymbol[i] ? 1 : 0;
    m_SymbolOrder.reserve(1 + sectionSymbols + m_File.m_Symbols.size());
    m_SymbolOrder.push_back({kNone, kNone}); // the null symbol
    for (size_t i = 0; i < m_File.m_Symbols.size(); ++i) {
        const CSymbol &s = m_File.m_Symbols[i];
        if (s.m_nType == BRX_SYMBOL_SOURCE_FILE && s.m_nBinding != BRX_BINDING_GLOBAL)
            m_SymbolOrder.push_back({uint32_t(i), kNone});
    }
    for (size_t i = 0; i < sectionCount; ++i) {
        if (!needsSectionSymbol[i])
            continue;
        m_SectionSymbol[i] = uint32_t(m_SymbolOrder.size());
        m_SymbolOrder.push_back({kNone, uint32_t(i)});
    }
    for (size_t i = 0; i < m_File.m_Symbols.size(); ++i) {
        const CSymbol &s = m_File.m_Symbols[i];
        if (s.m_nType != BRX_SYMBOL_SOURCE_FILE && s.m_nBinding != BRX_BINDING_GLOBAL)
            m_SymbolOrder.push_back({uint32_t(i), kNone});
    }
    m_nFirstGlobal = uint32_t(m_SymbolOrder.size());
    for (size_t i = 0; i < m_File.m_Symbols.size(); ++i)
        if (m_File.m_Symbols[i].m_nBinding == BRX_BINDING_GLOBAL)
            m_SymbolOrder.push_back({uint32_t(i), kNone});

    m_SymbolIndex.assign(m_File.m_Symbols.size(), 0);
    for (size_t k = 0; k < m_SymbolOrder.size(); ++k)
        if (m_SymbolOrder[k].m_nSymbol != kNone)
            m_SymbolIndex[m_SymbolOrder[k].m_nSymbol] = uint32_t(k);
    for (size_t i = 0; i < sectionCount; ++i)
        if (m_GroupLeader[i] == i)
            m_Signature[i] = signatureSymbol[i] != kNone ? m_SymbolIndex[signatureSymbol[i]]
                                                         : m_SectionSymbol[i];
    return true;
}

void CElfWriter::PlanSections() {
    size_t n = m_File.m_Sections.size();
    m_HeaderIndex.assign(n, 0);
    m_RelaIndex.assign(n, 0);
    m_GroupIndex.assign(n, 0);
    m_GroupMembers.assign(n, {});
    m_Headers.emplace_back(); // the null section

    for (size_t i = 0; i < n; ++i) {
        const CSection &s = m_File.m_Sections[i];
        bool inGroup = m_GroupLeader[i] != kNone;
        if (m_GroupLeader[i] == i) {
            m_GroupIndex[i] = uint32_t(m_Headers.size());
            COutSection &g = m_Headers.emplace_back();
            g.m_nName = AddName(m_ShStrTab, ".group");
            g.m_nType = SHT_GROUP;
            g.m_nAlignment = 4;
            g.m_nEntrySize = 4;
            g.m_nInfo = m_Signature[i];
        }
        m_HeaderIndex[i] = uint32_t(m_Headers.size());
        COutSection &h = m_Headers.emplace_back();
        h.m_nName = AddName(m_ShStrTab, s.m_Name);
        h.m_nType = SHT_PROGBITS;
        if (s.IsCode())
            h.m_nFlags = SHF_ALLOC | SHF_EXECINSTR;
        else if (!s.IsDebug())
            h.m_nFlags = SHF_ALLOC | SHF_WRITE;
        if (inGroup)
            h.m_nFlags |= SHF_GROUP;
        h.m_nAddress = s.m_nAddress;
        h.m_nSize = s.Size();
        h.m_nAlignment = s.m_nAlignment;
        if (inGroup)
            m_GroupMembers[m_GroupLeader[i]].push_back(m_HeaderIndex[i]);

        if (!s.m_Relocations.empty()) {
            m_RelaIndex[i] = uint32_t(m_Headers.size());
            COutSection &r = m_Headers.emplace_back();
            r.m_nName = AddName(m_ShStrTab, (m_bRel ? ".rel" : ".rela") + s.m_Name);
            r.m_nType = m_bRel ? SHT_REL : SHT_RELA;
            r.m_nFlags = SHF_INFO_LINK | (inGroup ? SHF_GROUP : 0);
            r.m_nInfo = m_HeaderIndex[i];
            r.m_nAlignment = m_nWord;
            r.m_nEntrySize = RelocationEntrySize();
            r.m_nSize = uint64_t(s.m_Relocations.size()) * r.m_nEntrySize;
            if (inGroup)
                m_GroupMembers[m_GroupLeader[i]].push_back(m_RelaIndex[i]);
        }
    }
    m_nSymTab = uint32_t(m_Headers.size());
    COutSection &sym = m_Headers.emplace_back();
    sym.m_nName = AddName(m_ShStrTab, ".symtab");
    sym.m_nType = SHT_SYMTAB;
    sym.m_nAlignment = m_nWord;
    sym.m_nEntrySize = m_b64 ? kSymSize64 : kSymSize32;
    sym.m_nSize = uint64_t(m_SymbolOrder.size()) * sym.m_nEntrySize;
    sym.m_nInfo = m_nFirstGlobal;

    // Section numbers from 0xff00 on do not fit in a symbol's 16-bit field: such symbols say
    // SHN_XINDEX and their numbers go into a parallel table.
    if (m_Headers.size() + 3 >= SHN_LORESERVE) {
        m_nSymTabIndices = uint32_t(m_Headers.size());
        COutSection &x = m_Headers.emplace_back();
        x.m_nName = AddName(m_ShStrTab, ".symtab_shndx");
        x.m_nType = SHT_SYMTAB_SHNDX;
        x.m_nAlignment = 4;
        x.m_nEntrySize = 4;
        x.m_nSize = 4 * uint64_t(m_SymbolOrder.size());
        x.m_nLink = m_nSymTab;
        m_ExtendedIndices.assign(m_SymbolOrder.size(), 0);
    }

    m_nStrTab = uint32_t(m_Headers.size());
    m_Headers.emplace_back().m_nType = SHT_STRTAB;
    m_Headers[m_nStrTab].m_nName = AddName(m_ShStrTab, ".strtab");
    m_Headers[m_nSymTab].m_nLink = m_nStrTab;

    m_nShStrTab = uint32_t(m_Headers.size());
    m_Headers.emplace_back().m_nType = SHT_STRTAB;
    m_Headers[m_nShStrTab].m_nName = AddName(m_ShStrTab, ".shstrtab");

    for (size_t i = 0; i < n; ++i) {
        if (m_RelaIndex[i] != 0)
            m_Headers[m_RelaIndex[i]].m_nLink = m_nSymTab;
        if (m_GroupLeader[i] == i) {
            COutSection &g = m_Headers[m_GroupIndex[i]];
            g.m_nLink = m_nSymTab;
            g.m_nSize = 4 * (1 + uint64_t(m_GroupMembers[i].size()));
        }
    }
}

// Every addend must fit the field that will hold it, and a non-zero one needs a relocation type
// whose field this library knows.
bool CElfWriter::PlanImplicitAddends() const {
    for (const CRelocation &r : m_File.m_Relocations) {
        unsigned width = RelFieldWidth(m_File.m_nMachine, r.m_nType);
        if (width == 0) {
            if (r.m_nAddend != 0)
                return false;
            continue;
        }
        if (r.m_nOffset > m_File.m_Sections[r.m_nSection].Size() ||
            m_File.m_Sections[r.m_nSection].Size() - r.m_nOffset < width)
            return false;
        int64_t low = -(int64_t(1) << (8 * width - 1));
        int64_t high = (int64_t(1) << (8 * width)) - 1;
        if (r.m_nAddend < low || r.m_nAddend > high)
            return false;
    }
    return true;
}

// The model keeps addends apart from the bytes (as RELA does): the field of each relocation gets
// its addend, whatever the bytes there were. Fields that already hold it are left alone.
void CElfWriter::WriteImplicitAddends(const CSection &s, uint64_t at) {
    for (uint32_t index : s.m_Relocations) {
        const CRelocation &r = m_File.m_Relocations[index];
        unsigned width = RelFieldWidth(m_File.m_nMachine, r.m_nType);
        if (width == 0)
            continue;
        uint8_t field[8] = {};
        s.Read(r.m_nOffset, width, field);
        uint64_t present = 0;
        for (unsigned i = 0; i < width; ++i)
            present |= uint64_t(field[i]) << (8 * i);
        uint64_t mask = width == 8 ? ~uint64_t(0) : (uint64_t(1) << (8 * width)) - 1;
        uint64_t wanted = uint64_t(r.m_nAddend) & mask;
        if (present != wanted)
            m_Out.PatchWord(at + r.m_nOffset, wanted, width);
    }
}

void CElfWriter::WriteSymbol(uint32_t name, uint64_t value, uint8_t info, uint16_t shndx) {
    CByteBuffer &b = m_Out;
    b.U32(name);
    if (m_b64) {
        b.U8(info);
        b.U8(0);
        b.U16(shndx);
        b.U64(value);
        b.U64(0);
    } else {
        b.U32(uint32_t(value));
        b.U32(0);
        b.U8(info);
        b.U8(0);
        b.U16(shndx);
    }
}

uint16_t CElfWriter::SymbolSectionField(size_t symbol, uint32_t header) {
    if (header < SHN_LORESERVE)
        return uint16_t(header);
    m_ExtendedIndices[symbol] = header;
    return SHN_XINDEX;
}

void CElfWriter::WriteSymbolTable() {
    for (size_t k = 0; k < m_SymbolOrder.size(); ++k) {
        const CSymbolSlot &slot = m_SymbolOrder[k];
        if (slot.m_nSymbol == kNone && slot.m_nSection == kNone) {
            WriteSymbol(0, 0, 0, SHN_UNDEF);
        } else if (slot.m_nSymbol == kNone) {
            WriteSymbol(0, 0, uint8_t((STB_LOCAL << 4) | STT_SECTION),
                        SymbolSectionField(k, m_HeaderIndex[slot.m_nSection]));
        } else {
            const CSymbol &s = m_File.m_Symbols[slot.m_nSymbol];
            uint8_t bind = s.m_nBinding == BRX_BINDING_GLOBAL ? STB_GLOBAL : STB_LOCAL;
            uint8_t type = s.m_nType == BRX_SYMBOL_FUNCTION      ? STT_FUNC
                           : s.m_nType == BRX_SYMBOL_SOURCE_FILE ? STT_FILE
                                                                 : STT_NOTYPE;
            uint16_t shndx = SHN_UNDEF;
            if (type == STT_FILE)
                shndx = SHN_ABS;
            else if (s.m_Section != 0)
                shndx = SymbolSectionField(k, m_HeaderIndex[SectionIndex(s.m_Section)]);
            WriteSymbol(StrTabName(m_File.SymbolName(s)), s.m_nOffset, uint8_t((bind << 4) | type),
                        shndx);
        }
    }
}

void CElfWriter::WriteStrTab() {
    CByteBuffer &b = m_Out;
    b.U8(0);
    for (const CSymbolSlot &slot : m_SymbolOrder) {
        if (slot.m_nSymbol == kNone)
            continue;
        std::string_view name = m_File.SymbolName(m_File.m_Symbols[slot.m_nSymbol]);
        if (name.empty())
            continue;
        b.Bytes(name.data(), name.size());
        b.U8(0);
    }
}

void CElfWriter::WriteRelocations(const CSection &s) {
    CByteBuffer &b = m_Out;
    for (uint32_t r : m_File.RelocationsByOffset(s)) {
        const CRelocation &rel = m_File.m_Relocations[r];
        // PlanSymbols has checked every target.
        const CHandleEntry *t = State().Lookup(rel.m_Target);
        uint64_t symbol =
            t->m_Kind == Kind::Section ? m_SectionSymbol[t->m_nIndex] : m_SymbolIndex[t->m_nIndex];
        if (m_b64) {
            b.U64(rel.m_nOffset);
            b.U64((symbol << 32) | rel.m_nType);
            if (!m_bRel)
                b.U64(uint64_t(rel.m_nAddend));
        } else {
            b.U32(uint32_t(rel.m_nOffset));
            b.U32(uint32_t((symbol << 8) | (rel.m_nType & 0xff)));
            if (!m_bRel)
                b.U32(uint32_t(rel.m_nAddend));
        }
    }
}

void CElfWriter::WriteContents() {
    CByteBuffer &b = m_Out;
    // What each header stands for, so that the walk below is one step per header.
    enum class Role : uint8_t { Section, Rela, Group, Table };
    std::vector<Role> role(m_Headers.size(), Role::Table);
    std::vector<uint32_t> model(m_Headers.size(), kNone);
    for (size_t i = 0; i < m_File.m_Sections.size(); ++i) {
        role[m_HeaderIndex[i]] = Role::Section;
        model[m_HeaderIndex[i]] = uint32_t(i);
        if (m_RelaIndex[i]) {
            role[m_RelaIndex[i]] = Role::Rela;
            model[m_RelaIndex[i]] = uint32_t(i);
        }
        if (m_GroupLeader[i] == i) {
            role[m_GroupIndex[i]] = Role::Group;
            model[m_GroupIndex[i]] = uint32_t(i);
        }
    }
    for (size_t h = 1; h < m_Headers.size(); ++h) {
        COutSection &out = m_Headers[h];
        b.AlignTo(out.m_nAlignment);
        out.m_nOffset = b.Size();
        switch (role[h]) {
        case Role::Section: {
            const CSection &s = m_File.m_Sections[model[h]];
            if (s.m_bUsesView && s.m_bZeroFill)
                b.Zeros(s.Size());
            else if (s.Size() > 0)
                b.Bytes(s.m_bUsesView ? s.m_pView : s.m_Data.data(), s.Size());
            if (m_bRel)
                WriteImplicitAddends(s, out.m_nOffset);
            break;
        }
        case Role::Rela:
            WriteRelocations(m_File.m_Sections[model[h]]);
            break;
        case Role::Group:
            b.U32(GRP_COMDAT);
            for (uint32_t member : m_GroupMembers[model[h]])
                b.U32(member);
            break;
        case Role::Table:
            if (h == m_nSymTab) {
                WriteSymbolTable();
            } else if (h == m_nSymTabIndices) {
                for (uint32_t index : m_ExtendedIndices)
                    b.U32(index);
            } else if (h == m_nStrTab) {
                WriteStrTab();
                out.m_nSize = b.Size() - out.m_nOffset;
            } else {
                b.Bytes(m_ShStrTab.data(), m_ShStrTab.size());
                out.m_nSize = m_ShStrTab.size();
            }
            break;
        }
    }
}

void CElfWriter::WriteHeaders(uint64_t sectionHeaders) {
    CByteBuffer &b = m_Out;
    if (m_Headers.size() >= SHN_LORESERVE)
        m_Headers[0].m_nSize = m_Headers.size();
    if (m_nShStrTab >= SHN_LORESERVE)
        m_Headers[0].m_nLink = m_nShStrTab;
    for (const COutSection &h : m_Headers) {
        b.U32(h.m_nName);
        b.U32(h.m_nType);
        b.Word(h.m_nFlags, m_nWord);
        b.Word(h.m_nAddress, m_nWord);
        b.Word(h.m_nOffset, m_nWord);
        b.Word(h.m_nSize, m_nWord);
        b.U32(h.m_nLink);
        b.U32(h.m_nInfo);
        b.Word(h.m_nAlignment, m_nWord);
        b.Word(h.m_nEntrySize, m_nWord);
    }
    // The file header, at offset 0.
    CByteBuffer e; // in memory
    e.Bytes(ELFMAG, 4);
    e.U8(m_b64 ? ELFCLASS64 : ELFCLASS32);
    e.U8(ELFDATA2LSB);
    e.U8(EV_CURRENT);
    e.Zeros(EI_NIDENT - 7);
    e.U16(ET_REL);
    e.U16(uint16_t(m_File.m_nMachine));
    e.U32(EV_CURRENT);
    e.Word(0, m_nWord); // e_entry
    e.Word(0, m_nWord); // e_phoff
    e.Word(sectionHeaders, m_nWord);
    e.U32(m_File.m_nMachineFlags);
    e.U16(uint16_t(m_b64 ? kEhdrSize64 : kEhdrSize32));
    e.U16(0); // e_phentsize
    e.U16(0); // e_phnum
    e.U16(uint16_t(m_b64 ? kShdrSize64 : kShdrSize32));
    // Counts and indices from 0xff00 on are kept in the null section header.
    e.U16(m_Headers.size() < SHN_LORESERVE ? uint16_t(m_Headers.size()) : 0);
    e.U16(m_nShStrTab < SHN_LORESERVE ? uint16_t(m_nShStrTab) : SHN_XINDEX);
    m_Out.PatchBytes(0, e.Data().data(), e.Data().size());
}

bool Fits32(uint64_t v) {
    return v <= 0xffffffffu;
}

bool CElfWriter::Write() {
    if (!PlanGroups() || !PlanSymbols() || (m_bRel && !PlanImplicitAddends()))
        return false;
    PlanSections();

    uint64_t total = m_b64 ? kEhdrSize64 : kEhdrSize32;
    for (const CSection &s : m_File.m_Sections)
        total += s.Size() + s.m_nAlignment;
    total += uint64_t(m_File.m_Relocations.size()) * RelocationEntrySize();
    total += uint64_t(m_SymbolOrder.size()) * (m_b64 ? kSymSize64 : kSymSize32);
    total += m_File.m_Names.size() + m_SymbolOrder.size() + m_ShStrTab.size();
    total += 4 * m_ExtendedIndices.size();
    total += uint64_t(m_Headers.size()) * (m_b64 ? kShdrSize64 : kShdrSize32) + 64;
    if (!m_b64 && !Fits32(total))
        return false;
    CByteBuffer &b = m_Out;
    b.Zeros(m_b64 ? kEhdrSize64 : kEhdrSize32); // filled in at the end

    WriteContents();
    b.AlignTo(m_nWord);
    uint64_t sectionHeaders = b.Size();
    WriteHeaders(sectionHeaders);
    if (!m_b64 && !Fits32(m_Out.Size()))
        return false;
    return true;
}

} // namespace

bool WriteElf(const CBrxFile &file, CByteBuffer &out) {
    return CElfWriter(file, out).Write();
}

} // namespace brix
