// Reads an ELF32 or ELF64 object (relocatable, executable or shared; any machine, either byte
// order) into the object model. Section bytes stay in the file image; nothing is copied.
//
// The format's own bookkeeping sections (symbol and string tables, relocation sections, groups)
// are not offered as sections: their content is offered as symbols and relocations instead.
#include "ByteReader.h"
#include "ElfFormat.h"
#include "Formats.h"

#include <cstring>

namespace brix {

namespace {

using namespace elf;

constexpr uint32_t kNone = 0xffffffffu;

struct CElfSection {
    uint32_t m_nName, m_nType, m_nLink, m_nInfo;
    uint64_t m_nFlags, m_nAddress, m_nOffset, m_nSize, m_nAlignment, m_nEntrySize;
};

class CElfReader {
public:
    explicit CElfReader(CBrxFile &file)
        : m_File(file), m_Image(file.m_Image.data(), file.m_Image.size(),
                                file.m_Image.size() > 5 && file.m_Image[5] == ELFDATA2MSB) {}

    // BRX_OK, or the result that says why the file was refused.
    int32_t Read();

private:
    bool ReadHeader();
    bool ReadSectionHeaders();
    bool OfferSections();
    bool ReadSymbols();
    bool ReadRelocations();
    bool ReadGroups();

    // Records why the file is refused; a step that fails without saying is malformed input.
    bool Refuse(int32_t result) {
        m_nRefusal = result;
        return false;
    }

    bool IsBookkeeping(uint32_t type) const {
        return type == SHT_NULL || type == SHT_SYMTAB || type == SHT_DYNSYM || type == SHT_STRTAB ||
               type == SHT_REL || type == SHT_RELA || type == SHT_GROUP || type == SHT_SYMTAB_SHNDX;
    }
    // The content of a section must lie inside the image (NOBITS sections have none).
    bool ContentInImage(const CElfSection &s) const {
        return s.m_nType == SHT_NOBITS || m_Image.Contains(s.m_nOffset, s.m_nSize);
    }

    CBrxFile &m_File;
    CByteReader m_Image;
    int32_t m_nRefusal = BRX_ERR_MALFORMED;
    bool m_b64 = false;
    unsigned m_nWord = 4;
    uint16_t m_nType = 0;
    uint64_t m_nSectionTable = 0;
    uint32_t m_nSectionEntrySize = 0;
    uint32_t m_nSectionCount = 0;
    uint32_t m_nNameTable = 0;

    std::vector<CElfSection> m_Headers;
    std::vector<uint32_t> m_ModelSection;  // ELF section index -> model section index or kNone
    uint32_t m_nSymbolTable = 0;           // ELF index of the symbol table read, 0 for none
    std::vector<BrxHandle> m_SymbolHandle; // symbol table index -> handle
};

bool CElfReader::ReadHeader() {
    const CFileImage &img = m_File.m_Image;
    if (!LooksLikeElf(img))
        return Refuse(BRX_ERR_NOT_AN_OBJECT);
    if (img.size() < EI_NIDENT)
        return Refuse(BRX_ERR_TRUNCATED_HEADER);
    uint8_t cls = img[4], data = img[5];
    if ((cls != ELFCLASS32 && cls != ELFCLASS64) || (data != ELFDATA2LSB && data != ELFDATA2MSB))
        return Refuse(BRX_ERR_UNSUPPORTED);
    m_b64 = cls == ELFCLASS64;
    m_nWord = m_b64 ? 8 : 4;
    if (img.size() < (m_b64 ? kEhdrSize64 : kEhdrSize32))
        return Refuse(BRX_ERR_TRUNCATED_HEADER);

    m_nType = m_Image.U16(16);
    m_File.m_nMachine = m_Image.U16(18);
    uint64_t at = 24 + 2 * uint64_t(m_nWord); // past e_version, e_entry and e_phoff
    m_nSectionTable = m_Image.Word(at, m_nWord);
    m_File.m_nMachineFlags = m_Image.U32(at + m_nWord);
    at += m_nWord + 4 + 2 + 2 + 2; // e_shoff, e_flags, e_ehsize, e_phentsize, e_phnum
    m_nSectionEntrySize = m_Image.U16(at);
    m_nSectionCount = m_Image.U16(at + 2);
    m_nNameTable = m_Image.U16(at + 4);

    m_File.m_nFormat = m_b64 ? BRX_FORMAT_ELF64 : BRX_FORMAT_ELF32;
    m_File.m_bBigEndian = data == ELFDATA2MSB;
    switch (m_nType) {
    case ET_REL:
        m_File.m_nObjectKind = 0;
        break;
    case ET_EXEC:
        m_File.m_nObjectKind = 1;
        break;
    case ET_DYN:
        m_File.m_nObjectKind = 2;
        break;
    default:
        m_File.m_nObjectKind = 3;
        break;
    }
    return !m_Image.Failed();
}

bool CElfReader::ReadSectionHeaders() {
    if (m_nSectionTable == 0)
        return m_nSectionCount == 0; // no sections at all: nothing to offer
    if (m_nSectionEntrySize < (m_b64 ? kShdrSize64 : kShdrSize32))
        return false;
    auto readHeader = [&](uint64_t at) {
        CElfSection s;
        s.m_nName = m_Image.U32(at);
        s.m_nType = m_Image.U32(at + 4);
        at += 8;
        s.m_nFlags = m_Image.Word(at, m_nWord);
        s.m_nAddress = m_Image.Word(at + m_nWord, m_nWord);
        s.m_nOffset = m_Image.Word(at + 2 * m_nWord, m_nWord);
        s.m_nSize = m_Image.Word(at + 3 * m_nWord, m_nWord);
        at += 4 * m_nWord;
        s.m_nLink = m_Image.U32(at);
        s.m_nInfo = m_Image.U32(at + 4);
        s.m_nAlignment = m_Image.Word(at + 8, m_nWord);
        s.m_nEntrySize = m_Image.Word(at + 8 + m_nWord, m_nWord);
        return s;
    };
    // More sections than e_shnum can hold: the count and the name table index are in the
    // first section header.
    CElfSection first = readHeader(m_nSectionTable);
    if (m_Image.Failed())
        return Refuse(BRX_ERR_SECTION_TABLE_OUTSIDE);
    uint64_t count = m_nSectionCount;
    if (count == 0)
        count = first.m_nSize;
    if (m_nNameTable == SHN_XINDEX)
        m_nNameTable = first.m_nLink;
    if (count == 0)
        return false;
    if (count > m_Image.Size() / m_nSectionEntrySize ||
        !m_Image.Contains(m_nSectionTable, count * m_nSectionEntrySize))
        return Refuse(BRX_ERR_SECTION_TABLE_OUTSIDE);
    m_nSectionCount = uint32_t(count);
    m_Headers.reserve(count);
    for (uint64_t i = 0; i < count; ++i)
        m_Headers.push_back(readHeader(m_nSectionTable + i * m_nSectionEntrySize));
    return !m_Image.Failed();
}

bool CElfReader::OfferSections() {
    m_ModelSection.assign(m_Headers.size(), kNone);
    if (m_Headers.empty())
        return true;
    if (m_nNameTable >= m_Headers.size())
        return false;
    const CElfSection &names = m_Headers[m_nNameTable];
    if (names.m_nType == SHT_NOBITS)
        return false;
    if (!ContentInImage(names))
        return Refuse(BRX_ERR_SECTION_OUTSIDE);
    for (size_t i = 1; i < m_Headers.size(); ++i) {
        const CElfSection &h = m_Headers[i];
        if (IsBookkeeping(h.m_nType))
            continue;
        std::string_view name;
        if (h.m_nName >= names.m_nSize ||
            !m_Image.CString(names.m_nOffset + h.m_nName, names.m_nOffset + names.m_nSize, name))
            return false;
        if (!ContentInImage(h))
            return Refuse(BRX_ERR_SECTION_OUTSIDE);
        uint32_t index = m_File.AddSection(std::string(name));
        CSection &s = m_File.m_Sections[index];
        s.m_nFlags = uint16_t(((h.m_nFlags & SHF_EXECINSTR) ? BRX_SECTION_CODE : 0) |
                              (s.IsDebug() ? BRX_SECTION_DEBUG : 0));
        s.m_nKind = s.IsDebug() ? 1 : 0;
        bool power = h.m_nAlignment != 0 && (h.m_nAlignment & (h.m_nAlignment - 1)) == 0;
        s.m_nAlignment = power && h.m_nAlignment <= 0x80000000u ? uint32_t(h.m_nAlignment) : 1;
        s.m_nAddress = h.m_nAddress;
        s.m_bUsesView = true;
        s.m_nViewSize = h.m_nSize;
        if (h.m_nType == SHT_NOBITS) {
            s.m_bZeroFill = true;
        } else if (h.m_nFlags & SHF_COMPRESSED) {
            // The contents start with a compression header; the section's size is the size of
            // the decompressed bytes, which are made when they are first read.
            unsigned header = m_b64 ? kChdrSize64 : kChdrSize32;
            if (h.m_nSize < header)
                return false;
            s.m_nCompression = m_Image.U32(h.m_nOffset);
            s.m_nViewSize = m_b64 ? m_Image.U64(h.m_nOffset + 8) : m_Image.U32(h.m_nOffset + 4);
            s.m_pCompressed = m_File.m_Image.data() + h.m_nOffset + header;
            s.m_nCompressedSize = h.m_nSize - header;
            if (s.m_nCompression == 0)
                return false; // a compressed section must name its compression
        } else {
            s.m_pView = m_File.m_Image.data() + h.m_nOffset;
        }
        m_ModelSection[i] = index;
    }
    return true;
}

bool CElfReader::ReadSymbols() {
    // The full symbol table when there is one, else the dynamic one.
    for (uint32_t wanted : {SHT_SYMTAB, SHT_DYNSYM}) {
        for (size_t i = 1; i < m_Headers.size() && m_nSymbolTable == 0; ++i)
            if (m_Headers[i].m_nType == wanted)
                m_nSymbolTable = uint32_t(i);
        if (m_nSymbolTable != 0)
            break;
    }
    m_File.AddSymbolTable();
    if (m_nSymbolTable == 0)
        return true;
    const CElfSection &table = m_Headers[m_nSymbolTable];
    unsigned entrySize = m_b64 ? kSymSize64 : kSymSize32;
    if (table.m_nEntrySize < entrySize || table.m_nType == SHT_NOBITS)
        return false;
    if (!ContentInImage(table))
        return Refuse(BRX_ERR_SYMBOLS_OUTSIDE);
    if (table.m_nLink == 0 || table.m_nLink >= m_Headers.size())
        return false;
    const CElfSection &strings = m_Headers[table.m_nLink];
    if (strings.m_nType == SHT_NOBITS)
        return false;
    if (!ContentInImage(strings))
        return Refuse(BRX_ERR_SYMBOLS_OUTSIDE);
    // Section indices that do not fit in st_shndx are in an extension table.
    const CElfSection *extended = nullptr;
    for (size_t i = 1; i < m_Headers.size(); ++i)
        if (m_Headers[i].m_nType == SHT_SYMTAB_SHNDX && m_Headers[i].m_nLink == m_nSymbolTable &&
            ContentInImage(m_Headers[i]))
            extended = &m_Headers[i];

    uint64_t count = table.m_nSize / table.m_nEntrySize;
    m_SymbolHandle.assign(count, 0);
    m_File.m_Symbols.reserve(count);
    for (uint64_t i = 1; i < count; ++i) {
        uint64_t at = table.m_nOffset + i * table.m_nEntrySize;
        uint32_t nameOffset = m_Image.U32(at);
        uint8_t info;
        uint16_t shndx;
        uint64_t value, size;
        if (m_b64) {
            info = m_Image.U8(at + 4);
            shndx = m_Image.U16(at + 6);
            value = m_Image.U64(at + 8);
            size = m_Image.U64(at + 16);
        } else {
            value = m_Image.U32(at + 4);
            size = m_Image.U32(at + 8);
            info = m_Image.U8(at + 12);
            shndx = m_Image.U16(at + 14);
        }
        std::string_view name;
        if (nameOffset != 0 && (nameOffset >= strings.m_nSize ||
                                !m_Image.CString(strings.m_nOffset + nameOffset,
                                                 strings.m_nOffset + strings.m_nSize, name)))
            return false;
        uint32_t section = shndx;
        if (shndx == SHN_XINDEX)
            section = extended && extended->m_nSize / 4 > i
                          ? m_Image.U32(extended->m_nOffset + 4 * i)
                          : 0;
        else if (shndx >= SHN_LORESERVE)
            section = 0; // absolute or common: no section
        uint32_t model = section < m_ModelSection.size() ? m_ModelSection[section] : kNone;
        uint8_t type = info & 0xf;
        if (type == STT_SECTION && name.empty() && model != kNone)
            name = m_File.m_Sections[model].m_Name;

        uint32_t index = m_File.AddSymbol(name);
        CSymbol &s = m_File.m_Symbols[index];
        s.m_nBinding = (info >> 4) == STB_LOCAL ? BRX_BINDING_LOCAL : BRX_BINDING_GLOBAL;
        s.m_nType = type == STT_FUNC   ? BRX_SYMBOL_FUNCTION
                    : type == STT_FILE ? BRX_SYMBOL_SOURCE_FILE
                                       : BRX_SYMBOL_PLAIN;
        s.m_nStorage = shndx == SHN_UNDEF ? 1 : 0;
        s.m_nOffset = value;
        s.m_nSize = size;
        if (model != kNone) {
            const CSection &sec = m_File.m_Sections[model];
            s.m_Section = sec.m_Handle;
            // In a linked object st_value is an address; the model keeps section offsets.
            if (m_nType != ET_REL)
                s.m_nOffset = value - sec.m_nAddress;
        }
        m_SymbolHandle[i] = s.m_Handle;
    }
    return !m_Image.Failed();
}

bool CElfReader::ReadRelocations() {
    for (size_t i = 1; i < m_Headers.size(); ++i) {
        const CElfSection &h = m_Headers[i];
        if (h.m_nType != SHT_REL && h.m_nType != SHT_RELA)
            continue;
        // Dynamic relocations apply to no section (sh_info 0); they are not offered.
        if (h.m_nInfo == 0 || h.m_nInfo >= m_Headers.size() || m_ModelSection[h.m_nInfo] == kNone)
            continue;
        bool rela = h.m_nType == SHT_RELA;
        unsigned entrySize =
            rela ? (m_b64 ? kRelaSize64 : kRelaSize32) : (m_b64 ? kRelSize64 : kRelSize32);
        if (h.m_nEntrySize < entrySize)
            return false;
        if (!ContentInImage(h))
            return Refuse(BRX_ERR_SECTION_OUTSIDE);
        // Symbol numbers refer to the table the section links to; only the table read above
        // has handles.
        bool symbolsKnown = h.m_nLink == m_nSymbolTable && m_nSymbolTable != 0;
        uint32_t target = m_ModelSection[h.m_nInfo];
        uint64_t count = h.m_nSize / h.m_nEntrySize;
        for (uint64_t k = 0; k < count; ++k) {
            uint64_t at = h.m_nOffset + k * h.m_nEntrySize;
            uint64_t offset = m_Image.Word(at, m_nWord);
            uint64_t info = m_Image.Word(at + m_nWord, m_nWord);
            int64_t addend = 0;
            if (rela)
                addend = m_b64 ? int64_t(m_Image.U64(at + 16)) : int32_t(m_Image.U32(at + 8));
            uint64_t symbol = m_b64 ? info >> 32 : info >> 8;
            uint32_t type = uint32_t(m_b64 ? info & 0xffffffffu : info & 0xff);
            if (symbolsKnown && symbol >= m_SymbolHandle.size())
                return false;
            uint32_t index = m_File.AddRelocation(target);
            CRelocation &r = m_File.m_Relocations[index];
            r.m_nOffset = offset;
            r.m_nType = type;
            r.m_nAddend = addend;
            r.m_bAddendInPlace = !rela;
            r.m_Target = symbolsKnown ? m_SymbolHandle[symbol] : 0;
        }
    }
    return !m_Image.Failed();
}

// ELF knows one kind of COMDAT group; the model describes it as COFF does: the group's code
// section (else its first member) is a COMDAT section of selection "any", and the other members
// are tied to it.
bool CElfReader::ReadGroups() {
    for (size_t i = 1; i < m_Headers.size(); ++i) {
        const CElfSection &h = m_Headers[i];
        if (h.m_nType != SHT_GROUP)
            continue;
        if (!ContentInImage(h) || h.m_nSize < 4)
            return false;
        if ((m_Image.U32(h.m_nOffset) & GRP_COMDAT) == 0)
            continue;
        std::vector<uint32_t> members;
        for (uint64_t at = 4; at + 4 <= h.m_nSize; at += 4) {
            uint32_t member = m_Image.U32(h.m_nOffset + at);
            if (member >= m_Headers.size())
                return false;
            if (m_ModelSection[member] != kNone)
                members.push_back(m_ModelSection[member]);
        }
        if (members.empty())
            continue;
        uint32_t leader = members.front();
        for (uint32_t m : members)
            if (m_File.m_Sections[m].IsCode()) {
                leader = m;
                break;
            }
        m_File.m_Sections[leader].m_nComdatSelection = BRX_COMDAT_ANY;
        for (uint32_t m : members) {
            if (m == leader)
                continue;
            m_File.m_Sections[m].m_nComdatSelection = BRX_COMDAT_ASSOCIATIVE;
            m_File.m_Sections[m].m_AssociatedSection = m_File.m_Sections[leader].m_Handle;
        }
    }
    return !m_Image.Failed();
}

int32_t CElfReader::Read() {
    if (!(ReadHeader() && ReadSectionHeaders() && OfferSections() && ReadSymbols() &&
          ReadRelocations() && ReadGroups()))
        return m_nRefusal;
    return m_File.m_bOutOfHandles ? BRX_ERR_FAILED : BRX_OK;
}

} // namespace

bool LooksLikeElf(const CFileImage &image) {
    return image.size() >= 4 && std::memcmp(image.data(), ELFMAG, 4) == 0;
}

int32_t ReadElf(CBrxFile &file) {
    return CElfReader(file).Read();
}

} // namespace brix
