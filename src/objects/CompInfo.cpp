#include "objects/CompInfo.h"

#include "codeview/CodeViewFormat.h"
#include "codeview/RecordNames.h"
#include "dwarf/Abbreviations.h"
#include "dwarf/DwarfConstants.h"
#include "dwarf/Leb128.h"
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "frame/ObjectFile.h"
#include "frame/Target.h"
#include "platform/ByteWriter.h"
#include "platform/Text.h"

using quillet::ByteWriter;
using quillet::SizeULEB128;
using quillet::ToUtf8;

namespace {
constexpr uint32_t kCodeViewLanguage = 3;
} // namespace

CCompInfo::CCompInfo(uint32_t language, uint32_t editAndContinue, uint32_t noDebugInfo,
                     uint32_t machine, const uint16_t *frontEndVersion,
                     const uint16_t *backEndVersion, const char16_t *producer,
                     const char16_t *directory, const char16_t *sourceName,
                     const char16_t *toolPath)
    : m_nLanguage(language), m_bEditAndContinue(editAndContinue), m_bNoDebugInfo(noDebugInfo),
      m_nMachine(machine), m_pProducer(quillet::WideCopy(producer)),
      m_pDirectory(quillet::WideCopy(directory)), m_pSourceName(quillet::WideCopy(sourceName)),
      m_pToolPath(quillet::WideCopy(toolPath)) {
    for (int i = 0; i < 3; ++i) {
        m_FrontEndVersion[i] = frontEndVersion ? frontEndVersion[i] : 0;
        m_BackEndVersion[i] = backEndVersion ? backEndVersion[i] : 0;
    }
    if (!m_pDirectory.empty() && m_pDirectory.back() == u'\\')
        m_pDirectory.pop_back();
    UseAbbrev<CCompUnitAbbrev>(ABBREV_COMP_UNIT);
}

CCompInfo::CCompInfo(const CCompInfo &other)
    : CBaseLangObject(other), m_nLanguage(other.m_nLanguage),
      m_bEditAndContinue(other.m_bEditAndContinue), m_bNoDebugInfo(other.m_bNoDebugInfo),
      m_nMachine(other.m_nMachine), m_pProducer(other.m_pProducer),
      m_pDirectory(other.m_pDirectory), m_pSourceName(other.m_pSourceName),
      m_pToolPath(other.m_pToolPath), m_hLineSection(other.m_hLineSection), m_hCodeSection(0) {
    for (int i = 0; i < 3; ++i) {
        m_FrontEndVersion[i] = other.m_FrontEndVersion[i];
        m_BackEndVersion[i] = other.m_BackEndVersion[i];
    }
}

CCompInfo::~CCompInfo() = default;

CError CCompInfo::WriteCodeView(CBinarySection &symbols, CBinarySection &) {
    std::string producer = ToUtf8(m_pProducer);
    quillet::cv::FitNamesInRecord(28, {&producer});
    size_t n = producer.size();
    ByteWriter record(n + 28);
    record.U16(uint16_t(n + 26));
    record.U16(quillet::cv::S_COMPILE3);
    record.U32(kCodeViewLanguage | (m_bEditAndContinue << 8) | (m_bNoDebugInfo << 9));
    record.U16(BoundTarget().codeViewCpu);
    for (uint16_t v : m_FrontEndVersion)
        record.U16(v);
    record.U16(0);
    for (uint16_t v : m_BackEndVersion)
        record.U16(v);
    record.U16(0);
    record.CString(producer);
    record.U8(0);
    return symbols.AppendRecord(record);
}

CError CCompInfo::WriteEnvBlock(CBinarySection &symbols) {
    std::string cwd = ToUtf8(quillet::WorkingDirectory());
    std::string exe = ToUtf8(m_pToolPath);
    std::string src = ToUtf8(quillet::JoinPath(m_pDirectory, m_pSourceName));
    quillet::cv::FitNamesInRecord(21, {&cwd, &exe, &src});
    size_t length = 21 + cwd.size() + exe.size() + src.size();
    ByteWriter record(length);
    record.U16(uint16_t(length - 2));
    record.U16(quillet::cv::S_ENVBLOCK);
    record.U8(uint8_t(m_bEditAndContinue));
    record.CString("cwd");
    record.CString(cwd);
    record.CString("exe");
    record.CString(exe);
    record.CString("src");
    record.CString(src);
    record.U8(0);
    return symbols.AppendRecord(record);
}

CError CCompInfo::ComputeDwarfSize() {
    unsigned width = State().AddressWidth();
    m_nRecordLength = SizeULEB128(m_pAbbrev->Code()) + ToUtf8(m_pSourceName).size() +
                      ToUtf8(m_pDirectory).size() + ToUtf8(m_pProducer).size() + 3 + 4 + 1 +
                      (m_hCodeSection ? 2 * width : 0);
    return kOk;
}

CError CCompInfo::WriteDwarf(CBinarySection &info, CBinarySection &abbrev) {
    if (!QCHECK(m_nRecordLength))
        return kFailed;
    auto *unitAbbrev = static_cast<CCompUnitAbbrev *>(m_pAbbrev);
    if (unitAbbrev->Code() == 0)
        unitAbbrev->m_bNoRange = m_hCodeSection == 0;
    uint32_t code = 0;
    if (m_pAbbrev->WriteDeclaration(abbrev, code).Failed())
        return kFailed;
    unsigned width = State().AddressWidth();
    ByteWriter entry(m_nRecordLength);
    entry.ULEB(code);
    entry.CString(ToUtf8(m_pSourceName));
    entry.CString(ToUtf8(m_pDirectory));
    entry.CString(ToUtf8(m_pProducer));
    size_t lowField = entry.Size();
    if (m_hCodeSection) {
        entry.Zeros(width);
        entry.Zeros(width);
    }
    size_t stmtField = entry.Size();
    entry.U32(0);
    entry.U8(dwarf::DW_ID_case_insensitive);
    uint64_t start = 0;
    if (info.AppendRecord(entry, &start).Failed())
        return kFailed;
    if (m_hCodeSection) {
        // The range runs from the start of the code section to a symbol at its end; on a real
        // machine, whose symbolizers would name the code that follows after that symbol, to the
        // section's address plus its size.
        uint64_t size = 0;
        BrxHandle etext = 0;
        if (info.AddAddressRelocation(start + lowField, m_hCodeSection).Failed() ||
            objfile::SectionSize(m_hCodeSection, size).Failed())
            return kFailed;
        if (!BoundTarget().IsDefault()) {
            if (info.AddAddressRelocation(start + lowField + width, m_hCodeSection, int64_t(size))
                    .Failed())
                return kFailed;
        } else if (objfile::CreateSymbol(".$etext", BRX_SYMBOL_PLAIN, m_hCodeSection, size, etext)
                       .Failed() ||
                   info.AddAddressRelocation(start + lowField + width, etext).Failed()) {
            return kFailed;
        }
    }
    return info.AddSectionRelocation(start + stmtField, m_hLineSection);
}
