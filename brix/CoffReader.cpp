// Reads a COFF object into the object model: sections, their bytes (kept in the file image),
// relocations and symbols; then the CodeView line information of every .debug$S section, offered
// as line blocks and items of the code sections and as source-file symbols.
#include "ByteReader.h"
#include "CoffFormat.h"
#include "Formats.h"

#include <algorithm>
#include <unordered_map>

namespace brix {

namespace {

using namespace coff;

constexpr uint32_t kNone = 0xffffffffu;

struct CCoffSection {
    uint32_t m_nRawSize, m_nRawData, m_nRelocations, m_nCharacteristics;
    uint32_t m_nRelocationCount;
    uint32_t m_nModel; // model section index
};

// Where the lines subsections of one .debug$S section are, and its own tables.
struct CSymbolSection {
    uint32_t m_nModel = 0;
    std::vector<std::pair<uint64_t, uint64_t>> m_Lines; // (offset, length) of 0xF2 contents
    bool m_bHasChecksums = false, m_bHasStrings = false;
    uint64_t m_nChecksums = 0, m_nChecksumsSize = 0; // 0xF4 contents
    uint64_t m_nStrings = 0, m_nStringsSize = 0;     // 0xF3 contents
};

uint64_t Align4(uint64_t v) {
    return (v + 3) & ~uint64_t(3);
}

class CCoffReader {
public:
    explicit CCoffReader(CBrxFile &file)
        : m_File(file), m_Image(file.m_Image.data(), file.m_Image.size()) {}

    // BRX_OK, or the result that says why the file was refused.
    int32_t Read();

private:
    bool ReadHeader();
    bool ReadSections();
    bool ReadSymbols();
    bool ReadRelocations();
    bool ReadLineInformation();
    bool ScanSymbolSection(uint32_t model, CSymbolSection &out);
    bool ReadLines(const CSymbolSection &owner, uint64_t at, uint64_t length);
    bool FileName(const CSymbolSection &owner, uint32_t checksumOffset, std::string_view &name);
    BrxHandle FileReference(std::string_view name);

    // Records why the file is refused; a step that fails without saying is malformed input.
    bool Refuse(int32_t result) {
        m_nRefusal = result;
        return false;
    }

    bool StringAt(uint64_t offset, std::string_view &out) {
        return offset >= 4 && offset < m_nStringTableSize &&
               m_Image.CString(m_nStringTable + offset, m_nStringTable + m_nStringTableSize, out);
    }

    CBrxFile &m_File;
    CByteReader m_Image;
    int32_t m_nRefusal = BRX_ERR_MALFORMED;
    uint32_t m_nSectionCount = 0;
    uint64_t m_nSectionTable = 0;
    uint64_t m_nSymbolTable = 0;
    uint32_t m_nSymbolCount = 0;
    uint64_t m_nStringTable = 0;
    uint64_t m_nStringTableSize = 0;

    std::vector<CCoffSection> m_Headers;
    std::vector<BrxHandle> m_SymbolHandle; // symbol table index -> handle (0 for aux records)

    // Line information: the first string and checksum tables found serve sections without
    // their own; each distinct file name gets one source-file symbol and one reference.
    const CSymbolSection *m_pDefaultStrings = nullptr;
    const CSymbolSection *m_pDefaultChecksums = nullptr;
    std::unordered_map<std::string, BrxHandle> m_FileReferences;
    // Per .debug$S section: its relocations sorted by offset.
    std::vector<std::pair<uint64_t, uint32_t>> m_RelocationsByOffset;
};

bool CCoffReader::ReadHeader() {
    uint16_t machine = m_Image.U16(0);
    m_nSectionCount = m_Image.U16(2);
    m_nSymbolTable = m_Image.U32(8);
    m_nSymbolCount = m_Image.U32(12);
    uint16_t optionalHeader = m_Image.U16(16);
    if (m_Image.Failed())
        return Refuse(BRX_ERR_TRUNCATED_HEADER);
    m_File.m_nFormat = BRX_FORMAT_COFF;
    m_File.m_nMachine = machine;
    m_File.m_nObjectKind = 0;
    m_nSectionTable = kFileHeaderSize + uint64_t(optionalHeader);
    if (!m_Image.Contains(m_nSectionTable, uint64_t(m_nSectionCount) * kSectionHeaderSize))
        return Refuse(BRX_ERR_SECTION_TABLE_OUTSIDE);
    if (m_nSymbolCount > 0 || m_nSymbolTable != 0) {
        uint64_t symbolsSize = uint64_t(m_nSymbolCount) * kSymbolSize;
        if (!m_Image.Contains(m_nSymbolTable, symbolsSize))
            return Refuse(BRX_ERR_SYMBOLS_OUTSIDE);
        m_nStringTable = m_nSymbolTable + symbolsSize;
        // The string table may be absent when no name needs it.
        if (m_Image.Contains(m_nStringTable, 4)) {
            m_nStringTableSize = m_Image.U32(m_nStringTable);
            if (m_nStringTableSize < 4)
                return false;
            if (!m_Image.Contains(m_nStringTable, m_nStringTableSize))
                return Refuse(BRX_ERR_SYMBOLS_OUTSIDE);
        }
    }
    return true;
}

bool CCoffReader::ReadSections() {
    m_Headers.resize(m_nSectionCount);
    for (uint32_t i = 0; i < m_nSectionCount; ++i) {
        uint64_t at = m_nSectionTable + uint64_t(i) * kSectionHeaderSize;
        const char *raw = reinterpret_cast<const char *>(m_Image.Data() + at);
        std::string_view name(raw, kShortNameSize);
        name = name.substr(0, std::min(name.find('\0'), name.size()));
        if (!name.empty() && name[0] == '/') {
            // A long name: "/" and the decimal offset of the name in the string table.
            uint64_t offset = 0;
            if (name.size() < 2)
                return false;
            for (char c : name.substr(1)) {
                if (c < '0' || c > '9')
                    return false;
                offset = offset * 10 + uint64_t(c - '0');
            }
            if (!StringAt(offset, name))
                return false;
        }
        CCoffSection &h = m_Headers[i];
        h.m_nRawSize = m_Image.U32(at + 16);
        h.m_nRawData = m_Image.U32(at + 20);
        h.m_nRelocations = m_Image.U32(at + 24);
        h.m_nRelocationCount = m_Image.U16(at + 32);
        h.m_nCharacteristics = m_Image.U32(at + 36);

        h.m_nModel = m_File.AddSection(std::string(name));
        CSection &s = m_File.m_Sections[h.m_nModel];
        bool code = (h.m_nCharacteristics & (IMAGE_SCN_CNT_CODE | IMAGE_SCN_MEM_EXECUTE)) != 0;
        s.m_nFlags = code ? BRX_SECTION_CODE : 0;
        if ((h.m_nCharacteristics & IMAGE_SCN_MEM_DISCARDABLE) != 0 || s.IsDebug())
            s.m_nFlags |= BRX_SECTION_DEBUG;
        s.m_nKind = (s.m_nFlags & BRX_SECTION_DEBUG) ? 1 : 0;
        uint32_t align = (h.m_nCharacteristics & IMAGE_SCN_ALIGN_MASK) >> IMAGE_SCN_ALIGN_SHIFT;
        s.m_nAlignment = align >= 1 && align <= 14 ? 1u << (align - 1) : 1;
        s.m_bUsesView = true;
        s.m_nViewSize = h.m_nRawSize;
        if (h.m_nRawData == 0 || (h.m_nCharacteristics & IMAGE_SCN_CNT_UNINITIALIZED_DATA)) {
            s.m_bZeroFill = true;
        } else {
            if (!m_Image.Contains(h.m_nRawData, h.m_nRawSize))
                return Refuse(BRX_ERR_SECTION_OUTSIDE);
            s.m_pView = m_Image.Data() + h.m_nRawData;
        }
    }
    return !m_Image.Failed();
}

bool CCoffReader::ReadSymbols() {
    m_File.AddSymbolTable();
    m_SymbolHandle.assign(m_nSymbolCount, 0);
    for (uint32_t i = 0; i < m_nSymbolCount; ++i) {
        uint64_t at = m_nSymbolTable + uint64_t(i) * kSymbolSize;
        uint32_t value = m_Image.U32(at + 8);
        int16_t number = int16_t(m_Image.U16(at + 12));
        uint16_t type = m_Image.U16(at + 14);
        uint8_t storageClass = m_Image.U8(at + 16);
        uint8_t auxCount = m_Image.U8(at + 17);
        if (uint64_t(i) + 1 + auxCount > m_nSymbolCount)
            return false;
        uint64_t aux = at + kSymbolSize;

        std::string_view name;
        if (storageClass == IMAGE_SYM_CLASS_FILE) {
            // The file name fills the auxiliary records, padded with zeros.
            name = std::string_view(reinterpret_cast<const char *>(m_Image.Data() + aux),
                                    size_t(auxCount) * kSymbolSize);
            name = name.substr(0, std::min(name.find('\0'), name.size()));
        } else if (m_Image.U32(at) == 0) {
            if (!StringAt(m_Image.U32(at + 4), name))
                return false;
        } else {
            name = std::string_view(reinterpret_cast<const char *>(m_Image.Data() + at),
                                    kShortNameSize);
            name = name.substr(0, std::min(name.find('\0'), name.size()));
        }

        uint32_t index = m_File.AddSymbol(name);
        CSymbol &s = m_File.m_Symbols[index];
        bool external = storageClass == IMAGE_SYM_CLASS_EXTERNAL || storageClass == 105;
        s.m_nBinding = external ? BRX_BINDING_GLOBAL : BRX_BINDING_LOCAL;
        s.m_nType =
            (type & 0x30) == IMAGE_SYM_DTYPE_FUNCTION_TYPE ? BRX_SYMBOL_FUNCTION : BRX_SYMBOL_PLAIN;
        s.m_nOffset = value;
        s.m_nStorage = number == IMAGE_SYM_UNDEFINED ? 1 : 0;
        // A defined external function may carry a function-definition record, the one place
        // where COFF states a function's size.
        if (s.m_nType == BRX_SYMBOL_FUNCTION && storageClass == IMAGE_SYM_CLASS_EXTERNAL &&
            number > 0 && auxCount >= 1)
            s.m_nSize = m_Image.U32(aux + kFunctionDefinitionSizeOffset);
        if (number > 0 && uint32_t(number) <= m_nSectionCount) {
            CSection &section = m_File.m_Sections[m_Headers[number - 1].m_nModel];
            s.m_Section = section.m_Handle;
            // A section symbol's definition record carries the COMDAT selection.
            bool comdat = (m_Headers[number - 1].m_nCharacteristics & IMAGE_SCN_LNK_COMDAT) != 0;
            if (comdat && storageClass == IMAGE_SYM_CLASS_STATIC && auxCount >= 1 && value == 0 &&
                section.m_nComdatSelection == BRX_COMDAT_NONE) {
                uint16_t associated = m_Image.U16(aux + 12);
                uint8_t selection = m_Image.U8(aux + 14);
                if (selection == BRX_COMDAT_ASSOCIATIVE) {
                    if (associated == 0 || associated > m_nSectionCount)
                        return false;
                    section.m_AssociatedSection =
                        m_File.m_Sections[m_Headers[associated - 1].m_nModel].m_Handle;
                }
                if (selection <= BRX_COMDAT_LARGEST)
                    section.m_nComdatSelection = selection;
            }
        }
        m_SymbolHandle[i] = s.m_Handle;
        i += auxCount;
    }
    return !m_Image.Failed();
}

bool CCoffReader::ReadRelocations() {
    for (const CCoffSection &h : m_Headers) {
        uint64_t count = h.m_nRelocationCount;
        uint64_t first = h.m_nRelocations;
        if (count == 0)
            continue;
        // An overflowing count is in the first record, which counts itself.
        if ((h.m_nCharacteristics & IMAGE_SCN_LNK_NRELOC_OVFL) && count == 0xffff) {
            count = m_Image.U32(first);
            if (count == 0)
                return false;
            count -= 1;
            first += kRelocationSize;
        }
        if (!m_Image.Contains(first, count * kRelocationSize))
            return Refuse(BRX_ERR_SECTION_OUTSIDE);
        for (uint64_t k = 0; k < count; ++k) {
            uint64_t at = first + k * kRelocationSize;
            uint32_t symbol = m_Image.U32(at + 4);
            if (symbol >= m_nSymbolCount)
                return false;
            uint32_t index = m_File.AddRelocation(h.m_nModel);
            CRelocation &r = m_File.m_Relocations[index];
            r.m_nOffset = m_Image.U32(at);
            r.m_Target = m_SymbolHandle[symbol];
            r.m_nType = m_Image.U16(at + 8);
        }
    }
    return !m_Image.Failed();
}

bool CCoffReader::ScanSymbolSection(uint32_t model, CSymbolSection &out) {
    const CSection &s = m_File.m_Sections[model];
    out.m_nModel = model;
    if (!s.m_bUsesView || s.m_bZeroFill || s.Size() < 4)
        return true;
    CByteReader r(s.m_pView, s.m_nViewSize);
    if (r.U32(0) != codeview::CV_SIGNATURE_C13)
        return true; // another layout of symbol information: no lines to offer
    uint64_t at = 4;
    while (at < r.Size()) {
        uint32_t kind = r.U32(at);
        uint32_t length = r.U32(at + 4);
        if (r.Failed() || !r.Contains(at + 8, length))
            return false;
        uint64_t content = at + 8;
        switch (kind & ~codeview::DEBUG_S_IGNORE) {
        case codeview::DEBUG_S_LINES:
            if ((kind & codeview::DEBUG_S_IGNORE) == 0)
                out.m_Lines.emplace_back(content, length);
            break;
        case codeview::DEBUG_S_FILECHKSMS:
            if (!out.m_bHasChecksums) {
                out.m_bHasChecksums = true;
                out.m_nChecksums = content;
                out.m_nChecksumsSize = length;
            }
            break;
        case codeview::DEBUG_S_STRINGTABLE:
            if (!out.m_bHasStrings) {
                out.m_bHasStrings = true;
                out.m_nStrings = content;
                out.m_nStringsSize = length;
            }
            break;
        default:
            break;
        }
        at = Align4(content + length);
    }
    return true;
}

bool CCoffReader::FileName(const CSymbolSection &owner, uint32_t checksumOffset,
                           std::string_view &name) {
    const CSymbolSection *checksums = owner.m_bHasChecksums ? &owner : m_pDefaultChecksums;
    const CSymbolSection *strings = owner.m_bHasStrings ? &owner : m_pDefaultStrings;
    if (!checksums || !strings)
        return false;
    const CSection &cs = m_File.m_Sections[checksums->m_nModel];
    CByteReader c(cs.m_pView, cs.m_nViewSize);
    if (uint64_t(checksumOffset) + 4 > checksums->m_nChecksumsSize)
        return false;
    uint32_t stringOffset = c.U32(checksums->m_nChecksums + checksumOffset);
    if (c.Failed() || stringOffset >= strings->m_nStringsSize)
        return false;
    const CSection &ss = m_File.m_Sections[strings->m_nModel];
    CByteReader t(ss.m_pView, ss.m_nViewSize);
    return t.CString(strings->m_nStrings + stringOffset,
                     strings->m_nStrings + strings->m_nStringsSize, name);
}

BrxHandle CCoffReader::FileReference(std::string_view name) {
    auto it = m_FileReferences.find(std::string(name));
    if (it != m_FileReferences.end())
        return it->second;
    uint32_t symbol = m_File.AddSymbol(name);
    CSymbol &s = m_File.m_Symbols[symbol];
    s.m_nType = BRX_SYMBOL_SOURCE_FILE;
    s.m_nBinding = BRX_BINDING_LOCAL;
    uint32_t reference = m_File.AddFileReference(s.m_Handle);
    BrxHandle handle = m_File.m_FileReferences[reference].m_Handle;
    m_FileReferences.emplace(std::string(name), handle);
    return handle;
}

bool CCoffReader::ReadLines(const CSymbolSection &owner, uint64_t at, uint64_t length) {
    using namespace codeview;
    const CSection &debug = m_File.m_Sections[owner.m_nModel];
    CByteReader r(debug.m_pView, debug.m_nViewSize);
    if (length < kLinesHeaderSize)
        return false;
    uint64_t end = at + length;
    uint32_t storedOffset = r.U32(at);
    uint16_t flags = r.U16(at + 6);
    uint32_t codeSize = r.U32(at + 8);

    // The header's offset field is relocated against a symbol of the code section (section-
    // relative relocation); without one the block cannot be placed and is not offered.
    auto it = std::lower_bound(m_RelocationsByOffset.begin(), m_RelocationsByOffset.end(),
                               std::make_pair(at, uint32_t(0)));
    const CRelocation *reloc = nullptr;
    for (; it != m_RelocationsByOffset.end() && it->first == at; ++it) {
        const CRelocation &candidate = m_File.m_Relocations[it->second];
        uint32_t type = candidate.m_nType;
        if (IsSectionRelative(uint16_t(m_File.m_nMachine), type))
            reloc = &candidate;
    }
    if (!reloc || reloc->m_Target == 0)
        return true;
    const CHandleEntry *target = LookupKind(reloc->m_Target, Kind::Symbol);
    if (!target)
        return false;
    const CSymbol &symbol = m_File.m_Symbols[target->m_nIndex];
    const CHandleEntry *section = LookupKind(symbol.m_Section, Kind::Section);
    if (!section)
        return true;
    uint32_t codeSection = section->m_nIndex;
    uint64_t base = symbol.m_nOffset + storedOffset;
    bool columns = (flags & CV_LINES_HAVE_COLUMNS) != 0;

    uint64_t block = at + kLinesHeaderSize;
    while (block < end) {
        uint32_t checksumOffset = r.U32(block);
        uint64_t pairs = r.U32(block + 4);
        uint64_t blockLength = r.U32(block + 8);
        uint64_t needed =
            kFileBlockHeaderSize + pairs * (kLinePairSize + (columns ? kColumnPairSize : 0));
        if (r.Failed() || blockLength < needed || blockLength > end - block)
            return false;
        std::string_view name;
        if (!FileName(owner, checksumOffset, name))
            return false;
        BrxHandle file = FileReference(name);
        uint32_t index = m_File.AddLineBlock(codeSection);
        m_File.m_LineBlocks[index].m_FileReference = file;
        m_File.m_LineBlocks[index].m_nCodeEnd = base + codeSize;
        uint64_t pair = block + kFileBlockHeaderSize;
        uint64_t column = pair + pairs * kLinePairSize;
        for (uint64_t k = 0; k < pairs; ++k) {
            uint32_t item = m_File.AddLineItem(index);
            CLineItem &li = m_File.m_LineItems[item];
            li.m_nAddress = base + r.U32(pair + k * kLinePairSize);
            li.m_nLine = r.U32(pair + k * kLinePairSize + 4) & kLineNumberMask;
            li.m_nColumn = columns ? r.U16(column + k * kColumnPairSize) : 0;
        }
        block += blockLength;
    }
    return !r.Failed();
}

bool CCoffReader::ReadLineInformation() {
    std::vector<CSymbolSection> symbolSections;
    for (size_t i = 0; i < m_File.m_Sections.size(); ++i) {
        if (m_File.m_Sections[i].m_Name != ".debug$S")
            continue;
        CSymbolSection s;
        if (!ScanSymbolSection(uint32_t(i), s))
            return false;
        symbolSections.push_back(std::move(s));
    }
    for (const CSymbolSection &s : symbolSections) {
        if (s.m_bHasStrings && !m_pDefaultStrings)
            m_pDefaultStrings = &s;
        if (s.m_bHasChecksums && !m_pDefaultChecksums)
            m_pDefaultChecksums = &s;
    }
    for (const CSymbolSection &s : symbolSections) {
        if (s.m_Lines.empty())
            continue;
        m_RelocationsByOffset.clear();
        for (uint32_t r : m_File.m_Sections[s.m_nModel].m_Relocations)
            m_RelocationsByOffset.emplace_back(m_File.m_Relocations[r].m_nOffset, r);
        std::sort(m_RelocationsByOffset.begin(), m_RelocationsByOffset.end());
        for (const auto &lines : s.m_Lines)
            if (!ReadLines(s, lines.first, lines.second))
                return false;
    }
    return true;
}

int32_t CCoffReader::Read() {
    if (!(ReadHeader() && ReadSections() && ReadSymbols() && ReadRelocations() &&
          ReadLineInformation()))
        return m_nRefusal;
    return m_File.m_bOutOfHandles ? BRX_ERR_FAILED : BRX_OK;
}

} // namespace

// The big-object and import-library headers start with machine 0 and 0xFFFF where an object
// has its machine and section count.
bool IsUnreadCoffVariant(const CFileImage &image) {
    return image.size() >= 4 && image[0] == 0 && image[1] == 0 && image[2] == 0xff &&
           image[3] == 0xff;
}

bool LooksLikeCoff(const CFileImage &image) {
    if (image.size() < kFileHeaderSize || IsUnreadCoffVariant(image))
        return false;
    uint16_t machine = uint16_t(image[0] | (image[1] << 8));
    uint16_t optionalHeader = uint16_t(image[16] | (image[17] << 8));
    switch (machine) {
    case IMAGE_FILE_MACHINE_UNKNOWN:
    case IMAGE_FILE_MACHINE_I386:
    case MACHINE_DEFAULT_TARGET:
    case IMAGE_FILE_MACHINE_AMD64:
    case IMAGE_FILE_MACHINE_ARM:
    case IMAGE_FILE_MACHINE_ARMNT:
    case IMAGE_FILE_MACHINE_ARM64:
        break;
    default:
        return false;
    }
    return optionalHeader == 0;
}

int32_t ReadCoff(CBrxFile &file) {
    return CCoffReader(file).Read();
}

} // namespace brix
