#include "Model.h"
#include "ElfFormat.h"

#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstring>

namespace brix {

bool CSection::IsDebug() const {
    return (m_nFlags & BRX_SECTION_DEBUG) != 0 || m_Name.compare(0, 6, ".debug") == 0;
}

void CSection::MakeWritable() {
    if (!m_bUsesView || m_nCompression != 0)
        return;
    if (m_bZeroFill)
        m_Data.assign(m_nViewSize, 0);
    else
        m_Data.assign(m_pView, m_pView + m_nViewSize);
    m_bUsesView = false;
    m_bZeroFill = false;
    m_pView = nullptr;
    m_nViewSize = 0;
}

int32_t CSection::Inflate() {
    if (m_nCompression == 0)
        return BRX_OK;
    if (m_nCompression != elf::ELFCOMPRESS_ZLIB)
        return BRX_ERR_UNSUPPORTED_COMPRESSION;
    // The header's size is checked against what the stream holds, so a hostile size costs no
    // more than the stream can fill: zlib expands at most about 1032 times.
    constexpr uint64_t kMaxExpansion = 1032;
    if (m_nViewSize / kMaxExpansion > m_nCompressedSize + 1)
        return BRX_ERR_FAILED;
    std::vector<uint8_t> data(m_nViewSize);
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK)
        return BRX_ERR_FAILED;
    const uint8_t *in = m_pCompressed;
    uint64_t inLeft = m_nCompressedSize;
    uint8_t *out = data.data();
    uint64_t outLeft = data.size();
    int status = Z_OK;
    // zlib counts in 32-bit units: feed and drain it in pieces.
    while (status == Z_OK) {
        stream.next_in = const_cast<uint8_t *>(in);
        stream.avail_in = uInt(std::min<uint64_t>(inLeft, UINT_MAX));
        stream.next_out = out;
        stream.avail_out = uInt(std::min<uint64_t>(outLeft, UINT_MAX));
        uInt inBefore = stream.avail_in, outBefore = stream.avail_out;
        status = inflate(&stream, Z_NO_FLUSH);
        in += inBefore - stream.avail_in;
        inLeft -= inBefore - stream.avail_in;
        out += outBefore - stream.avail_out;
        outLeft -= outBefore - stream.avail_out;
        if (status == Z_OK && inBefore == stream.avail_in && outBefore == stream.avail_out)
            break; // no progress: the stream is cut short
    }
    inflateEnd(&stream);
    if (status != Z_STREAM_END || outLeft != 0)
        return BRX_ERR_FAILED;
    m_Data.swap(data);
    m_bUsesView = false;
    m_nCompression = 0;
    m_pCompressed = nullptr;
    m_nCompressedSize = 0;
    return BRX_OK;
}

uint64_t CSection::Read(uint64_t offset, uint64_t count, uint8_t *out) const {
    if (m_nCompression != 0)
        return 0;
    uint64_t size = Size();
    if (offset >= size)
        return 0;
    uint64_t n = std::min(count, size - offset);
    if (n == 0)
        return 0;
    if (m_bUsesView && m_bZeroFill)
        std::memset(out, 0, n);
    else
        std::memcpy(out, (m_bUsesView ? m_pView : m_Data.data()) + offset, n);
    return n;
}

CBrxFile::CBrxFile(int32_t format, std::string path, bool writable)
    : m_nFormat(format), m_Path(std::move(path)), m_bWritable(writable),
      m_nMachine(format == BRX_FORMAT_COFF ? BRX_MACHINE_COFF_DEFAULT : BRX_MACHINE_ELF_DEFAULT) {}

void CBrxFile::SetSymbolName(CSymbol &symbol, std::string_view name) {
    symbol.m_nNameOffset = uint32_t(m_Names.size());
    symbol.m_nNameLength = uint32_t(name.size());
    m_Names.append(name);
}

uint32_t CBrxFile::AddSection(std::string name) {
    uint32_t index = uint32_t(m_Sections.size());
    m_Sections.emplace_back();
    m_Sections.back().m_Name = std::move(name);
    m_Sections.back().m_Handle = Track(State().Register(this, Kind::Section, index));
    return index;
}

uint32_t CBrxFile::AddRelocation(uint32_t section) {
    uint32_t index = uint32_t(m_Relocations.size());
    CRelocation &r = m_Relocations.emplace_back();
    r.m_nSection = section;
    r.m_nPosition = uint32_t(m_Sections[section].m_Relocations.size());
    m_Sections[section].m_Relocations.push_back(index);
    r.m_Handle = Track(State().Register(this, Kind::Relocation, index));
    return index;
}

std::vector<uint32_t> CBrxFile::RelocationsByOffset(const CSection &section) const {
    std::vector<uint32_t> order = section.m_Relocations;
    auto byOffset = [this](uint32_t a, uint32_t b) {
        return m_Relocations[a].m_nOffset < m_Relocations[b].m_nOffset;
    };
    if (!std::is_sorted(order.begin(), order.end(), byOffset))
        std::stable_sort(order.begin(), order.end(), byOffset);
    return order;
}

uint32_t CBrxFile::AddSymbol(std::string_view name) {
    uint32_t index = uint32_t(m_Symbols.size());
    CSymbol &s = m_Symbols.emplace_back();
    SetSymbolName(s, name);
    s.m_Handle = Track(State().Register(this, Kind::Symbol, index));
    return index;
}

uint32_t CBrxFile::AddLineBlock(uint32_t section) {
    uint32_t index = uint32_t(m_LineBlocks.size());
    CLineBlock &b = m_LineBlocks.emplace_back();
    b.m_nSection = section;
    b.m_nPosition = uint32_t(m_Sections[section].m_LineBlocks.size());
    b.m_nFirstItem = uint32_t(m_LineItems.size());
    m_Sections[section].m_LineBlocks.push_back(index);
    b.m_Handle = Track(State().Register(this, Kind::LineBlock, index));
    return index;
}

uint32_t CBrxFile::AddLineItem(uint32_t block) {
    uint32_t index = uint32_t(m_LineItems.size());
    CLineItem &item = m_LineItems.emplace_back();
    item.m_nBlock = block;
    m_LineBlocks[block].m_nItemCount++;
    item.m_Handle = Track(State().Register(this, Kind::LineItem, index));
    return index;
}

uint32_t CBrxFile::AddFileReference(BrxHandle symbol) {
    uint32_t index = uint32_t(m_FileReferences.size());
    CFileReference &f = m_FileReferences.emplace_back();
    f.m_Symbol = symbol;
    f.m_Handle = Track(State().Register(this, Kind::FileReference, index));
    return index;
}

void CBrxFile::AddSymbolTable() {
    m_SymbolTable = Track(State().Register(this, Kind::SymbolTable, 0));
}

CBrixState &State() {
    static CBrixState state;
    return state;
}

BrxHandle CBrixState::Register(CBrxFile *file, Kind kind, uint32_t index) {
    uint32_t slot;
    if (!m_FreeSlots.empty()) {
        slot = m_FreeSlots.front();
        m_FreeSlots.pop_front();
    } else {
        slot = uint32_t(m_Slots.size());
        // The last slot would make handle 0xFFFFFFFF possible, which means "first".
        if (slot >= kSlotMask)
            return 0;
        m_Slots.emplace_back();
    }
    CHandleEntry &e = m_Slots[slot];
    e.m_pFile = file;
    e.m_nIndex = index;
    e.m_Kind = kind;
    return slot | (uint32_t(e.m_nGeneration) << kSlotBits);
}

const CHandleEntry *CBrixState::Lookup(BrxHandle handle) const {
    uint32_t slot = handle & kSlotMask;
    if (slot == 0 || slot >= m_Slots.size())
        return nullptr;
    const CHandleEntry &e = m_Slots[slot];
    if (e.m_Kind == Kind::None || e.m_nGeneration != (handle >> kSlotBits))
        return nullptr;
    return &e;
}

void CBrixState::Release(BrxHandle handle) {
    uint32_t slot = handle & kSlotMask;
    if (slot == 0 || slot >= m_Slots.size())
        return;
    CHandleEntry &e = m_Slots[slot];
    if (e.m_Kind == Kind::None || e.m_nGeneration != (handle >> kSlotBits))
        return;
    e.m_Kind = Kind::None;
    e.m_pFile = nullptr;
    e.m_nGeneration = uint8_t(e.m_nGeneration + 1);
    m_FreeSlots.push_back(slot);
}

CBrxFile *CBrixState::Adopt(std::unique_ptr<CBrxFile> file) {
    CBrxFile *raw = file.get();
    raw->m_Handle = Register(raw, Kind::File, 0);
    m_Files.emplace(raw, std::move(file));
    return raw;
}

void CBrixState::Close(CBrxFile *file) {
    auto it = m_Files.find(file);
    if (it == m_Files.end())
        return;
    for (const CSection &s : file->m_Sections)
        Release(s.m_Handle);
    for (const CRelocation &r : file->m_Relocations)
        Release(r.m_Handle);
    for (const CSymbol &s : file->m_Symbols)
        Release(s.m_Handle);
    for (const CLineBlock &b : file->m_LineBlocks)
        Release(b.m_Handle);
    for (const CLineItem &i : file->m_LineItems)
        Release(i.m_Handle);
    for (const CFileReference &f : file->m_FileReferences)
        Release(f.m_Handle);
    Release(file->m_SymbolTable);
    Release(file->m_Handle);
    m_Files.erase(it);
}

void CBrixState::Reset() {
    while (!m_Files.empty())
        Close(m_Files.begin()->first);
}

const CHandleEntry *LookupKind(BrxHandle handle, Kind kind) {
    const CHandleEntry *e = State().Lookup(handle);
    return e && e->m_Kind == kind ? e : nullptr;
}

} // namespace brix
