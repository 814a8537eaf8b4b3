#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace brixtest {

BrxHandle AddSection(BrxHandle file, const char *name, uint16_t flags, uint32_t alignment,
                     uint32_t kind) {
    BrxAttr attrs[] = {{BRX_KEY_NAME, name},
                       {BRX_KEY_SECTION_FLAGS, &flags},
                       {BRX_KEY_SECTION_ALIGNMENT, &alignment},
                       {BRX_KEY_SECTION_KIND, &kind}};
    BrxHandle section = 0;
    EXPECT_EQ(_brx_create_object(file, 0, BRX_KIND_SECTION, 4, attrs, &section, 0), 0) << name;
    return section;
}

BrxHandle AddSymbol(BrxHandle file, const char *name, uint32_t binding, uint32_t type,
                    BrxHandle section, uint64_t offset) {
    uint32_t storage = 0;
    BrxAttr attrs[] = {{BRX_KEY_SYMBOL_NAME, name},        {BRX_KEY_SYMBOL_STORAGE, &storage},
                       {BRX_KEY_SYMBOL_BINDING, &binding}, {BRX_KEY_SYMBOL_TYPE, &type},
                       {BRX_KEY_SYMBOL_SECTION, &section}, {BRX_KEY_SYMBOL_OFFSET, &offset}};
    BrxHandle symbol = 0;
    EXPECT_EQ(_brx_create_object(SymbolTable(file), 0, BRX_KIND_SYMBOL, 6, attrs, &symbol, 0), 0)
        << name;
    return symbol;
}

BrxHandle AddRelocation(BrxHandle section, uint32_t type, BrxHandle target, uint64_t offset,
                        int64_t addend) {
    BrxAttr attrs[] = {{BRX_KEY_RELOC_TYPE, &type},
                       {BRX_KEY_RELOC_TARGET, &target},
                       {BRX_KEY_RELOC_OFFSET, &offset},
                       {BRX_KEY_RELOC_ADDEND, &addend}};
    BrxHandle reloc = 0;
    EXPECT_EQ(_brx_create_object(section, 0, BRX_KIND_RELOCATION, 4, attrs, &reloc, 0), 0);
    return reloc;
}

void AppendBytes(BrxHandle section, const std::vector<uint8_t> &bytes) {
    BrxBytes rec{bytes.size(), U64(section, BRX_KEY_SECTION_SIZE),
                 const_cast<uint8_t *>(bytes.data())};
    EXPECT_EQ(_brx_set_value(section, BRX_KEY_SECTION_DATA, &rec, 0), 0);
    EXPECT_EQ(rec.count, bytes.size());
}

BrxHandle SymbolTable(BrxHandle file) {
    BrxFind find{BRX_FIRST, BRX_KIND_SYMBOL_TABLE, BRX_ANY, nullptr};
    BrxHandle table = 0;
    EXPECT_EQ(_brx_get_keyed(file, BRX_KEY_FIND, &find, &table, 0), 0);
    return table;
}

BrxHandle FindSection(BrxHandle file, const char *name) {
    BrxFind find{BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_NAME, name};
    BrxHandle section = 0;
    if (_brx_get_keyed(file, BRX_KEY_FIND, &find, &section, 0) != 0)
        return 0;
    return section;
}

static std::string QueryName(BrxHandle object, uint32_t key) {
    // The documented protocol: start with 256 bytes and double while the buffer is too small.
    std::vector<char> buf(256);
    for (;;) {
        uint32_t capacity = uint32_t(buf.size());
        int32_t r = _brx_get_keyed(object, key, &capacity, buf.data(), 0);
        if (r == BRX_ERR_BUFFER_TOO_SMALL) {
            buf.resize(buf.size() * 2);
            continue;
        }
        EXPECT_EQ(r, 0);
        return r == 0 ? std::string(buf.data()) : std::string();
    }
}

std::string SectionName(BrxHandle section) {
    return QueryName(section, BRX_KEY_NAME);
}
std::string SymbolName(BrxHandle symbol) {
    return QueryName(symbol, BRX_KEY_SYMBOL_NAME);
}

std::vector<uint8_t> SectionBytes(BrxHandle section) {
    std::vector<uint8_t> bytes(U64(section, BRX_KEY_SECTION_SIZE));
    BrxBytes rec{bytes.size(), 0, bytes.data()};
    EXPECT_EQ(_brx_get_keyed(section, BRX_KEY_SECTION_DATA, nullptr, &rec, 0), 0);
    EXPECT_EQ(rec.count, bytes.size());
    return bytes;
}

std::vector<BrxHandle> Sections(BrxHandle file) {
    std::vector<BrxHandle> out;
    BrxFind find{BRX_FIRST, BRX_KIND_SECTION, BRX_ANY, nullptr};
    BrxHandle h = 0;
    while (_brx_get_keyed(file, BRX_KEY_FIND, &find, &h, 0) == 0) {
        out.push_back(h);
        find.after = h;
    }
    return out;
}

std::vector<BrxHandle> Symbols(BrxHandle file) {
    std::vector<BrxHandle> out;
    BrxFindSymbol find{BRX_FIRST, BRX_ANY, nullptr};
    BrxHandle table = SymbolTable(file), h = 0;
    while (_brx_get_keyed(table, BRX_KEY_FIND_SYMBOL, &find, &h, 0) == 0) {
        out.push_back(h);
        find.after = h;
    }
    return out;
}

std::vector<BrxHandle> Relocations(BrxHandle section) {
    std::vector<BrxHandle> out;
    BrxHandle previous = BRX_FIRST, h = 0;
    while (_brx_get_keyed(section, BRX_KEY_NEXT_RELOCATION, &previous, &h, 0) == 0) {
        out.push_back(h);
        previous = h;
    }
    return out;
}

uint32_t U32(BrxHandle object, uint32_t key) {
    uint32_t v = 0;
    EXPECT_EQ(_brx_get_keyed(object, key, nullptr, &v, 0), 0) << "key " << key;
    return v;
}

uint64_t U64(BrxHandle object, uint32_t key) {
    uint64_t v = 0;
    EXPECT_EQ(_brx_get_keyed(object, key, nullptr, &v, 0), 0) << "key " << key;
    return v;
}

std::vector<std::string> SourceFiles(BrxHandle file) {
    std::vector<std::string> files;
    uint32_t sourceFile = BRX_SYMBOL_SOURCE_FILE;
    BrxFindSymbol find{BRX_FIRST, BRX_KEY_SYMBOL_TYPE, &sourceFile};
    BrxHandle symbol = 0;
    while (_brx_get_keyed(SymbolTable(file), BRX_KEY_FIND_SYMBOL, &find, &symbol, 0) == 0) {
        files.push_back(SymbolName(symbol));
        find.after = symbol;
    }
    return files;
}

std::vector<LineRow> LineRows(BrxHandle file, bool sectionsByPosition) {
    std::vector<LineRow> rows;
    std::vector<BrxHandle> sections = Sections(file);
    for (size_t position = 0; position < sections.size(); ++position) {
        BrxHandle section = sections[position];
        std::string sectionName =
            sectionsByPosition ? std::to_string(position) : SectionName(section);
        BrxHandle previous = BRX_FIRST, block = 0;
        int32_t result;
        while ((result = _brx_get_keyed(section, BRX_KEY_NEXT_LINE_BLOCK, &previous, &block, 0)) ==
               0) {
            EXPECT_EQ(U32(block, BRX_KEY_OWNER), section);
            BrxHandle source = U32(U32(block, BRX_KEY_LINE_BLOCK_FILE), BRX_KEY_LINE_FILE_SYMBOL);
            EXPECT_EQ(U32(source, BRX_KEY_SYMBOL_TYPE), uint32_t(BRX_SYMBOL_SOURCE_FILE));
            uint32_t seen = 0;
            BrxHandle previousItem = BRX_FIRST, item = 0;
            while (_brx_get_keyed(block, BRX_KEY_NEXT_LINE_ITEM, &previousItem, &item, 0) == 0) {
                EXPECT_EQ(U32(item, BRX_KEY_OWNER), block);
                rows.push_back(
                    {sectionName, SymbolName(source), U64(item, BRX_KEY_LINE_ITEM_ADDRESS),
                     U32(item, BRX_KEY_LINE_ITEM_LINE), U32(item, BRX_KEY_LINE_ITEM_COLUMN)});
                previousItem = item;
                ++seen;
            }
            EXPECT_EQ(seen, U32(block, BRX_KEY_LINE_ITEM_COUNT));
            previous = block;
        }
        EXPECT_EQ(result, BRX_ERR_NO_MORE);
    }
    return rows;
}

namespace {

// Little-endian appends for the CodeView bytes of the test object.
struct CvBytes {
    std::vector<uint8_t> v;
    CvBytes &U8(uint8_t x) {
        v.push_back(x);
        return *this;
    }
    CvBytes &U16(uint16_t x) { return U8(uint8_t(x)).U8(uint8_t(x >> 8)); }
    CvBytes &U32(uint32_t x) { return U16(uint16_t(x)).U16(uint16_t(x >> 16)); }
    CvBytes &Str(const char *s) {
        while (*s)
            U8(uint8_t(*s++));
        return U8(0);
    }
    CvBytes &Pad4() {
        while (v.size() % 4)
            U8(0);
        return *this;
    }
    // A subsection: kind, length, content, padding to 4.
    CvBytes &Subsection(uint32_t kind, const CvBytes &content) {
        U32(kind).U32(uint32_t(content.v.size()));
        v.insert(v.end(), content.v.begin(), content.v.end());
        return Pad4();
    }
    CvBytes &ChecksumRecord(uint32_t stringOffset) {
        U32(stringOffset).U8(16).U8(1);
        for (int i = 0; i < 16; ++i)
            U8(uint8_t(i * 17));
        return U16(0);
    }
};

struct Pair {
    uint32_t offset, line;
    uint16_t column;
};

struct Block {
    uint32_t checksumOffset;
    std::vector<Pair> pairs;
};

CvBytes Lines(uint32_t codeOffset, uint16_t flags, uint32_t codeSize,
              const std::vector<Block> &blocks) {
    CvBytes b;
    b.U32(codeOffset).U16(0).U16(flags).U32(codeSize);
    for (const Block &block : blocks) {
        bool columns = flags & 1;
        b.U32(block.checksumOffset).U32(uint32_t(block.pairs.size()));
        b.U32(uint32_t(12 + block.pairs.size() * (columns ? 12 : 8)));
        for (const Pair &p : block.pairs)
            b.U32(p.offset).U32(p.line | 0x80000000u);
        if (columns)
            for (const Pair &p : block.pairs)
                b.U16(p.column).U16(0);
    }
    return b;
}

constexpr uint32_t kSymbols = 0xf1, kLines = 0xf2, kStrings = 0xf3, kChecksums = 0xf4;

} // namespace

// Writes the sample object. The COMDAT section's blocks name their file through the checksum
// table of their own symbol section. With `ownTableDiffers` that table differs from the main one
// (inc.inc first); otherwise it repeats the main one, so that a reader which takes the first
// table of the object (as llvm-readobj does) sees the same file names.
void WriteCodeViewSample(const std::string &path, bool ownTableDiffers) {
    BrxHandle file = 0;
    ASSERT_EQ(_brx_new_file(path.c_str(), BRX_FORMAT_COFF, &file), 0);
    BrxHandle text = AddSection(file, ".text", BRX_SECTION_CODE, 16);
    AppendBytes(text, std::vector<uint8_t>(64, 0x90));
    BrxHandle inl = AddSection(file, ".text$inline_fn", BRX_SECTION_CODE, 16);
    AppendBytes(inl, std::vector<uint8_t>(16, 0xc3));
    BrxComdat any{BRX_COMDAT_ANY, 0};
    ASSERT_EQ(_brx_set_value(inl, BRX_KEY_COMDAT, &any, 0), 0);
    BrxHandle mainSymbols = AddSection(file, ".debug$S", BRX_SECTION_DEBUG, 4, 1);
    BrxHandle inlSymbols = AddSection(file, ".debug$S", BRX_SECTION_DEBUG, 4, 1);
    BrxComdat tie{BRX_COMDAT_ASSOCIATIVE, inl};
    ASSERT_EQ(_brx_set_value(inlSymbols, BRX_KEY_COMDAT, &tie, 0), 0);

    AddSymbol(file, "unit.asm", BRX_BINDING_LOCAL, BRX_SYMBOL_SOURCE_FILE, 0, 0);
    AddSymbol(file, "main_fn", BRX_BINDING_GLOBAL, BRX_SYMBOL_FUNCTION, text, 0);
    BrxHandle inlineFn =
        AddSymbol(file, "inline_fn", BRX_BINDING_GLOBAL, BRX_SYMBOL_FUNCTION, inl, 4);

    // Main symbol section: strings "unit.asm" at 1 and "inc.inc" at 10, their checksum records
    // at 0 and 24, and the lines of .text.
    CvBytes main;
    main.U32(4).Subsection(kSymbols, CvBytes());
    main.Subsection(kStrings, CvBytes().U8(0).Str("unit.asm").Str("inc.inc"));
    main.Subsection(kChecksums, CvBytes().ChecksumRecord(1).ChecksumRecord(10));
    size_t linesAt = main.v.size() + 8;
    main.Subsection(
        kLines, Lines(0, 0, 64, {{0, {{0, 10, 0}, {4, 11, 0}, {8, 12, 0}}}, {24, {{16, 3, 0}}}}));
    AppendBytes(mainSymbols, main.v);
    AddRelocation(mainSymbols, 14, text, linesAt);
    AddRelocation(mainSymbols, 11, text, linesAt + 4);

    // The COMDAT section's own symbol section: its checksum table names "inc.inc" (string 10 of
    // the main table); its lines start 2 bytes into inline_fn, with columns.
    CvBytes own;
    own.U32(4).Subsection(kSymbols, CvBytes());
    CvBytes ownChecksums;
    if (ownTableDiffers)
        ownChecksums.ChecksumRecord(10);
    else
        ownChecksums.ChecksumRecord(1).ChecksumRecord(10);
    own.Subsection(kChecksums, ownChecksums);
    size_t ownLinesAt = own.v.size() + 8;
    own.Subsection(kLines,
                   Lines(2, 1, 8, {{ownTableDiffers ? 0u : 24u, {{0, 20, 5}, {3, 21, 7}}}}));
    AppendBytes(inlSymbols, own.v);
    AddRelocation(inlSymbols, 14, inlineFn, ownLinesAt);
    AddRelocation(inlSymbols, 11, inlineFn, ownLinesAt + 4);
    ASSERT_EQ(_brx_write_file(file), 0);
    ASSERT_EQ(_brx_close_file(file), 0);
}

} // namespace brixtest
