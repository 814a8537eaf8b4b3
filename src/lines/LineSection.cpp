#include "lines/LineSection.h"

#include "dwarf/Leb128.h"

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace quillet {

namespace {

constexpr uint32_t kDwarf64Escape = 0xffffffffu;
constexpr uint16_t kLineVersion = 2;
constexpr unsigned kMaxAddressBytes = 8;

uint64_t ReadLE(const uint8_t *p, unsigned size) {
    uint64_t value = 0;
    for (unsigned i = 0; i < size; ++i)
        value |= static_cast<uint64_t>(p[i]) << (8 * i);
    return value;
}

// A NUL-terminated string at p, inside [p, end); null when the terminator is missing.
const char *ReadCString(const uint8_t *&p, const uint8_t *end, size_t &length) {
    const void *nul = std::memchr(p, 0, static_cast<size_t>(end - p));
    if (!nul)
        return nullptr;
    const char *text = reinterpret_cast<const char *>(p);
    length = static_cast<size_t>(static_cast<const uint8_t *>(nul) - p);
    p = static_cast<const uint8_t *>(nul) + 1;
    return text;
}

} // namespace

CError CLineSection::Fail(const uint8_t *at) {
    m_nErrorOffset = static_cast<uint64_t>(at - m_pData);
    return kFailed;
}

CError CLineSection::ReadFileEntry(const uint8_t *&p, const uint8_t *end, CFileTable &files) {
    size_t length = 0;
    const char *name = ReadCString(p, end, length);
    if (!name)
        return Fail(p);
    bool ok = true;
    uint64_t directory = ReadULEB128(p, end, ok);
    uint64_t time = ReadULEB128(p, end, ok);
    uint64_t size = ReadULEB128(p, end, ok);
    if (!ok || files.AddDwarfFile(std::string_view(name, length), directory, time, size).Failed())
        return Fail(p);
    return kOk;
}

CError CLineSection::ReadHeader(uint64_t offset, std::string_view compilationDirectory,
                                CFileTable &files) {
    if (offset > m_nSize || m_nSize - offset < 4)
        return Fail(m_pData + (offset > m_nSize ? m_nSize : offset));
    const uint8_t *p = m_pData + offset;
    const uint8_t *sectionEnd = m_pData + m_nSize;
    CLineHeader header;
    header.m_nUnitStart = offset;

    uint64_t length = ReadLE(p, 4);
    p += 4;
    unsigned offsetSize = 4;
    if (length == kDwarf64Escape) {
        if (sectionEnd - p < 8)
            return Fail(p);
        length = ReadLE(p, 8);
        p += 8;
        offsetSize = 8;
    }
    if (length > static_cast<uint64_t>(sectionEnd - p))
        return Fail(p);
    const uint8_t *end = p + length;
    header.m_nUnitEnd = static_cast<uint64_t>(end - m_pData);

    // version, header_length, five single-byte fields
    if (static_cast<uint64_t>(end - p) < 2u + offsetSize + 5u)
        return Fail(p);
    if (ReadLE(p, 2) != kLineVersion)
        return Fail(p);
    p += 2;
    uint64_t headerLength = ReadLE(p, offsetSize);
    p += offsetSize;
    const uint8_t *tablesStart = p;
    header.m_nMinimumInstructionLength = p[0];
    header.m_bDefaultIsStmt = p[1];
    header.m_nLineBase = static_cast<int8_t>(p[2]);
    header.m_nLineRange = p[3];
    header.m_nOpcodeBase = p[4];
    p += 5;
    if (header.m_nOpcodeBase == 0 || header.m_nLineRange == 0)
        return Fail(p - 2);
    unsigned standardCount = header.m_nOpcodeBase - 1u;
    if (static_cast<unsigned>(end - p) < standardCount)
        return Fail(p);
    for (unsigned op = 1; op <= standardCount; ++op)
        header.m_StandardOpcodeLengths[op] = *p++;

    files.BeginUnit();
    files.AddDirectory(compilationDirectory);
    for (;;) {
        if (p >= end)
            return Fail(p);
        if (*p == 0) {
            ++p;
            break;
        }
        size_t dirLength = 0;
        const char *dir = ReadCString(p, end, dirLength);
        if (!dir)
            return Fail(p);
        // A relative include directory is relative to the compilation directory.
        files.AddDirectory(JoinPath(compilationDirectory, std::string_view(dir, dirLength)));
    }
    for (;;) {
        if (p >= end)
            return Fail(p);
        if (*p == 0) {
            ++p;
            break;
        }
        if (ReadFileEntry(p, end, files).Failed())
            return kFailed;
    }
    if (static_cast<uint64_t>(p - tablesStart) != headerLength)
        return Fail(tablesStart - offsetSize);
    header.m_nProgramStart = static_cast<uint64_t>(p - m_pData);
    m_Header = header;
    return kOk;
}

CError CLineSection::DecodeUnit(CSequencePlacer &placer, CFileTable &files, CRowTable &rows,
                                std::vector<CSequenceSpan> &spans) {
    const CLineHeader &h = m_Header;
    const uint8_t *p = m_pData + h.m_nProgramStart;
    const uint8_t *end = m_pData + h.m_nUnitEnd;
    const uint8_t opcodeBase = h.m_nOpcodeBase;
    const uint8_t lineRange = h.m_nLineRange;
    const int32_t lineBase = h.m_nLineBase;
    const uint64_t minInst = h.m_nMinimumInstructionLength;
    const int32_t fileBase = files.FileBase();

    // The registers; each unit starts from the initial state.
    uint64_t address = 0;
    uint32_t file = 1;
    uint32_t line = 1;
    uint32_t column = 0;
    const uint32_t defaultFlags = h.m_bDefaultIsStmt ? kRowIsStmt : 0;
    uint32_t flags = defaultFlags;

    // Where the current sequence lies: placed at its first kept row, and again after any later
    // DW_LNE_set_address.
    bool addressSet = false;
    bool needsPlacing = true;
    uint64_t operandOffset = 0;
    BrxHandle section = 0;
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
    // The checks of a row that cannot take the fast path; false when the unit fails.
    auto prepareRow = [&](const uint8_t *at) -> bool {
        if (needsPlacing) {
            int64_t signedBias = 0;
            if (!addressSet || placer.Place(operandOffset, address, section, signedBias).Failed()) {
                static_cast<void>(Fail(at));
                return false;
            }
            bias = static_cast<uint64_t>(signedBias);
            needsPlacing = false;
            closeSpan(movedFrom);
            spans.push_back(
                CSequenceSpan{section, static_cast<uint32_t>(out - rows.data()), 0, true, 0});
            spanOpen = true;
            sorted = true;
            lastAddress = 0;
        }
        if (file - 1u >= unitFiles) {
            static_cast<void>(Fail(at));
            return false;
        }
        fileIndex = fileBase + static_cast<int32_t>(file - 1);
        if (out == limit) {
            rows.SetSize(static_cast<size_t>(out - rows.data()));
            rows.Grow();
            out = rows.data() + rows.size();
            limit = rows.data() + rows.Capacity();
        }
        slow = false;
        return true;
    };
    auto emitRow = [&]() {
        uint64_t placed = address + bias;
        sorted &= placed >= lastAddress;
        lastAddress = placed;
        *out++ = CLineRow{placed, line, column + 1, fileIndex, flags};
        slow = (out == limit);
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
            if (__builtin_expect(slow, 0) && !prepareRow(at))
                return finish(kFailed);
            emitRow();
            continue;
        }
        switch (op) {
        case DW_LNS_extended_op: {
            uint64_t length = ReadULEB128(p, end, ok);
            if (!ok || length == 0 || length > static_cast<uint64_t>(end - p))
                return finish(Fail(at));
            const uint8_t *next = p + length;
            uint8_t sub = *p++;
            switch (sub) {
            case DW_LNE_end_sequence: {
                uint64_t endAddress = address + bias;
                if (spanOpen && needsPlacing && addressSet) {
                    // A DW_LNE_set_address after the last row names the end itself; where its
                    // own relocation places it in another section, the register still counts
                    // from the sequence's start.
                    BrxHandle endSection = 0;
                    int64_t endBias = 0;
                    if (placer.Place(operandOffset, address, endSection, endBias).Ok() &&
                        endSection == section)
                        endAddress = address + static_cast<uint64_t>(endBias);
                }
                closeSpan(endAddress);
                address = 0;
                file = 1;
                line = 1;
                column = 0;
                flags = defaultFlags;
                addressSet = false;
                needsPlacing = true;
                slow = true;
                break;
            }
            case DW_LNE_set_address: {
                uint64_t operandSize = length - 1;
                if (operandSize > kMaxAddressBytes)
                    return finish(Fail(at));
                // The operand replaces the low bytes of the register; bytes above it stay.
                movedFrom = address + bias;
                uint64_t mask =
                    operandSize == 8 ? ~uint64_t(0) : ((uint64_t(1) << (8 * operandSize)) - 1);
                address = (address & ~mask) | ReadLE(p, static_cast<unsigned>(operandSize));
                operandOffset = static_cast<uint64_t>(p - m_pData);
                addressSet = true;
                needsPlacing = true;
                slow = true;
                break;
            }
            case DW_LNE_define_file:
                if (ReadFileEntry(p, next, files).Failed() || p != next)
                    return finish(Fail(at));
                unitFiles = files.FileCount() - static_cast<uint32_t>(fileBase);
                slow = true;
                break;
            default:
                return finish(Fail(at));
            }
            p = next;
            break;
        }
        case DW_LNS_copy:
            if (slow && !prepareRow(at))
                return finish(kFailed);
            emitRow();
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
            if (end - p < 2)
                return finish(Fail(at));
            address += ReadLE(p, 2);
            p += 2;
            break;
        default:
            // Opcodes that the header declares beyond the nine known ones: skip their operands.
            for (unsigned i = h.m_StandardOpcodeLengths[op]; i > 0 && ok; --i)
                ReadULEB128(p, end, ok);
            break;
        }
        if (!ok)
            return finish(Fail(at));
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
