#include "lines/LineProgram.h"

#include "dwarf/DwarfConstants.h"
#include "dwarf/Leb128.h"
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "frame/Target.h"
#include "lines/SourceFile.h"
#include "platform/Text.h"

#include <map>

using namespace dwarf;

namespace {

constexpr uint16_t kLineVersion = 2;
// The file-table name of a source registered with an empty name (an empty name would end the
// table).
const char *const kUnnamedSource = "<unnamed>";

void PutULEB(std::vector<uint8_t> &out, uint64_t value) {
    uint8_t bytes[10];
    out.insert(out.end(), bytes, quillet::WriteULEB128(bytes, value));
}

void PutSLEB(std::vector<uint8_t> &out, int64_t value) {
    uint8_t bytes[10];
    out.insert(out.end(), bytes, quillet::WriteSLEB128(bytes, value));
}

void PutU32(std::vector<uint8_t> &out, uint32_t value) {
    for (int i = 0; i < 4; ++i)
        out.push_back(uint8_t(value >> (8 * i)));
}

void PutString(std::vector<uint8_t> &out, const std::string &text) {
    out.insert(out.end(), text.begin(), text.end());
    out.push_back(0);
}

// The file number of a line entry's source (position + 1), or 0 when it has none.
uint32_t FileNumberOf(const CLineEntry &entry) {
    CSourceFile *file = SourceOf(entry.source);
    if (!file || file->kind() != 2)
        return 0;
    return static_cast<CDwarfSourceFile *>(file)->index + 1;
}

} // namespace

void CLineState::ResetForSequence() {
    address = 0;
    file = 1;
    line = 1;
    column = 0;
    isStmt = kLineDefaultIsStmt;
    basicBlock = 0;
    section = 0;
}

CError CLineRowWriter::AddRow(BrxHandle section, const CLineEntry &entry) {
    uint32_t &use = State().lineProgramUse;
    if (use == kLineProgramDecoding)
        return kFailed;
    use = kLineProgramWriting;
    uint32_t file = FileNumberOf(entry);
    if (file == 0)
        return kFailed;
    int32_t deltaLine = int32_t(entry.line - m_State.line);
    // An entry on the line and in the file of the row before adds nothing; the first entry of a
    // sequence always makes a row, whatever its line, since the registers' start values are no
    // row of their own.
    bool opensSequence = section != m_State.section;
    if (deltaLine == 0 && file == m_State.file && !opensSequence)
        return kOk;
    uint64_t address = entry.Address();
    uint64_t deltaAddress = address - m_State.address;

    if (file != m_State.file) {
        m_Bytes.push_back(DW_LNS_set_file);
        PutULEB(m_Bytes, file);
        m_State.file = file;
    }
    if (opensSequence) {
        // The operand is 0 and relocated against the section: rows count from its start.
        m_Bytes.push_back(0);
        m_Bytes.push_back(uint8_t(1 + m_nAddressWidth));
        m_Bytes.push_back(DW_LNE_set_address);
        m_Relocations.push_back({m_Bytes.size(), section});
        m_Bytes.insert(m_Bytes.end(), m_nAddressWidth, 0);
        m_State.section = section;
    }
    m_State.address = address;
    bool lineFits = deltaLine >= kLineBase && deltaLine < kLineBase + kLineRange;
    if (lineFits && deltaAddress <= 255) {
        int64_t special = (int64_t(deltaLine) - kLineBase) +
                          int64_t(kLineRange) * int64_t(deltaAddress) + kLineOpcodeBase;
        if (special >= kLineOpcodeBase && special <= 255) {
            m_Bytes.push_back(uint8_t(special));
            m_State.line = entry.line;
            return kOk;
        }
    }
    if (deltaAddress != 0) {
        m_Bytes.push_back(DW_LNS_advance_pc);
        PutULEB(m_Bytes, deltaAddress);
    }
    if (deltaLine != 0) {
        m_Bytes.push_back(DW_LNS_advance_line);
        PutSLEB(m_Bytes, deltaLine);
    }
    m_Bytes.push_back(DW_LNS_copy);
    m_State.line = entry.line;
    return kOk;
}

uint64_t SequenceEndAddress(uint64_t lastRowAddress, uint64_t sectionSize) {
    if (BoundTarget().IsDefault())
        return (lastRowAddress / 16 + 1) * 16;
    return sectionSize > lastRowAddress ? sectionSize : lastRowAddress + 1;
}

void CLineRowWriter::EndSequence(uint64_t sectionSize) {
    m_Bytes.push_back(DW_LNS_advance_pc);
    PutULEB(m_Bytes, SequenceEndAddress(m_State.address, sectionSize) - m_State.address);
    m_Bytes.push_back(0);
    m_Bytes.push_back(1);
    m_Bytes.push_back(DW_LNE_end_sequence);
    m_State.ResetForSequence();
}

CError CLineRowWriter::Flush(CBinarySection &line) {
    uint64_t start = line.Size();
    CError result = line.Append(m_Bytes);
    if (result.Ok())
        for (const LineRelocation &relocation : m_Relocations)
            if (line.AddAddressRelocation(start + relocation.offset, relocation.section).Failed())
                result = kFailed;
    m_Bytes.clear();
    m_Relocations.clear();
    return result;
}

std::vector<uint8_t> BuildLineProgramHeader(const std::u16string &compilationDirectory,
                                            CSourceFileList &files) {
    // Directory 0 is the compilation directory: compared against, never written.
    std::vector<std::string> directories;
    std::map<std::string, uint32_t> directoryIndex;
    std::string compDir = quillet::ToUtf8(compilationDirectory);
    quillet::LowerAscii(compDir);
    directoryIndex.emplace(compDir, 0);

    struct FileRow {
        std::string name;
        uint32_t directory;
    };
    std::vector<FileRow> rows;
    rows.reserve(files.Count());
    for (size_t i = 0; i < files.Count(); ++i) {
        CSourceFile *file = *files.Cell(i);
        std::u16string name = file ? file->Name() : std::u16string();
        uint32_t directory = 0;
        size_t slash = name.rfind(u'\\');
        // A name that ends with a backslash is kept whole: its base name would be empty, and an
        // empty name ends the file table. So is a name whose directory part is empty ("\a.s"):
        // an empty directory would end the directory table.
        if (slash != std::u16string::npos && slash > 0 && slash + 1 < name.size()) {
            std::string dir = quillet::ToUtf8(std::u16string_view(name).substr(0, slash));
            quillet::LowerAscii(dir);
            auto found = directoryIndex.find(dir);
            if (found == directoryIndex.end()) {
                directory = uint32_t(directories.size() + 1);
                directoryIndex.emplace(dir, directory);
                directories.push_back(dir);
            } else {
                directory = found->second;
            }
            uint32_t position = file && file->kind() == 2
                                    ? static_cast<CDwarfSourceFile *>(file)->index
                                    : uint32_t(i);
            name = name.substr(slash + 1);
            files.Replace(i, std::make_unique<CDwarfSourceFile>(name, position));
        }
        rows.push_back({name.empty() ? kUnnamedSource : quillet::ToUtf8(name), directory});
    }

    std::vector<uint8_t> out;
    PutU32(out, 0); // unit length, set once the program is complete
    out.push_back(uint8_t(kLineVersion));
    out.push_back(uint8_t(kLineVersion >> 8));
    PutU32(out, 0); // header length, set below
    size_t headerStart = out.size();
    out.push_back(kLineMinimumInstructionLength);
    out.push_back(kLineDefaultIsStmt);
    out.push_back(uint8_t(kLineBase));
    out.push_back(kLineRange);
    out.push_back(kLineOpcodeBase);
    out.insert(out.end(), std::begin(kStandardOpcodeLengths), std::end(kStandardOpcodeLengths));
    for (const std::string &dir : directories)
        PutString(out, dir);
    out.push_back(0);
    for (const FileRow &row : rows) {
        PutString(out, row.name);
        PutULEB(out, row.directory);
        PutULEB(out, 0); // modification time
        PutULEB(out, 0); // length
    }
    out.push_back(0);
    uint32_t headerLength = uint32_t(out.size() - headerStart);
    for (int i = 0; i < 4; ++i)
        out[6 + i] = uint8_t(headerLength >> (8 * i));
    return out;
}
