// Writes a file of the object model as a COFF object.
//
// Layout: file header, section table, then per section its raw data followed by its relocations,
// then the symbol table and the string table. Symbol order: source files (FILE records with the
// name in auxiliary records), then per section its section symbol with the section-definition
// record (followed, for a COMDAT section that is not associative, by its COMDAT symbol), then the
// remaining symbols in creation order.
#include "ByteBuffer.h"
#include "CoffFormat.h"
#include "Formats.h"

#include <string>

namespace brix {

namespace {

using namespace coff;

constexpr uint32_t kNone = 0xffffffffu;
// Section numbers at and above this value are reserved (absolute, debug).
constexpr size_t kMaxSections = 0xfeff;
constexpr uint32_t kMaxRelocationsInField = 0xffff;

class CCoffWriter {
public:
    CCoffWriter(const CBrxFile &file, CByteBuffer &out) : m_File(file), m_Out(out) {}

    bool Write();

private:
    uint32_t SectionIndex(BrxHandle handle) const {
        const CHandleEntry *e = LookupKind(handle, Kind::Section);
        return e && e->m_pFile == &m_File ? e->m_nIndex : kNone;
    }
    uint32_t AddString(std::string_view s) {
        uint32_t at = uint32_t(m_Strings.size());
        m_Strings.append(s);
        m_Strings.push_back('\0');
        return at;
    }
    bool PlanSymbols();
    bool SectionCharacteristics(const CSection &s, uint32_t &out) const;
    void WriteSymbolName(std::string_view name);
    void WriteSymbol(std::string_view name, uint32_t value, int16_t section, uint16_t type,
                     uint8_t storageClass, uint8_t auxCount);
    void WriteSymbols();

    const CBrxFile &m_File;
    CByteBuffer &m_Out;
    // The string table starts with its own 4-byte size, so offsets count from there.
    std::string m_Strings = std::string(4, '\0');

    std::vector<uint32_t> m_ComdatSymbol;  // per section: its COMDAT symbol (model index) or kNone
    std::vector<uint32_t> m_SectionSymbol; // per section: its section symbol's table index
    std::vector<uint32_t> m_SymbolIndex;   // per model symbol: its table index
    std::vector<bool> m_PlacedEarly;       // per model symbol: written as a COMDAT symbol
    uint32_t m_nSymbolCount = 0;           // records, auxiliary ones included
};

uint32_t FileAuxCount(size_t nameLength) {
    return uint32_t((nameLength + kSymbolSize - 1) / kSymbolSize);
}

bool CCoffWriter::PlanSymbols() {
    size_t sections = m_File.m_Sections.size();
    size_t symbols = m_File.m_Symbols.size();
    m_ComdatSymbol.assign(sections, kNone);
    m_SectionSymbol.assign(sections, 0);
    m_SymbolIndex.assign(symbols, 0);
    m_PlacedEarly.assign(symbols, false);

    // The COMDAT symbol of a section is its first global symbol, else its first symbol.
    for (size_t i = 0; i < symbols; ++i) {
        const CSymbol &s = m_File.m_Symbols[i];
        if (s.m_Section == 0 || s.m_nType == BRX_SYMBOL_SOURCE_FILE)
            continue;
        uint32_t section = SectionIndex(s.m_Section);
        if (section == kNone)
            return false;
        uint32_t selection = m_File.m_Sections[section].m_nComdatSelection;
        if (selection == BRX_COMDAT_NONE || selection == BRX_COMDAT_ASSOCIATIVE)
            continue;
        uint32_t &current = m_ComdatSymbol[section];
        if (current == kNone || (s.m_nBinding == BRX_BINDING_GLOBAL &&
                                 m_File.m_Symbols[current].m_nBinding != BRX_BINDING_GLOBAL))
            current = uint32_t(i);
    }

    uint32_t next = 0;
    for (size_t i = 0; i < symbols; ++i) {
        const CSymbol &s = m_File.m_Symbols[i];
        if (s.m_nType == BRX_SYMBOL_SOURCE_FILE) {
            m_SymbolIndex[i] = next;
            next += 1 + FileAuxCount(m_File.SymbolName(s).size());
        }
    }
    for (size_t i = 0; i < sections; ++i) {
        m_SectionSymbol[i] = next;
        next += 2;
        uint32_t selection = m_File.m_Sections[i].m_nComdatSelection;
        if (selection != BRX_COMDAT_NONE && selection != BRX_COMDAT_ASSOCIATIVE) {
            // Without a symbol of its own the section gets one named after it.
            if (m_ComdatSymbol[i] != kNone) {
                m_SymbolIndex[m_ComdatSymbol[i]] = next;
                m_PlacedEarly[m_ComdatSymbol[i]] = true;
            }
            next += 1;
        }
    }
    for (size_t i = 0; i < symbols; ++i) {
        const CSymbol &s = m_File.m_Symbols[i];
        if (s.m_nType == BRX_SYMBOL_SOURCE_FILE || m_PlacedEarly[i])
            continue;
        if (s.m_Section != 0 && SectionIndex(s.m_Section) == kNone)
            return false;
        m_SymbolIndex[i] = next++;
    }
    m_nSymbolCount = next;
    for (const CRelocation &r : m_File.m_Relocations) {
        const CHandleEntry *t = State().Lookup(r.m_Target);
        if (!t || t->m_pFile != &m_File ||
            (t->m_Kind != Kind::Section && t->m_Kind != Kind::Symbol))
            return false;
    }
    return true;
}

bool CCoffWriter::SectionCharacteristics(const CSection &s, uint32_t &out) const {
    if (s.IsCode())
        out = IMAGE_SCN_CNT_CODE | IMAGE_SCN_MEM_EXECUTE | IMAGE_SCN_MEM_READ;
    else if (s.IsDebug())
        out = IMAGE_SCN_CNT_INITIALIZED_DATA | IMAGE_SCN_MEM_DISCARDABLE | IMAGE_SCN_MEM_READ;
    else
        out = IMAGE_SCN_CNT_INITIALIZED_DATA | IMAGE_SCN_MEM_READ | IMAGE_SCN_MEM_WRITE;
    // Alignments 1 to 8192 bytes are encoded as log2 + 1 in bits 20-23.
    uint32_t code = 1;
    while ((1u << (code - 1)) < s.m_nAlignment)
        ++code;
    if (code > 14)
        return false;
    out |= code << IMAGE_SCN_ALIGN_SHIFT;
    if (s.m_nComdatSelection != BRX_COMDAT_NONE)
        out |= IMAGE_SCN_LNK_COMDAT;
    if (s.m_Relocations.size() > kMaxRelocationsInField)
        out |= IMAGE_SCN_LNK_NRELOC_OVFL;
    return true;
}

void CCoffWriter::WriteSymbolName(std::string_view name) {
    CByteBuffer &b = m_Out;
    if (name.size() <= kShortNameSize) {
        b.FixedString(name, kShortNameSize);
    } else {
        b.U32(0);
        b.U32(AddString(name));
    }
}

void CCoffWriter::WriteSymbol(std::string_view name, uint32_t value, int16_t section, uint16_t type,
                              uint8_t storageClass, uint8_t auxCount) {
    CByteBuffer &b = m_Out;
    WriteSymbolName(name);
    b.U32(value);
    b.U16(uint16_t(section));
    b.U16(type);
    b.U8(storageClass);
    b.U8(auxCount);
}

void CCoffWriter::WriteSymbols() {
    CByteBuffer &b = m_Out;
    auto writeModelSymbol = [&](const CSymbol &s) {
        int16_t section = IMAGE_SYM_UNDEFINED;
        if (s.m_Section != 0)
            section = int16_t(SectionIndex(s.m_Section) + 1);
        uint16_t type = s.m_nType == BRX_SYMBOL_FUNCTION ? IMAGE_SYM_DTYPE_FUNCTION_TYPE : 0;
        uint8_t storage = s.m_nBinding == BRX_BINDING_GLOBAL || section == IMAGE_SYM_UNDEFINED
                              ? IMAGE_SYM_CLASS_EXTERNAL
                              : IMAGE_SYM_CLASS_STATIC;
        WriteSymbol(m_File.SymbolName(s), uint32_t(s.m_nOffset), section, type, storage, 0);
    };

    for (const CSymbol &s : m_File.m_Symbols) {
        if (s.m_nType != BRX_SYMBOL_SOURCE_FILE)
            continue;
        std::string_view name = m_File.SymbolName(s);
        uint32_t aux = FileAuxCount(name.size());
        WriteSymbol(".file", 0, IMAGE_SYM_DEBUG, 0, IMAGE_SYM_CLASS_FILE, uint8_t(aux));
        b.FixedString(name, size_t(aux) * kSymbolSize);
    }
    for (size_t i = 0; i < m_File.m_Sections.size(); ++i) {
        const CSection &s = m_File.m_Sections[i];
        int16_t number = int16_t(i + 1);
        WriteSymbol(s.m_Name, 0, number, 0, IMAGE_SYM_CLASS_STATIC, 1);
        // The section-definition record.
        size_t relocations = s.m_Relocations.size();
        b.U32(uint32_t(s.Size()));
        b.U16(
            uint16_t(relocations > kMaxRelocationsInField ? kMaxRelocationsInField : relocations));
        b.U16(0); // line numbers
        b.U32(0); // checksum
        uint32_t associated = s.m_nComdatSelection == BRX_COMDAT_ASSOCIATIVE
                                  ? SectionIndex(s.m_AssociatedSection) + 1
                                  : 0;
        b.U16(uint16_t(associated));
        b.U8(uint8_t(s.m_nComdatSelection));
        b.Zeros(3);
        if (s.m_nComdatSelection != BRX_COMDAT_NONE &&
            s.m_nComdatSelection != BRX_COMDAT_ASSOCIATIVE) {
            if (m_ComdatSymbol[i] != kNone)
                writeModelSymbol(m_File.m_Symbols[m_ComdatSymbol[i]]);
            else
                WriteSymbol(s.m_Name, 0, number, 0, IMAGE_SYM_CLASS_EXTERNAL, 0);
        }
    }
    for (size_t i = 0; i < m_File.m_Symbols.size(); ++i) {
        const CSymbol &s = m_File.m_Symbols[i];
        if (s.m_nType != BRX_SYMBOL_SOURCE_FILE && !m_PlacedEarly[i])
            writeModelSymbol(s);
    }
}

bool CCoffWriter::Write() {
    size_t n = m_File.m_Sections.size();
    if (n > kMaxSections || !PlanSymbols())
        return false;

    uint64_t total = kFileHeaderSize + uint64_t(n) * kSectionHeaderSize;
    for (const CSection &s : m_File.m_Sections)
        total += s.Size() + uint64_t(s.m_Relocations.size() + 1) * kRelocationSize;
    total += uint64_t(m_nSymbolCount) * kSymbolSize + m_File.m_Names.size() + 4;
    if (total > 0xffffffffu)
        return false;
    // Everything that can refuse the file is settled before the first byte is written.
    std::vector<uint32_t> characteristics(n, 0);
    std::vector<uint32_t> longName(n, kNone);
    for (size_t i = 0; i < n; ++i) {
        const CSection &s = m_File.m_Sections[i];
        if (!SectionCharacteristics(s, characteristics[i]))
            return false;
        if (s.m_Name.size() > kShortNameSize)
            longName[i] = AddString(s.m_Name);
    }
    // A "/n" name needs n in at most seven digits.
    if (m_Strings.size() > 9999999)
        return false;
    CByteBuffer &b = m_Out;

    b.U16(uint16_t(m_File.m_nMachine));
    b.U16(uint16_t(n));
    b.U32(0); // time stamp
    size_t symbolTableField = b.Size();
    b.U32(0); // symbol table pointer, patched below
    b.U32(m_nSymbolCount);
    b.U16(0); // optional header size
    b.U16(0); // characteristics

    std::vector<uint64_t> headerAt(n);
    for (size_t i = 0; i < n; ++i) {
        const CSection &s = m_File.m_Sections[i];
        headerAt[i] = b.Size();
        if (longName[i] == kNone)
            b.FixedString(s.m_Name, kShortNameSize);
        else
            b.FixedString("/" + std::to_string(longName[i]), kShortNameSize);
        b.U32(0); // virtual size
        b.U32(0); // virtual address
        b.U32(uint32_t(s.Size()));
        b.U32(0); // raw data pointer, patched below
        b.U32(0); // relocations pointer, patched below
        b.U32(0); // line numbers pointer
        size_t relocations = s.m_Relocations.size();
        b.U16(
            uint16_t(relocations > kMaxRelocationsInField ? kMaxRelocationsInField : relocations));
        b.U16(0); // line numbers
        b.U32(characteristics[i]);
    }

    for (size_t i = 0; i < n; ++i) {
        const CSection &s = m_File.m_Sections[i];
        if (s.Size() > 0) {
            b.PatchU32(headerAt[i] + 20, uint32_t(b.Size()));
            if (s.m_bUsesView && s.m_bZeroFill)
                b.Zeros(s.Size());
            else
                b.Bytes(s.m_bUsesView ? s.m_pView : s.m_Data.data(), s.Size());
        }
        if (s.m_Relocations.empty())
            continue;
        b.PatchU32(headerAt[i] + 24, uint32_t(b.Size()));
        // With more relocations than the 16-bit count holds, the first record carries the
        // count (itself included) in its address field.
        if (s.m_Relocations.size() > kMaxRelocationsInField) {
            b.U32(uint32_t(s.m_Relocations.size() + 1));
            b.U32(0);
            b.U16(0);
        }
        for (uint32_t r : m_File.RelocationsByOffset(s)) {
            const CRelocation &rel = m_File.m_Relocations[r];
            const CHandleEntry *t = State().Lookup(rel.m_Target); // checked in PlanSymbols
            uint32_t symbol = t->m_Kind == Kind::Section ? m_SectionSymbol[t->m_nIndex]
                                                         : m_SymbolIndex[t->m_nIndex];
            b.U32(uint32_t(rel.m_nOffset));
            b.U32(symbol);
            b.U16(uint16_t(rel.m_nType));
        }
    }
    b.PatchU32(symbolTableField, uint32_t(b.Size()));
    WriteSymbols();
    uint32_t stringTableSize = uint32_t(m_Strings.size());
    m_Strings[0] = char(stringTableSize);
    m_Strings[1] = char(stringTableSize >> 8);
    m_Strings[2] = char(stringTableSize >> 16);
    m_Strings[3] = char(stringTableSize >> 24);
    b.Bytes(m_Strings.data(), m_Strings.size());
    return m_Out.Size() <= 0xffffffffu;
}

} // namespace

bool WriteCoff(const CBrxFile &file, CByteBuffer &out) {
    return CCoffWriter(file, out).Write();
}

} // namespace brix
