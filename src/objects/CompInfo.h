// The compilation-unit record: what the assembler says about the compilation as a whole. The
// module scope owns one and has it write the first records of each format.
#pragma once

#include "objects/DebugObjects.h"

#include "brix/brix.h"

#include <string>

class CCompUnitAbbrev;

class CCompInfo : public CBaseLangObject {
public:
    // The ten values of Dbg_open_module_scope. Null version pointers count as zeros and null
    // strings as empty ones (retrieval builds a record from what .debug_info holds). One
    // trailing backslash of the directory is removed.
    CCompInfo(uint32_t language, uint32_t editAndContinue, uint32_t noDebugInfo, uint32_t machine,
              const uint16_t *frontEndVersion, const uint16_t *backEndVersion,
              const char16_t *producer, const char16_t *directory, const char16_t *sourceName,
              const char16_t *toolPath);
    // A copy has no code section.
    CCompInfo(const CCompInfo &other);
    ~CCompInfo() override;

    int GetKind() const override { return 0; }
    // The compile record (S_COMPILE3).
    CError WriteCodeView(CBinarySection &symbols, CBinarySection &types) override;
    // The environment block (S_ENVBLOCK): working directory, tool path, source path.
    CError WriteEnvBlock(CBinarySection &symbols);
    CError WriteDwarf(CBinarySection &info, CBinarySection &abbrev) override;
    CError ComputeDwarfSize() override;

    uint32_t m_nLanguage = 0;
    uint32_t m_bEditAndContinue = 0;
    uint32_t m_bNoDebugInfo = 0;
    uint32_t m_nMachine = 0;
    uint16_t m_FrontEndVersion[3] = {0, 0, 0};
    uint16_t m_BackEndVersion[3] = {0, 0, 0};
    std::u16string m_pProducer;
    std::u16string m_pDirectory;
    std::u16string m_pSourceName;
    std::u16string m_pToolPath;
    BrxHandle m_hLineSection = 0;
    BrxHandle m_hCodeSection = 0;
};
