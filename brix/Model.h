// The in-memory object model behind the keyed interface: a file owns its sections, relocations,
// symbols and (for COFF objects read back) CodeView line blocks. Every object has a handle from
// the process-wide registry; the registry maps a handle to the file and the object's position in
// the file's vectors, so lookups and iteration steps are O(1).
//
// High-volume objects (relocations, symbols, line items) are plain values in per-file vectors;
// symbol names live in one shared character pool, so creating them costs no allocation each.
#pragma once

#include "FileImage.h"
#include "brix/brix.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace brix {

// Kinds of the registry; the first ones are the public BRX_KIND_* numbers.
enum class Kind : uint8_t {
    None = 0,
    File = BRX_KIND_FILE,
    Section = BRX_KIND_SECTION,
    Relocation = BRX_KIND_RELOCATION,
    SymbolTable = BRX_KIND_SYMBOL_TABLE,
    Symbol = BRX_KIND_SYMBOL,
    LineBlock = BRX_KIND_LINE_BLOCK,
    LineItem = BRX_KIND_LINE_ITEM,
    FileReference = 9, // what a line block names as its file (answers key 125)
};

class CBrxFile;

// A growing list of plain records kept in fixed-size blocks: appending never moves or copies the
// records already there (so a large list never needs its old and new storage at once, and
// references stay valid), and there is no unused capacity beyond the last block.
template <class T, unsigned kBlockBits = 6> class CBlockList {
public:
    static constexpr size_t kBlock = size_t(1) << kBlockBits;

    size_t size() const { return m_nSize; }
    bool empty() const { return m_nSize == 0; }
    T &operator[](size_t i) { return m_Blocks[i >> kBlockBits][i & (kBlock - 1)]; }
    const T &operator[](size_t i) const { return m_Blocks[i >> kBlockBits][i & (kBlock - 1)]; }
    T &back() { return (*this)[m_nSize - 1]; }
    const T &back() const { return (*this)[m_nSize - 1]; }
    T &emplace_back() {
        if (m_nSize == m_Blocks.size() * kBlock) {
            // Owned before the list grows, so a failed growth does not lose the block.
            std::unique_ptr<T[]> block(new T[kBlock]);
            m_Blocks.push_back(std::move(block));
        }
        T &slot = (*this)[m_nSize++];
        slot = T();
        return slot;
    }
    void pop_back() { --m_nSize; }
    // The room is taken block by block as records arrive; a count given in advance changes
    // nothing.
    void reserve(size_t) {}

    template <class List, class Value> class Iterator {
    public:
        Iterator(List *list, size_t at) : m_pList(list), m_nAt(at) {}
        Value &operator*() const { return (*m_pList)[m_nAt]; }
        Iterator &operator++() {
            ++m_nAt;
            return *this;
        }
        bool operator!=(const Iterator &other) const { return m_nAt != other.m_nAt; }

    private:
        List *m_pList;
        size_t m_nAt;
    };
    Iterator<CBlockList, T> begin() { return {this, 0}; }
    Iterator<CBlockList, T> end() { return {this, m_nSize}; }
    Iterator<const CBlockList, const T> begin() const { return {this, 0}; }
    Iterator<const CBlockList, const T> end() const { return {this, m_nSize}; }

private:
    std::vector<std::unique_ptr<T[]>> m_Blocks;
    size_t m_nSize = 0;
};

struct CSection {
    BrxHandle m_Handle = 0;
    std::string m_Name;
    uint16_t m_nFlags = 0;
    uint32_t m_nKind = 0;      // key 46
    uint32_t m_nAlignment = 1; // key 51, in bytes
    uint64_t m_nAddress = 0;   // key 40
    // Bytes of a section read from a file stay in the file's image (m_pView) until somebody
    // writes into the section; then they are copied into m_Data once.
    std::vector<uint8_t> m_Data;
    const uint8_t *m_pView = nullptr;
    uint64_t m_nViewSize = 0;
    bool m_bUsesView = false;
    bool m_bZeroFill = false; // uninitialised data: m_nViewSize bytes that read as zero
    // A compressed section read from a file: m_nViewSize is its decompressed size, and its bytes
    // are decompressed into m_Data the first time they are read (Inflate).
    uint32_t m_nCompression = 0; // the ELF compression type; 0 when the bytes are plain
    const uint8_t *m_pCompressed = nullptr;
    uint64_t m_nCompressedSize = 0;
    // What key 136 answers, worked out on first use.
    std::vector<BrxResolvedRelocation> m_Resolved;
    bool m_bResolved = false;
    uint32_t m_nComdatSelection = BRX_COMDAT_NONE;
    BrxHandle m_AssociatedSection = 0;
    std::vector<uint32_t> m_Relocations; // indices into CBrxFile::m_Relocations
    std::vector<uint32_t> m_LineBlocks;  // indices into CBrxFile::m_LineBlocks

    uint64_t Size() const { return m_bUsesView ? m_nViewSize : m_Data.size(); }
    bool IsCode() const { return (m_nFlags & BRX_SECTION_CODE) != 0; }
    bool IsDebug() const;
    // Brings a viewed section's bytes into m_Data so that they can be changed.
    void MakeWritable();
    // Decompresses a compressed section's bytes; BRX_OK (also when there is nothing to do),
    // BRX_ERR_UNSUPPORTED_COMPRESSION, or BRX_ERR_FAILED for a stream that is not what its header
    // says.
    int32_t Inflate();
    // Copies up to count bytes at offset into out; answers the count copied (0 for a compressed
    // section not yet inflated).
    uint64_t Read(uint64_t offset, uint64_t count, uint8_t *out) const;
};

struct CRelocation {
    BrxHandle m_Handle = 0;
    uint32_t m_nSection = 0;  // index of the section it applies to
    uint32_t m_nPosition = 0; // position in that section's relocation list
    uint64_t m_nOffset = 0;
    uint32_t m_nType = 0;
    BrxHandle m_Target = 0; // a symbol or a section of the same file
    int64_t m_nAddend = 0;
    bool m_bAddendInPlace = false; // read from an ELF REL section: the field holds the addend
};

struct CSymbol {
    BrxHandle m_Handle = 0;
    uint32_t m_nNameOffset = 0; // in CBrxFile::m_Names
    uint32_t m_nNameLength = 0;
    uint32_t m_nStorage = 0; // key 7
    uint32_t m_nBinding = BRX_BINDING_LOCAL;
    uint32_t m_nType = BRX_SYMBOL_PLAIN;
    BrxHandle m_Section = 0;
    uint64_t m_nOffset = 0;
    uint64_t m_nSize = 0; // key 71; read from the file, 0 when it gives none
};

struct CLineBlock {
    BrxHandle m_Handle = 0;
    uint32_t m_nSection = 0;
    uint32_t m_nPosition = 0; // position in the section's block list
    uint32_t m_nFirstItem = 0;
    uint32_t m_nItemCount = 0;
    BrxHandle m_FileReference = 0;
    uint64_t m_nCodeEnd = 0; // section offset where the code of its lines subsection ends
};

struct CLineItem {
    BrxHandle m_Handle = 0;
    uint32_t m_nBlock = 0;
    uint32_t m_nLine = 0;
    uint32_t m_nColumn = 0;
    uint64_t m_nAddress = 0;
};

struct CFileReference {
    BrxHandle m_Handle = 0;
    BrxHandle m_Symbol = 0; // the source-file symbol
};

// One object file, written or read.
class CBrxFile {
public:
    CBrxFile(int32_t format, std::string path, bool writable);

    BrxHandle m_Handle = 0;
    BrxHandle m_SymbolTable = 0;
    int32_t m_nFormat;
    std::string m_Path;
    bool m_bWritable;             // made by _brx_new_file: _brx_write_file serialises it
    uint32_t m_nMachine;          // key 20
    uint32_t m_nMachineFlags = 0; // key 21, ELF e_flags
    bool m_bBigEndian = false;    // a file read back whose fields are big-endian
    uint32_t m_nObjectKind = 0;   // key 19
    CFileImage m_Image;           // the whole file, for files read back

    std::vector<CSection> m_Sections;
    CBlockList<CRelocation> m_Relocations;
    CBlockList<CSymbol> m_Symbols;
    std::string m_Names; // symbol names, back to back
    std::vector<CLineBlock> m_LineBlocks;
    std::vector<CLineItem> m_LineItems;
    std::vector<CFileReference> m_FileReferences;

    std::string_view SymbolName(const CSymbol &symbol) const {
        return std::string_view(m_Names).substr(symbol.m_nNameOffset, symbol.m_nNameLength);
    }
    void SetSymbolName(CSymbol &symbol, std::string_view name);
    // A section's relocations in ascending offset order, those at one offset in creation order:
    // the order the writers lay them out in, whatever order they were made in (linkers warn on
    // unsorted relocations).
    std::vector<uint32_t> RelocationsByOffset(const CSection &section) const;

    // Creation: each registers the new object and answers its position.
    uint32_t AddSection(std::string name);
    uint32_t AddRelocation(uint32_t section);
    uint32_t AddSymbol(std::string_view name);
    uint32_t AddLineBlock(uint32_t section);
    uint32_t AddLineItem(uint32_t block);
    uint32_t AddFileReference(BrxHandle symbol);
    void AddSymbolTable();

    // Set when the registry ran out of handles; creation and reading then fail.
    bool m_bOutOfHandles = false;

private:
    BrxHandle Track(BrxHandle handle) {
        if (handle == 0)
            m_bOutOfHandles = true;
        return handle;
    }
};

// What a handle stands for.
struct CHandleEntry {
    CBrxFile *m_pFile = nullptr;
    uint32_t m_nIndex = 0; // position in the file's vector of that kind
    Kind m_Kind = Kind::None;
    uint8_t m_nGeneration = 0;
};

// The process-wide handle registry and the open files. A handle is a slot number (low 24 bits)
// and the slot's generation (high 8 bits): a slot is reused only after its object was released
// (its file closed, or its creation refused), and then with a new generation, so a stale handle
// is refused rather than taken for a new object. Released slots are reused oldest first, so a
// generation comes round again only after very many releases.
class CBrixState {
public:
    CBrixState() { m_Slots.emplace_back(); }
    BrxHandle Register(CBrxFile *file, Kind kind, uint32_t index);
    const CHandleEntry *Lookup(BrxHandle handle) const;
    // Releases the file and every handle that names it.
    void Close(CBrxFile *file);
    CBrxFile *Adopt(std::unique_ptr<CBrxFile> file);
    void Reset();
    void Release(BrxHandle handle);

private:
    static constexpr uint32_t kSlotBits = 24;
    static constexpr uint32_t kSlotMask = (1u << kSlotBits) - 1;
    CBlockList<CHandleEntry, 7> m_Slots; // slot 0 is never handed out
    std::deque<uint32_t> m_FreeSlots;
    std::unordered_map<CBrxFile *, std::unique_ptr<CBrxFile>> m_Files;
};

CBrixState &State();

// Finds the object of a handle with the expected kind; null when the handle is unknown, released
// or of another kind.
const CHandleEntry *LookupKind(BrxHandle handle, Kind kind);

} // namespace brix
