// A debugging section of the bound object file. Writers append to it; readers read it back in
// order. A section may keep its first bytes in a small in-memory "low" buffer so that a CodeView
// section holding only its fixed header never reaches the object file; everything beyond that
// buffer goes to the object file at once through the object-file library.
#pragma once

#include "platform/CError.h"

#include "brix/brix.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Kinds of CodeView subsection, and the section signature that StartSubsection also writes.
constexpr uint32_t CV_SIGNATURE = 4;
constexpr uint32_t DEBUG_S_SYMBOLS = 0xF1;
constexpr uint32_t DEBUG_S_LINES = 0xF2;
constexpr uint32_t DEBUG_S_STRINGTABLE = 0xF3;
constexpr uint32_t DEBUG_S_FILECHKSMS = 0xF4;

namespace quillet {
class ByteWriter;
}

class CBinarySection {
public:
    // Constructor tags: a main CodeView section with a low buffer of the given capacity, and the
    // symbol section of a COMDAT code section, tied to that section.
    struct LowBuffer {
        uint32_t capacity;
    };
    struct AssociatedWith {
        BrxHandle section;
    };

    // For reading an existing section by name.
    CBinarySection(BrxHandle objectFile, int32_t format, const char *name);
    // For DWARF writing: with format 1 or 2 the section is created at once (Section() stays 0 when
    // that fails).
    CBinarySection(BrxHandle objectFile, int32_t format, const char *name, uint32_t alignment,
                   uint16_t flags, uint32_t kindAttribute);
    // A main CodeView section: the first `low.capacity` bytes stay in memory until more arrive.
    CBinarySection(BrxHandle objectFile, int32_t format, const char *name, uint32_t alignment,
                   uint16_t flags, uint32_t kindAttribute, LowBuffer low);
    // A COMDAT code section's own symbol section: with format 3 its signature and symbols
    // subsection header come in front of its first bytes; with format 1 or 2 it is created at once.
    CBinarySection(BrxHandle objectFile, int32_t format, const char *name, uint32_t alignment,
                   uint16_t flags, uint32_t kindAttribute, AssociatedWith associated);
    virtual ~CBinarySection();

    CBinarySection(const CBinarySection &) = delete;
    CBinarySection &operator=(const CBinarySection &) = delete;

    CError Append(const void *bytes, uint32_t length);
    CError Append(const std::vector<uint8_t> &bytes);
    // Appends a record once its writer holds exactly the computed length. `start`, when given,
    // receives the offset at which the record begins: measured after the append, because a
    // pending subsection header may go in front of it.
    CError AppendRecord(const quillet::ByteWriter &record, uint64_t *start = nullptr);
    CError ReadNext(void *buffer, uint64_t length);
    CError OpenExisting();
    // A section-index (COFF) or section-offset (ELF) relocation at `offset` against `target`.
    CError AddSectionRelocation(uint64_t offset, BrxHandle target);
    // A direct address relocation at `offset` against `target`: 4 bytes under ELF32, 8 under
    // ELF64, section-relative under COFF.
    // `addend` is added to the target's address (RELA addend, or the relocated field on machines
    // whose ABI keeps it there).
    CError AddAddressRelocation(uint64_t offset, BrxHandle target, int64_t addend = 0);
    // Begins a CodeView subsection on a 4-byte boundary, or writes the signature for kind 4.
    CError StartSubsection(uint32_t kind);
    // Overwrites 4 bytes already written (a length patch), in the low buffer or the object file.
    CError WriteU32At(uint64_t offset, uint32_t value);

    // Lets appends collect in memory and reach the object file in pieces of about `capacity`
    // bytes (for sections that receive many small records). Size() counts collected bytes.
    void EnableStaging(size_t capacity) { m_nStagingCapacity = capacity; }
    // Writes what was collected; the owner calls it when the section is complete.
    CError Flush();

    BrxHandle Section() const { return m_hSection; }
    BrxHandle ObjectFile() const { return m_hObjectFile; }
    int32_t Format() const { return m_nFormat; }
    const std::string &Name() const { return m_Name; }
    uint64_t Size() const { return m_nSize; }
    uint64_t ExistingSize() const { return m_nExistingSize; }
    uint32_t Alignment() const { return m_nAlignment; }
    uint16_t Flags() const { return m_nFlags; }
    uint32_t KindAttribute() const { return m_nKindAttribute; }
    BrxHandle AssociatedSection() const { return m_hAssociated; }
    uint32_t LowCapacity() const { return m_nLowCapacity; }
    const uint8_t *LowData() const { return m_pLowRawdata.get(); }
    bool IsCreated() const { return m_hSection != 0; }

    void SetPendingSubsectionType(uint32_t kind) { m_nPendingSubsection = kind; }
    uint64_t SubsectionStart() const { return m_nSubsectionStart; }
    void SetSubsectionStart(uint64_t offset) { m_nSubsectionStart = offset; }

private:
    CError CreateSection();
    CError EnsureCreated();
    CError WriteAt(uint64_t offset, const void *bytes, uint64_t count, uint64_t &written);

    BrxHandle m_hSection = 0;
    uint64_t m_nSize = 0;
    uint64_t m_nExistingSize = 0;
    BrxHandle m_hObjectFile = 0;
    int32_t m_nFormat = 0;
    std::string m_Name;
    uint32_t m_nAlignment = 0;
    uint16_t m_nFlags = 0;
    uint32_t m_nKindAttribute = 0;
    BrxHandle m_hAssociated = 0;
    std::unique_ptr<uint8_t[]> m_pLowRawdata;
    uint32_t m_nLowCapacity = 0;
    uint32_t m_nPendingSubsection = 0;
    uint64_t m_nSubsectionStart = 0;
    size_t m_nStagingCapacity = 0;
    std::vector<uint8_t> m_Staged; // the last m_Staged.size() bytes of m_nSize
};

// Base of the readers that load one whole named section into memory and parse it.
class CBaseDebugSection {
public:
    explicit CBaseDebugSection(const char *name) : m_Name(name) {}
    virtual ~CBaseDebugSection();

    // Interprets the loaded bytes from the read position.
    virtual CError Parse() = 0;
    // Reads the named section of the object file whole. Fails when the format is not 1..3, the
    // section does not exist or cannot be read.
    CError Load(BrxHandle objectFile);

    const std::string &Name() const { return m_Name; }
    const uint8_t *Data() const { return m_Data.data(); }
    uint64_t Size() const { return m_nSize; }
    BrxHandle Section() const { return m_hSection; }
    const uint8_t *ReadPosition() const { return m_pReadPos; }
    void SetReadPosition(const uint8_t *position) { m_pReadPos = position; }

protected:
    const uint8_t *m_pReadPos = nullptr;
    std::string m_Name;
    std::vector<uint8_t> m_Data;
    BrxHandle m_hSection = 0;
    uint64_t m_nSize = 0;
};
