#include "frame/BinarySection.h"

#include "platform/ByteWriter.h"

#include "frame/LibraryState.h"
#include "frame/ObjectFile.h"
#include "frame/Target.h"
#include "platform/Check.h"
#include "wideint/WideInt.h"

#include <algorithm>
#include <cstring>
#include <new>

CBinarySection::CBinarySection(BrxHandle objectFile, int32_t format, const char *name)
    : m_hObjectFile(objectFile), m_nFormat(format), m_Name(name ? name : "") {}

CBinarySection::CBinarySection(BrxHandle objectFile, int32_t format, const char *name,
                               uint32_t alignment, uint16_t flags, uint32_t kindAttribute)
    : CBinarySection(objectFile, format, name) {
    m_nAlignment = alignment;
    m_nFlags = flags;
    m_nKindAttribute = kindAttribute;
    if (format == FORMAT_ELF32 || format == FORMAT_ELF64)
        (void)CreateSection();
}

CBinarySection::CBinarySection(BrxHandle objectFile, int32_t format, const char *name,
                               uint32_t alignment, uint16_t flags, uint32_t kindAttribute,
                               LowBuffer low)
    : CBinarySection(objectFile, format, name, alignment, flags, kindAttribute) {
    m_pLowRawdata.reset(new (std::nothrow) uint8_t[low.capacity ? low.capacity : 1]);
    m_nLowCapacity = m_pLowRawdata ? low.capacity : 0;
}

CBinarySection::CBinarySection(BrxHandle objectFile, int32_t format, const char *name,
                               uint32_t alignment, uint16_t flags, uint32_t kindAttribute,
                               AssociatedWith associated)
    : CBinarySection(objectFile, format, name) {
    m_nAlignment = alignment;
    m_nFlags = flags;
    m_nKindAttribute = kindAttribute;
    m_hAssociated = associated.section;
    if (format == FORMAT_COFF)
        m_nPendingSubsection = CV_SIGNATURE;
    else
        (void)CreateSection();
}

CBinarySection::~CBinarySection() {
    (void)Flush();
}

CError CBinarySection::Flush() {
    if (m_Staged.empty())
        return kOk;
    uint64_t start = m_nSize - m_Staged.size();
    uint64_t written = 0;
    CError result = EnsureCreated();
    if (result.Ok())
        result = WriteAt(start, m_Staged.data(), m_Staged.size(), written);
    if (result.Ok() && written != m_Staged.size())
        result = kFailed;
    m_Staged.clear();
    return result;
}

CError CBinarySection::CreateSection() {
    BrxHandle section = 0;
    if (objfile::CreateSection(m_hObjectFile, m_nFormat, m_Name, m_nFlags, m_nAlignment,
                               m_nKindAttribute, section)
            .Failed())
        return kFailed;
    if (m_hAssociated != 0) {
        BrxComdat comdat{BRX_COMDAT_ASSOCIATIVE, m_hAssociated};
        if (_brx_set_value(section, BRX_KEY_COMDAT, &comdat, 0) != BRX_OK)
            return kFailed;
    }
    m_hSection = section;
    return kOk;
}

// Creates the section when it does not exist yet and moves the buffered bytes into it.
CError CBinarySection::EnsureCreated() {
    if (m_hSection != 0)
        return kOk;
    if (CreateSection().Failed())
        return kFailed;
    if (m_nSize > 0) {
        uint64_t written = 0;
        if (objfile::WriteBytes(m_hSection, 0, m_pLowRawdata.get(), m_nSize, written).Failed())
            return kFailed;
    }
    return kOk;
}

CError CBinarySection::WriteAt(uint64_t offset, const void *bytes, uint64_t count,
                               uint64_t &written) {
    return objfile::WriteBytes(m_hSection, offset, bytes, count, written);
}

CError CBinarySection::Append(const void *bytes, uint32_t length) {
    if (m_nPendingSubsection != 0) {
        uint32_t pending = m_nPendingSubsection;
        m_nPendingSubsection = 0;
        if (pending == CV_SIGNATURE) {
            CError result = StartSubsection(CV_SIGNATURE);
            QCHECK(result == CError::BOOL_STATUS_OK);
            result = StartSubsection(DEBUG_S_SYMBOLS);
            QCHECK(result == CError::BOOL_STATUS_OK);
        } else {
            CError result = StartSubsection(pending);
            QCHECK(result == CError::BOOL_STATUS_OK);
        }
    }
    if (m_hSection == 0 && m_nSize + length <= m_nLowCapacity && m_nSize < (uint64_t(1) << 32)) {
        if (length > 0 && QCHECK(m_pLowRawdata != nullptr))
            std::memcpy(m_pLowRawdata.get() + m_nSize, bytes, length);
        m_nSize += length;
        return kOk;
    }
    if (EnsureCreated().Failed())
        return kFailed;
    if (m_nStagingCapacity > 0) {
        const auto *data = static_cast<const uint8_t *>(bytes);
        m_Staged.insert(m_Staged.end(), data, data + length);
        m_nSize += length;
        return m_Staged.size() >= m_nStagingCapacity ? Flush() : kOk;
    }
    uint64_t written = 0;
    if (WriteAt(m_nSize, bytes, length, written).Failed())
        return kFailed;
    m_nSize += written;
    return kOk;
}

CError CBinarySection::AppendRecord(const quillet::ByteWriter &record, uint64_t *start) {
    if (!record.Finish())
        return kFailed;
    if (Append(record.Data(), uint32_t(record.Size())).Failed())
        return kFailed;
    if (start)
        *start = m_nSize - record.Size();
    return kOk;
}

CError CBinarySection::Append(const std::vector<uint8_t> &bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        uint32_t piece = uint32_t(std::min<size_t>(bytes.size() - done, 0x40000000u));
        if (Append(bytes.data() + done, piece).Failed())
            return kFailed;
        done += piece;
    }
    return kOk;
}

CError CBinarySection::ReadNext(void *buffer, uint64_t length) {
    if (Flush().Failed())
        return kFailed;
    if (m_hSection == 0 && OpenExisting().Failed())
        return kFailed;
    uint64_t read = 0;
    if (objfile::ReadBytes(m_hSection, m_nSize, buffer, length, read).Failed())
        return kFailed;
    m_nSize += read;
    return kOk;
}

CError CBinarySection::OpenExisting() {
    BrxHandle section = 0;
    if (objfile::FindSection(m_hObjectFile, m_Name, section).Failed() || section == 0)
        return kFailed;
    uint32_t alignment = 0, kind = 0;
    uint16_t flags = 0;
    uint64_t size = 0;
    // Attributes that a foreign file does not carry are left at 0.
    if (_brx_get_keyed(section, BRX_KEY_SECTION_ALIGNMENT, nullptr, &alignment, 0) == BRX_OK)
        m_nAlignment = alignment;
    if (_brx_get_keyed(section, BRX_KEY_SECTION_FLAGS, nullptr, &flags, 0) == BRX_OK)
        m_nFlags = flags;
    if (_brx_get_keyed(section, BRX_KEY_SECTION_KIND, nullptr, &kind, 0) == BRX_OK)
        m_nKindAttribute = kind;
    if (objfile::SectionSize(section, size).Failed())
        return kFailed;
    m_hSection = section;
    m_nExistingSize = size;
    return kOk;
}

// ELF: a 32-bit absolute address of the section (an offset into it); COFF: its section index.
CError CBinarySection::AddSectionRelocation(uint64_t offset, BrxHandle target) {
    if (EnsureCreated().Failed())
        return kFailed;
    uint32_t type;
    switch (m_nFormat) {
    case FORMAT_ELF32:
    case FORMAT_ELF64:
        type = BoundTarget().elfAbsolute32;
        break;
    case FORMAT_COFF:
        type = BoundTarget().coffSectionIndex;
        break;
    default:
        return kFailed;
    }
    return objfile::CreateRelocation(m_hSection, m_nFormat, type, offset, target);
}

// ELF: an absolute address as wide as the format's addresses; COFF: a section-relative offset.
CError CBinarySection::AddAddressRelocation(uint64_t offset, BrxHandle target, int64_t addend) {
    if (EnsureCreated().Failed())
        return kFailed;
    uint32_t type;
    switch (m_nFormat) {
    case FORMAT_ELF32:
        type = BoundTarget().elfAbsolute32;
        break;
    case FORMAT_ELF64:
        type = BoundTarget().elfAbsolute64;
        break;
    case FORMAT_COFF:
        type = BoundTarget().coffSectionRelative;
        break;
    default:
        return kFailed;
    }
    return objfile::CreateRelocation(m_hSection, m_nFormat, type, offset, target, addend);
}

CError CBinarySection::StartSubsection(uint32_t kind) {
    // A header still pending goes in first, so that this subsection starts after it. A pending
    // signature comes alone: a COMDAT section's own symbol section whose first bytes open
    // another subsection has no symbols, and an empty symbols subsection is not written.
    if (m_nPendingSubsection != 0) {
        const uint32_t pending = m_nPendingSubsection;
        m_nPendingSubsection = 0;
        if (StartSubsection(pending).Failed())
            return kFailed;
    }
    WideUInt128 remainder;
    CError divided =
        WideRemainder(remainder, WideUInt128::FromU64(m_nSize), WideUInt128::FromU64(4));
    QCHECK(divided == CError::BOOL_STATUS_OK);
    uint64_t r = remainder.Low64();
    if (r != 0) {
        static const uint8_t zeros[4] = {0, 0, 0, 0};
        if (Append(zeros, uint32_t(4 - r)).Failed())
            return kFailed;
    }
    m_nSubsectionStart = m_nSize;
    uint8_t header[8] = {
        uint8_t(kind), uint8_t(kind >> 8), uint8_t(kind >> 16), uint8_t(kind >> 24), 0, 0, 0, 0};
    return Append(header, kind == CV_SIGNATURE ? 4 : 8);
}

CError CBinarySection::WriteU32At(uint64_t offset, uint32_t value) {
    uint8_t bytes[4] = {uint8_t(value), uint8_t(value >> 8), uint8_t(value >> 16),
                        uint8_t(value >> 24)};
    if (offset + 4 > m_nSize)
        return kFailed;
    uint64_t stagedStart = m_nSize - m_Staged.size();
    if (!m_Staged.empty() && offset >= stagedStart) {
        std::memcpy(m_Staged.data() + (offset - stagedStart), bytes, 4);
        return kOk;
    }
    if (!m_Staged.empty() && offset + 4 > stagedStart && Flush().Failed())
        return kFailed;
    if (m_hSection == 0) {
        if (!m_pLowRawdata)
            return kFailed;
        std::memcpy(m_pLowRawdata.get() + offset, bytes, 4);
        return kOk;
    }
    uint64_t written = 0;
    if (WriteAt(offset, bytes, 4, written).Failed() || written != 4)
        return kFailed;
    return kOk;
}

CBaseDebugSection::~CBaseDebugSection() = default;

CError CBaseDebugSection::Load(BrxHandle objectFile) {
    int32_t format = 0;
    if (objfile::QueryFormat(objectFile, format).Failed() || format < FORMAT_ELF32 ||
        format > FORMAT_COFF)
        return kFailed;
    CBinarySection reader(objectFile, format, m_Name.c_str());
    if (reader.OpenExisting().Failed())
        return kFailed;
    m_hSection = reader.Section();
    m_nSize = reader.ExistingSize();
    try {
        m_Data.assign(size_t(m_nSize), 0);
    } catch (const std::bad_alloc &) {
        return kFailed;
    }
    m_pReadPos = m_Data.data();
    if (m_nSize > 0 && reader.ReadNext(m_Data.data(), m_nSize).Failed())
        return kFailed;
    return kOk;
}
