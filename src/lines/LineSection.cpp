#include "lines/LineSection.h"

#include "dwarf/DwarfConstants.h"
#include "dwarf/Leb128.h"

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace quillet {

using namespace dwarf;

namespace {

constexpr uint32_t kDwarf64Escape = 0xffffffffu;
constexpr uint32_t kFirstReservedLength = 0xfffffff0u;
constexpr uint16_t kFirstVersion = 2, kLastVersion = 5;
constexpr unsigned kMaxAddressBytes = 8;

} // namespace

CError CLineSection::Fail(uint64_t offset) {
    m_nErrorOffset = offset;
    return kFailed;
}

CError CLineSection::ReadFileEntry(CDataCursor &c, CFileTable &files) {
    std::string_view name = c.CString();
    uint64_t directory = c.ULEB();
    uint64_t time = c.ULEB();
    uint64_t size = c.ULEB();
    if (!c.Ok())
        return Fail(c.ErrorOffset());
    if (files.AddDwarfFile(name, directory, time, size).Failed())
        return Fail(c.Position());
    return kOk;
}

CError CLineSection::ReadVersion2Tables(CDataCursor &c, const CLineUnitContext &unit,
                                        CFileTable &files) {
    files.AddDirectory({}, unit.m_CompilationDirectory);
    // Include directories up to an empty name; a relative one is relative to the compilation
    // directory.
    for (std::string_view dir = c.CString(); c.Ok() && !dir.empty(); dir = c.CString())
        files.AddDirectory(unit.m_CompilationDirectory, dir);
    // File entries up to an empty name.
    while (c.Ok()) {
        if (c.AtEnd()) {
            c.Fail();
            break;
        }
        uint64_t at = c.Position();
        if (m_Sections.line.m_pData[at] == 0) {
            c.Skip(1);
            break;
        }
        if (ReadFileEntry(c, files).Failed())
            return kFailed;
    }
    return c.Ok() ? kOk : Fail(c.ErrorOffset());
}

CError CLineSection::ReadVersion5Tables(CDataCursor &c, const CLineUnitContext &unit,
                                        CFileTable &files) {
    CFormContext form;
    form.m_nVersion = m_Header.m_nVersion;
    form.m_nOffsetSize = m_Header.m_nOffsetSize;
    form.m_nAddressSize = m_Header.m_nAddressSize;
    // Each table is described by (content type, form) pairs, then holds that many fields per
    // entry. Content this reader has no use for (timestamps, sizes, MD5 sums, vendors' content)
    // is read past by its form.
    auto readTable = [&](auto &&addEntry) -> CError {
        uint8_t formatCount = c.U8();
        std::vector<CAttributeSpec> format;
        for (uint8_t i = 0; i < formatCount && c.Ok(); ++i) {
            uint64_t content = c.ULEB();
            uint64_t valueForm = c.ULEB();
            format.push_back(CAttributeSpec{static_cast<uint16_t>(content),
                                            static_cast<uint16_t>(valueForm), 0});
        }
        uint64_t count = c.ULEB();
        for (uint64_t entry = 0; entry < count && c.Ok(); ++entry) {
            uint64_t entryStart = c.Position();
            std::string_view path;
            uint64_t directory = 0;
            for (const CAttributeSpec &spec : format) {
                CAttributeValue value;
                if (spec.m_nForm == DW_FORM_implicit_const || spec.m_nForm == DW_FORM_indirect ||
                    ReadAttribute(c, spec, form, value).Failed())
                    return Fail(c.Ok() ? c.Position() : c.ErrorOffset());
                if (spec.m_nAttribute == DW_LNCT_path) {
                    if (m_Strings.String(value, form, unit.m_nStrOffsetsBase, path).Failed())
                        return Fail(c.Position());
                } else if (spec.m_nAttribute == DW_LNCT_directory_index) {
                    directory = value.m_nValue;
                }
            }
            // Entries of no bytes (no fields, or flag_present alone) would let a few bytes claim
            // billions of them; no producer writes a table of several such entries.
            if (count > 1 && c.Position() == entryStart)
                return Fail(entryStart);
            if (addEntry(entry, path, directory).Failed())
                return Fail(c.Position());
        }
        return c.Ok() ? kOk : Fail(c.ErrorOffset());
    };
    // Directory 0 is the compilation directory; the others are relative to it unless absolute.
    std::string_view compilationDirectory = unit.m_CompilationDirectory;
    CError directories = readTable([&](uint64_t entry, std::string_view path, uint64_t) -> CError {
        if (entry == 0) {
            compilationDirectory = path;
            files.AddDirectory(unit.m_CompilationDirectory, path);
        } else {
            files.AddDirectory(compilationDirectory, path);
        }
        return kOk;
    });
    if (directories.Failed())
        return kFailed;
    return readTable([&](uint64_t, std::string_view path, uint64_t directory) {
        return files.AddDwarfFile(path, directory, 0, 0);
    });
}

CError CLineSection::ReadHeader(uint64_t offset, const CLineUnitContext &unit, CFileTable &files) {
    const CDwarfSection &line = m_Sections.line;
    if (offset > line.m_nSize)
        return Fail(line.m_nSize);
    CDataCursor c(line, offset, line.m_nSize);
    CLineHeader header;
    header.m_nUnitStart = offset;
    uint64_t length = c.U32();
    if (length == kDwarf64Escape) {
        length = c.U64();
        header.m_nOffsetSize = 8;
    } else if (length >= kFirstReservedLength) {
        return Fail(offset);
    }
    if (!c.Ok() || length > c.Remaining())
        return Fail(c.Ok() ? c.Position() : c.ErrorOffset());
    header.m_nUnitEnd = c.Position() + length;
    CDataCursor h(line, c.Position(), header.m_nUnitEnd);

    header.m_nVersion = h.U16();
    if (header.m_nVersion < kFirstVersion || header.m_nVersion > kLastVersion)
        return Fail(h.Position() - 2);
    if (header.m_nVersion >= 5) {
        header.m_nAddressSize = h.U8();
        uint8_t segmentSelectorSize = h.U8();
        if (header.m_nAddressSize == 0 || header.m_nAddressSize > kMaxAddressBytes ||
            segmentSelectorSize != 0)
            return Fail(h.Position() - 2);
    }
    uint64_t headerLength = h.Fixed(header.m_nOffsetSize);
    uint64_t tablesStart = h.Position();
    header.m_nMinimumInstructionLength = h.U8();
    if (header.m_nVersion >= 4) {
        uint8_t operationsPerInstruction = h.U8();
        if (operationsPerInstruction > 1)
            return Fail(h.Position() - 1);
    }
    header.m_bDefaultIsStmt = h.U8();
    header.m_nLineBase = static_cast<int8_t>(h.U8());
    header.m_nLineRange = h.U8();
    header.m_nOpcodeBase = h.U8();
    if (!h.Ok())
        return Fail(h.ErrorOffset());
    if (header.m_nOpcodeBase == 0 || header.m_nLineRange == 0)
        return Fail(h.Position() - 2);
    for (unsigned op = 1; op < header.m_nOpcodeBase; ++op)
        header.m_StandardOpcodeLengths[op] = h.U8();
    header.m_nFirstFile = header.m_nVersion >= 5 ? 0 : 1;
    m_Header = header;

    files.BeginUnit();
    CError tables = header.m_nVersion >= 5 ? ReadVersion5Tables(h, unit, files)
                                           : ReadVersion2Tables(h, unit, files);
    if (tables.Failed())
        return kFailed;
    if (h.Position() - tablesStart != headerLength)
        return Fail(tablesStart - header.m_nOffsetSize);
    m_Header.m_nProgramStart = h.Position();
    return kOk;
}

CError CLineSection::DecodeUnit(CSequencePlacer &placer, CFileTable &files, CRowTable &rows,
                                std::vector<CSequenceSpan> &spans) {
    const CLineHeader &h = m_Header;
    const CDwarfSection &section = m_Sections.line;
    const uint8_t *const data = section.m_pData;
    const uint8_t *p = data + h.m_nProgramStart;
    const uint8_t *end = data + h.m_nUnitEnd;
    const uint8_t opcodeBase = h.m_nOpcodeBase;
    const uint8_t lineRange = h.m_nLineRange;
    const int32_t lineBase = h.m_nLineBase;
    const uint64_t minInst = h.m_nMinimumInstructionLength;
    const int32_t fileBase = files.FileBase();
    const uint32_t firstFile = h.m_nFirstFile;
    auto offsetOf = [&](const uint8_t *at) { return static_cast<uint64_t>(at - data); };

    // The registers; each unit starts from the initial state.
    uint64_t address = 0;
    uint32_t file = 1;
    uint32_t line = 1;
    uint32_t column = 0;
    const uint32_t defaultFlags = h.m_bDefaultIsStmt ? kRowIsStmt : 0;
    uint32_t flags = defaultFlags;

    // Where the current sequence lies: placed at its first kept row, and again after any later
    // DW_LNE_set_address. The rows of a sequence the placer skips are dropped.
    bool addressSet = false;
    bool needsPlacing = true;
    bool dropping = false;
    CAddressOperand operand{0, 0, 0};
    BrxHandle placedIn = 0;
    uint64_t bias = 0;
    // The unit's file count can grow through DW_LNE_define_file.
    uint32_t unitFiles = files.FileCount() - static_cast<uint32_t>(fileBase);
    int32_t fileIndex = fileBase;

    // Rows are written through a cursor into the table's spare capacity. `slow` sends the next
    // row through the checks: a sequence to place, a file register to validate, a full table.
    CLineRow *out = rows.data() + rows.size();
    CLineRow *limit = rows.data() + rows.Capacity();
    bool slow = true;
    bool spanOpen = false;
    bool sorted = true;
    uint64_t lastAddress = 0;

    // Where the open span's code ends when a DW_LNE_set_address moves the sequence on.
    uint64_t movedFrom = 0;

    auto closeSpan = [&](uint64_t endAddress) {
        if (spanOpen) {
            spans.back().m_nEnd = static_cast<uint32_t>(out - rows.data());
            spans.back().m_bSorted = sorted;
            spans.back().m_nEndAddress = endAddress;
            spanOpen = false;
        }
    };
    auto finish = [&](CError status) {
        // A unit that stops without ending its sequence: its last row ends the span.
        closeSpan(lastAddress);
        rows.SetSize(static_cast<size_t>(out - rows.data()));
        return status;
    };
    enum class RowCheck { Emit, Drop, Fail };
    // The checks of a row that cannot take the fast path.
    auto prepareRow = [&](const uint8_t *at) -> RowCheck {
        if (needsPlacing) {
            int64_t signedBias = 0;
            CSequencePlacer::Result placed = addressSet
                                                 ? placer.Place(operand, placedIn, signedBias)
                                                 : CSequencePlacer::Result::Failed;
            if (placed == CSequencePlacer::Result::Failed) {
                static_cast<void>(Fail(offsetOf(at)));
                return RowCheck::Fail;
            }
            needsPlacing = false;
            closeSpan(movedFrom);
            dropping = placed == CSequencePlacer::Result::Skipped;
            if (!dropping) {
                bias = static_cast<uint64_t>(signedBias);
                spans.push_back(
                    CSequenceSpan{placedIn, static_cast<uint32_t>(out - rows.data()), 0, true, 0});
                spanOpen = true;
                sorted = true;
                lastAddress = 0;
            }
        }
        if (dropping)
            return RowCheck::Drop;
        if (file - firstFile >= unitFiles) {
            static_cast<void>(Fail(offsetOf(at)));
            return RowCheck::Fail;
        }
        fileIndex = fileBase + static_cast<int32_t>(file - firstFile);
        if (out == limit) {
            rows.SetSize(static_cast<size_t>(out - rows.data()));
            rows.Grow();
            out = rows.data() + rows.size();
            limit = rows.data() + rows.Capacity();
        }
        slow = false;
        return RowCheck::Emit;
    };
    auto emitRow = [&]() {
        uint64_t placed = address + bias;
        sorted &= placed >= lastAddress;
        lastAddress = placed;
        *out++ = CLineRow{placed, line, column + 1, fileIndex, flags};
        slow = (out == limit);
    };
    // A row, through the checks when the last one could not take the fast path.
    auto row = [&](const uint8_t *at) -> bool {
        if (__builtin_expect(slow, 0)) {
            RowCheck check = prepareRow(at);
            if (check == RowCheck::Fail)
                return false;
            if (check == RowCheck::Drop)
                return true;
        }
        emitRow();
        return true;
    };

    bool ok = true;
    while (p < end) {
        const uint8_t *at = p;
        uint8_t op = *p++;
        if (op >= opcodeBase) {
            // The common case: one byte advances both registers and makes a row.
            unsigned adjusted = op - opcodeBase;
            address += (adjusted / lineRange) * minInst;
            line += static_cast<uint32_t>(lineBase + static_cast<int32_t>(adjusted % lineRange));
            if (!row(at))
                return finish(kFailed);
            continue;
        }
        switch (op) {
        case DW_LNS_extended_op: {
            uint64_t length = ReadULEB128(p, end, ok);
            if (!ok || length == 0 || length > static_cast<uint64_t>(end - p))
                return finish(Fail(offsetOf(at)));
            const uint8_t *next = p + length;
            uint8_t sub = *p++;
            switch (sub) {
            case DW_LNE_end_sequence: {
                uint64_t endAddress = address + bias;
                if (spanOpen && needsPlacing && addressSet && operand.m_Section != 0 &&
                    operand.m_Section != placedIn)
                    // A DW_LNE_set_address after the last row that names another section: the
                    // end is where the register stood when it moved.
                    endAddress = movedFrom;
                closeSpan(endAddress);
                address = 0;
                file = 1;
                line = 1;
                column = 0;
                flags = defaultFlags;
                addressSet = false;
                needsPlacing = true;
                dropping = false;
                slow = true;
                break;
            }
            case DW_LNE_set_address: {
                uint64_t operandSize = length - 1;
                if (operandSize > kMaxAddressBytes)
                    return finish(Fail(offsetOf(at)));
                movedFrom = address + bias;
                // The operand replaces the low bytes of the register; bytes above it stay. In a
                // relocatable object its relocation gives the value and names the section.
                BrxHandle named = 0;
                uint64_t value =
                    operandSize == 0
                        ? 0
                        : section.Field(offsetOf(p), static_cast<unsigned>(operandSize), &named);
                uint64_t mask =
                    operandSize == 8 ? ~uint64_t(0) : ((uint64_t(1) << (8 * operandSize)) - 1);
                address = (address & ~mask) | (value & mask);
                operand = CAddressOperand{offsetOf(p), address, named};
                addressSet = true;
                needsPlacing = true;
                slow = true;
                break;
            }
            case DW_LNE_define_file: {
                if (h.m_nVersion >= 5)
                    break; // reserved from version 5: skipped like any unknown opcode
                CDataCursor c(section, offsetOf(p), offsetOf(next));
                if (ReadFileEntry(c, files).Failed() || !c.AtEnd())
                    return finish(Fail(offsetOf(at)));
                unitFiles = files.FileCount() - static_cast<uint32_t>(fileBase);
                slow = true;
                break;
            }
            default:
                // DW_LNE_set_discriminator and every opcode this reader does not know: a
                // discriminator is not kept, and the length says where the next opcode starts.
                break;
            }
            p = next;
            break;
        }
        case DW_LNS_copy:
            if (!row(at))
                return finish(kFailed);
            break;
        case DW_LNS_advance_pc:
            address += ReadULEB128(p, end, ok) * minInst;
            break;
        case DW_LNS_advance_line:
            line += static_cast<uint32_t>(ReadSLEB128(p, end, ok));
            break;
        case DW_LNS_set_file:
            file = static_cast<uint32_t>(ReadULEB128(p, end, ok));
            slow = true;
            break;
        case DW_LNS_set_column:
            column = static_cast<uint32_t>(ReadULEB128(p, end, ok));
            break;
        case DW_LNS_negate_stmt:
            flags ^= kRowIsStmt;
            break;
        case DW_LNS_set_basic_block:
            // Not kept in a row.
            break;
        case DW_LNS_const_add_pc:
            address += ((255u - opcodeBase) / lineRange) * minInst;
            break;
        case DW_LNS_fixed_advance_pc:
            // An operand that machines relaxing code relocate (the difference of two labels).
            if (end - p < 2)
                return finish(Fail(offsetOf(at)));
            address += section.Field(offsetOf(p), 2);
            p += 2;
            break;
        default:
            // Opcodes that the header declares beyond the nine known ones (set_prologue_end,
            // set_epilogue_begin, set_isa, vendors'): skip their operands.
            for (unsigned i = h.m_StandardOpcodeLengths[op]; i > 0 && ok; --i)
                ReadULEB128(p, end, ok);
            break;
        }
        if (!ok)
            return finish(Fail(offsetOf(at)));
    }
    return finish(kOk);
}

CRowTable::~CRowTable() {
    std::free(m_pRows);
}

void *AllocateLarge(size_t bytes) {
    constexpr size_t kHugePage = size_t(2) << 20;
    void *memory = nullptr;
    if (bytes >= 2 * kHugePage) {
        bytes = (bytes + kHugePage - 1) / kHugePage * kHugePage;
        memory = std::aligned_alloc(kHugePage, bytes);
#ifdef MADV_HUGEPAGE
        if (memory)
            madvise(memory, bytes, MADV_HUGEPAGE);
#endif
    } else {
        memory = std::malloc(bytes == 0 ? 1 : bytes);
    }
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

void CRowTable::Reserve(size_t capacity) {
    if (capacity <= m_nCapacity)
        return;
    void *memory = AllocateLarge(capacity * sizeof(CLineRow));
    if (m_nSize)
        std::memcpy(memory, m_pRows, m_nSize * sizeof(CLineRow));
    std::free(m_pRows);
    m_pRows = static_cast<CLineRow *>(memory);
    m_nCapacity = capacity;
}

void CRowTable::Grow() {
    Reserve(m_nCapacity < 16 ? 16 : m_nCapacity * 2);
}

void CRowTable::Swap(CRowTable &other) {
    std::swap(m_pRows, other.m_pRows);
    std::swap(m_nSize, other.m_nSize);
    std::swap(m_nCapacity, other.m_nCapacity);
}

} // namespace quillet
