// Malformed files and wrong arguments: every one gives a non-zero result and nothing crashes
// (the sanitizer build runs these too); a refused file gets the result that says why.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <random>

using namespace brixtest;

namespace {

// An ELF object with .text (32 bytes), a COMDAT .text.inline_fn, .debug_tied tied to it with one
// relocation, .debug_line (40 bytes) with a relocation against .text and an address relocation
// against main_fn; symbols of every type, one of them undefined.
void WriteElfSample(const std::string &path, int32_t format) {
    uint32_t address = format == BRX_FORMAT_ELF64 ? 39 : 37;
    BrxHandle file = 0;
    ASSERT_EQ(_brx_new_file(path.c_str(), format, &file), 0);
    BrxHandle text = AddSection(file, ".text", BRX_SECTION_CODE, 16);
    AppendBytes(text, std::vector<uint8_t>(32, 0x90));
    BrxHandle inlineText = AddSection(file, ".text.inline_fn", BRX_SECTION_CODE, 16);
    AppendBytes(inlineText, std::vector<uint8_t>(8, 0xc3));
    BrxComdat any{BRX_COMDAT_ANY, 0};
    ASSERT_EQ(_brx_set_value(inlineText, BRX_KEY_COMDAT, &any, 0), 0);
    BrxHandle tied = AddSection(file, ".debug_tied", BRX_SECTION_DEBUG, 4, 1);
    AppendBytes(tied, {1, 2, 3, 4, 5, 6, 7, 8});
    BrxComdat assoc{BRX_COMDAT_ASSOCIATIVE, inlineText};
    ASSERT_EQ(_brx_set_value(tied, BRX_KEY_COMDAT, &assoc, 0), 0);
    AddRelocation(tied, address, inlineText, 0);

    BrxHandle line = AddSection(file, ".debug_line", 0, 4, 1);
    AppendBytes(line, std::vector<uint8_t>(40, 0));
    AddSymbol(file, "source.asm", BRX_BINDING_LOCAL, BRX_SYMBOL_SOURCE_FILE, 0, 0);
    BrxHandle mainFn = AddSymbol(file, "main_fn", BRX_BINDING_GLOBAL, BRX_SYMBOL_FUNCTION, text, 4);
    AddSymbol(file, "local_label", BRX_BINDING_LOCAL, BRX_SYMBOL_PLAIN, text, 12);
    AddSymbol(file, "inline_fn", BRX_BINDING_GLOBAL, BRX_SYMBOL_FUNCTION, inlineText, 0);
    AddSymbol(file, "external_fn", BRX_BINDING_GLOBAL, BRX_SYMBOL_PLAIN, 0, 0);
    AddRelocation(line, 37, text, 8);
    AddRelocation(line, address, mainFn, 16, 2);
    ASSERT_EQ(_brx_write_file(file), 0);
    ASSERT_EQ(_brx_close_file(file), 0);
}

// The bytes of a sample object of `format` as brix writes it.
std::vector<uint8_t> SampleImage(int32_t format, const TempDir &dir) {
    std::string path = dir.File("sample.o");
    if (format == BRX_FORMAT_COFF)
        WriteCodeViewSample(path, true);
    else
        WriteElfSample(path, format);
    return ReadFileBytes(path);
}

// Opens an image; when it opens, every query a reader makes must work without a crash.
int32_t OpenAndWalk(const TempDir &dir, const std::vector<uint8_t> &image) {
    std::string path = dir.File("input.bin");
    WriteBytes(path, image);
    BrxHandle file = 0;
    uint32_t mode = 7;
    int32_t result = _brx_open_file(path.c_str(), &mode, &file, 0);
    if (result != 0)
        return result;
    char name[64];
    uint32_t capacity = sizeof name;
    uint64_t value = 0;
    uint8_t buf[256];
    for (BrxHandle s : Sections(file)) {
        _brx_get_keyed(s, BRX_KEY_NAME, &capacity, name, 0);
        BrxBytes rec{sizeof buf, 0, buf};
        _brx_get_keyed(s, BRX_KEY_SECTION_DATA, nullptr, &rec, 0);
        for (BrxHandle r : Relocations(s)) {
            BrxHandle target = 0;
            if (_brx_get_keyed(r, BRX_KEY_RELOC_TARGET, nullptr, &target, 0) == 0)
                _brx_get_keyed(target, BRX_KEY_SYMBOL_SECTION, nullptr, &value, 0);
        }
        BrxHandle previous = BRX_FIRST, block = 0;
        while (_brx_get_keyed(s, BRX_KEY_NEXT_LINE_BLOCK, &previous, &block, 0) == 0) {
            BrxHandle ref = 0, prevItem = BRX_FIRST, item = 0;
            if (_brx_get_keyed(block, BRX_KEY_LINE_BLOCK_FILE, nullptr, &ref, 0) == 0)
                _brx_get_keyed(ref, BRX_KEY_LINE_FILE_SYMBOL, nullptr, &value, 0);
            while (_brx_get_keyed(block, BRX_KEY_NEXT_LINE_ITEM, &prevItem, &item, 0) == 0) {
                _brx_get_keyed(item, BRX_KEY_LINE_ITEM_ADDRESS, nullptr, &value, 0);
                prevItem = item;
            }
            previous = block;
        }
    }
    for (BrxHandle s : Symbols(file))
        _brx_get_keyed(s, BRX_KEY_SYMBOL_NAME, &capacity, name, 0);
    EXPECT_EQ(_brx_close_file(file), 0);
    return 0;
}

struct Sample {
    const char *name;
    int32_t format;
};

const Sample kSamples[] = {
    {"elf32", BRX_FORMAT_ELF32}, {"elf64", BRX_FORMAT_ELF64}, {"coff", BRX_FORMAT_COFF}};

class Malformed : public ::testing::TestWithParam<Sample> {};

TEST_P(Malformed, EveryTruncationIsRefused) {
    TempDir dir;
    std::vector<uint8_t> image = SampleImage(GetParam().format, dir);
    ASSERT_GT(image.size(), 100u);
    ASSERT_EQ(OpenAndWalk(dir, image), 0);
    for (size_t length = 0; length < image.size(); ++length) {
        std::vector<uint8_t> cut(image.begin(), image.begin() + length);
        int32_t result = OpenAndWalk(dir, cut);
        EXPECT_NE(result, 0) << "length " << length;
        EXPECT_NE(result, BRX_ERR_FAILED) << "length " << length << ": the refusal says why";
    }
}

// Random changes of a few bytes: any result is fine, a crash or a sanitizer report is not.
TEST_P(Malformed, RandomDamageNeverCrashes) {
    TempDir dir;
    std::vector<uint8_t> image = SampleImage(GetParam().format, dir);
    std::mt19937 random(20261123);
    int opened = 0;
    for (int round = 0; round < 600; ++round) {
        std::vector<uint8_t> damaged = image;
        int changes = 1 + int(random() % 4);
        for (int c = 0; c < changes; ++c) {
            size_t at = random() % damaged.size();
            // Mostly small changes to one byte; sometimes a large value in a whole word.
            if (random() % 4 == 0 && at + 4 <= damaged.size())
                std::memset(&damaged[at], 0xff, 4);
            else
                damaged[at] = uint8_t(random());
        }
        opened += OpenAndWalk(dir, damaged) == 0;
    }
    RecordProperty("opened", opened);
}

INSTANTIATE_TEST_SUITE_P(Formats, Malformed, ::testing::ValuesIn(kSamples),
                         [](const auto &info) { return std::string(info.param.name); });

// Targeted damage at the fields that locate and size everything else, and the result that
// names it.
struct Damage {
    const char *what;
    int32_t result;
    std::function<void(std::vector<uint8_t> &)> apply;
};

constexpr int32_t kMalformed = BRX_ERR_MALFORMED;
constexpr int32_t kTableOutside = BRX_ERR_SECTION_TABLE_OUTSIDE;
constexpr int32_t kSectionOutside = BRX_ERR_SECTION_OUTSIDE;
constexpr int32_t kSymbolsOutside = BRX_ERR_SYMBOLS_OUTSIDE;

// Little-endian fields of `width` bytes in place.
void Put(std::vector<uint8_t> &v, size_t at, uint64_t x, unsigned width) {
    for (unsigned i = 0; i < width; ++i)
        v[at + i] = uint8_t(x >> (8 * i));
}
uint64_t Get(const std::vector<uint8_t> &v, size_t at, unsigned width) {
    uint64_t x = 0;
    for (unsigned i = 0; i < width; ++i)
        x |= uint64_t(v[at + i]) << (8 * i);
    return x;
}

// Where the fields that locate and size everything else lie in each ELF class.
struct ElfLayout {
    unsigned word;                                             // an address or a file offset
    size_t tableField, entrySizeField, countField, namesField; // in the file header
    size_t headerSize, offset, size, link, entrySize;          // in a section header
    size_t symbolSize;
};
const ElfLayout kElf32 = {4, 0x20, 0x2e, 0x30, 0x32, 40, 16, 20, 24, 36, 16};
const ElfLayout kElf64 = {8, 0x28, 0x3a, 0x3c, 0x3e, 64, 24, 32, 40, 56, 24};

size_t SectionTable(const std::vector<uint8_t> &v, const ElfLayout &L) {
    return size_t(Get(v, L.tableField, L.word));
}

// The first section header of `type`.
size_t Header(const std::vector<uint8_t> &v, const ElfLayout &L, uint32_t type) {
    size_t table = SectionTable(v, L);
    for (size_t i = 1; i < Get(v, L.countField, 2); ++i)
        if (Get(v, table + i * L.headerSize + 4, 4) == type)
            return table + i * L.headerSize;
    ADD_FAILURE() << "no section of type " << type;
    return table;
}

std::vector<Damage> ElfDamage(const ElfLayout &L) {
    constexpr uint32_t PROGBITS = 1, SYMTAB = 2, STRTAB = 3, RELA = 4;
    return {
        {"section table past the end", kTableOutside,
         [=](auto &v) { Put(v, L.tableField, 0xfffffff0u, L.word); }},
        {"section count past the end", kTableOutside,
         [=](auto &v) { Put(v, L.countField, 0xfffe, 2); }},
        {"section header too small", kMalformed, [=](auto &v) { Put(v, L.entrySizeField, 8, 2); }},
        {"name table index past the count", kMalformed,
         [=](auto &v) { Put(v, L.namesField, 0xfff0, 2); }},
        {"section bytes past the end", kSectionOutside,
         [=](auto &v) { Put(v, Header(v, L, PROGBITS) + L.offset, v.size() - 2, L.word); }},
        {"section size past the end", kSectionOutside,
         [=](auto &v) { Put(v, Header(v, L, PROGBITS) + L.size, 0xfffffff0u, L.word); }},
        {"section name past its table", kMalformed,
         [=](auto &v) { Put(v, Header(v, L, PROGBITS), 0xffffff, 4); }},
        {"symbol strings index past the count", kMalformed,
         [=](auto &v) { Put(v, Header(v, L, SYMTAB) + L.link, 0xffff, 4); }},
        {"symbol table past the end", kSymbolsOutside,
         [=](auto &v) { Put(v, Header(v, L, SYMTAB) + L.size, 0xfffffff0u, L.word); }},
        {"symbol entry size too small", kMalformed,
         [=](auto &v) { Put(v, Header(v, L, SYMTAB) + L.entrySize, 1, L.word); }},
        {"symbol name past the strings", kMalformed,
         [=](auto &v) {
             // The name of the first symbol after the null one.
             size_t table = size_t(Get(v, Header(v, L, SYMTAB) + L.offset, L.word));
             Put(v, table + L.symbolSize, 0x0fffffff, 4);
         }},
        {"relocation symbol past the symbols", kMalformed,
         [=](auto &v) {
             size_t rela = size_t(Get(v, Header(v, L, RELA) + L.offset, L.word));
             if (L.word == 8)
                 Put(v, rela + 12, 0x00ffffff, 4); // high half of r_info
             else
                 Put(v, rela + 4, 0xffffff00u | v[rela + 4], 4);
         }},
        {"relocations past the end", kSectionOutside,
         [=](auto &v) { Put(v, Header(v, L, RELA) + L.offset, 0xfffffff0u, L.word); }},
        {"unterminated section name", kMalformed,
         [=](auto &v) {
             // Point a section's name at ".shstrtab", the last name, and overwrite its NUL.
             size_t names = SectionTable(v, L) + Get(v, L.namesField, 2) * L.headerSize;
             ASSERT_EQ(Get(v, names + 4, 4), STRTAB);
             uint64_t size = Get(v, names + L.size, L.word);
             size_t end = size_t(Get(v, names + L.offset, L.word) + size);
             Put(v, Header(v, L, PROGBITS), uint32_t(size - 10), 4);
             v[end - 1] = 'x';
         }},
        {"wrong class", BRX_ERR_UNSUPPORTED, [](auto &v) { v[4] = 3; }},
        {"wrong byte order", BRX_ERR_UNSUPPORTED, [](auto &v) { v[5] = 0; }},
    };
}

std::vector<Damage> CoffDamage() {
    // Layout of the sample: header (20), 4 section headers (40 each); section 3 is the main
    // .debug$S with relocations.
    auto section = [](size_t i) { return 20 + 40 * i; };
    auto symbolTable = [](const std::vector<uint8_t> &v) { return size_t(Get(v, 8, 4)); };
    auto stringTable = [=](const std::vector<uint8_t> &v) {
        return symbolTable(v) + 18 * size_t(Get(v, 12, 4));
    };
    // The header of the first subsection of a kind in the main .debug$S (section 3).
    auto find = [=](const std::vector<uint8_t> &v, uint32_t kind) {
        size_t at = size_t(Get(v, section(2) + 20, 4));
        size_t end = at + size_t(Get(v, section(2) + 16, 4));
        for (at += 4; at + 8 <= end; at = (at + 8 + size_t(Get(v, at + 4, 4)) + 3) & ~size_t(3))
            if (Get(v, at, 4) == kind)
                return at;
        ADD_FAILURE() << "no subsection " << kind;
        return size_t(0);
    };
    return {
        {"section count past the end", kTableOutside, [](auto &v) { Put(v, 2, 0xfffe, 2); }},
        {"optional header past the end", BRX_ERR_NOT_AN_OBJECT,
         [](auto &v) { Put(v, 16, 0xfff0, 2); }},
        {"symbol table past the end", kSymbolsOutside, [](auto &v) { Put(v, 8, 0xffffff00u, 4); }},
        {"symbol count past the end", kSymbolsOutside, [](auto &v) { Put(v, 12, 0x0fffffff, 4); }},
        {"section bytes past the end", kSectionOutside,
         [=](auto &v) { Put(v, section(0) + 20, uint32_t(v.size() - 1), 4); }},
        {"section size past the end", kSectionOutside,
         [=](auto &v) { Put(v, section(0) + 16, 0xfffffff0u, 4); }},
        {"relocations past the end", kSectionOutside,
         [=](auto &v) { Put(v, section(2) + 24, 0xfffffff0u, 4); }},
        {"relocation count past the end", kSectionOutside,
         [=](auto &v) { Put(v, section(2) + 32, 0xfffe, 2); }},
        {"relocation symbol past the symbols", kMalformed,
         [=](auto &v) { Put(v, size_t(Get(v, section(2) + 24, 4)) + 4, 0xffffff, 4); }},
        {"long section name past the strings", kMalformed,
         [=](auto &v) { std::memcpy(&v[section(1)], "/9999999", 8); }},
        {"long section name not a number", kMalformed,
         [=](auto &v) { std::memcpy(&v[section(1)], "/12x\0\0\0\0", 8); }},
        {"string table size past the end", kSymbolsOutside,
         [=](auto &v) { Put(v, stringTable(v), 0xfffffff0u, 4); }},
        {"string table size below its own field", kMalformed,
         [=](auto &v) { Put(v, stringTable(v), 2, 4); }},
        {"auxiliary records past the symbols", kMalformed,
         [=](auto &v) { v[stringTable(v) - 18 + 17] = 200; }},
        {"associated section number past the sections", kMalformed,
         [=](auto &v) {
             // The definition record of the associative .debug$S section's symbol.
             size_t symbols = symbolTable(v);
             for (size_t s = symbols; s + 36 <= stringTable(v); s += 18)
                 if (std::memcmp(&v[s], ".debug$S", 8) == 0 && v[s + 18 + 14] == 5)
                     Put(v, s + 18 + 12, 99, 2);
         }},
        {"lines subsection longer than its section", kMalformed,
         [=](auto &v) { Put(v, find(v, 0xf2) + 4, 0x7ffffff0, 4); }},
        {"line block longer than its subsection", kMalformed,
         [=](auto &v) {
             size_t lines = find(v, 0xf2) + 8;
             Put(v, lines + 12 + 8, 0xfffff000u, 4);
         }},
        {"line block with more pairs than bytes", kMalformed,
         [=](auto &v) {
             size_t lines = find(v, 0xf2) + 8;
             Put(v, lines + 12 + 4, 0x10000000u, 4);
         }},
        {"checksum offset past the table", kMalformed,
         [=](auto &v) {
             size_t lines = find(v, 0xf2) + 8;
             Put(v, lines + 12, 0x1000, 4);
         }},
        {"string offset past the string table", kMalformed,
         [=](auto &v) { Put(v, find(v, 0xf4) + 8, 0x1000, 4); }},
    };
}

struct DamageCase {
    Sample sample;
    Damage damage;
};

class TargetedDamage : public ::testing::TestWithParam<DamageCase> {};

TEST_P(TargetedDamage, IsRefused) {
    TempDir dir;
    const DamageCase &c = GetParam();
    std::vector<uint8_t> image = SampleImage(c.sample.format, dir);
    ASSERT_EQ(OpenAndWalk(dir, image), 0);
    c.damage.apply(image);
    EXPECT_EQ(OpenAndWalk(dir, image), c.damage.result) << c.damage.what;
}

std::vector<DamageCase> AllDamage() {
    std::vector<DamageCase> out;
    for (const Sample &s : kSamples)
        for (const Damage &d : s.format == BRX_FORMAT_COFF
                                   ? CoffDamage()
                                   : ElfDamage(s.format == BRX_FORMAT_ELF64 ? kElf64 : kElf32))
            out.push_back({s, d});
    return out;
}

INSTANTIATE_TEST_SUITE_P(Fields, TargetedDamage, ::testing::ValuesIn(AllDamage()),
                         [](const auto &info) {
                             return qtest::CaseName(std::string(info.param.sample.name) + " " +
                                                        info.param.damage.what,
                                                    info.index);
                         });

// Files that are not objects, or not of a kind brix reads, and the result that says so.
struct NotAnObjectCase {
    const char *what;
    std::vector<uint8_t> bytes;
    int32_t result;
};

std::vector<uint8_t> Padded(std::vector<uint8_t> start, size_t size) {
    start.resize(size);
    return start;
}

const NotAnObjectCase kNotObjects[] = {
    {"empty", {}, BRX_ERR_NOT_AN_OBJECT},
    {"text", {'h', 'e', 'l', 'l', 'o', ' ', 'w', 'o', 'r', 'l', 'd', '\n'}, BRX_ERR_NOT_AN_OBJECT},
    {"letters", std::vector<uint8_t>(64, 0x41), BRX_ERR_NOT_AN_OBJECT},
    {"nearly the ELF magic", Padded({0x7f, 'E', 'L', 'G', 2, 1, 1}, 64), BRX_ERR_NOT_AN_OBJECT},
    {"ELF magic alone", {0x7f, 'E', 'L', 'F'}, BRX_ERR_TRUNCATED_HEADER},
    {"ELF64 identification alone", Padded({0x7f, 'E', 'L', 'F', 2, 1, 1}, 16),
     BRX_ERR_TRUNCATED_HEADER},
    {"big-object COFF or import library", Padded({0x00, 0x00, 0xff, 0xff}, 64),
     BRX_ERR_UNSUPPORTED},
};

TEST(NotAnObject, IsRefusedWithTheReason) {
    TempDir dir;
    for (const NotAnObjectCase &c : kNotObjects)
        EXPECT_EQ(OpenAndWalk(dir, c.bytes), c.result) << c.what;
    // What the system refuses keeps its reason in errno.
    BrxHandle file = 0;
    errno = 0;
    EXPECT_EQ(_brx_open_file(dir.File("missing.o").c_str(), nullptr, &file, 0),
              BRX_ERR_CANNOT_READ);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(_brx_open_file(dir.Path().c_str(), nullptr, &file, 0), BRX_ERR_IS_DIRECTORY);
}

TEST(WrongArguments, AreRefused) {
    TempDir dir;
    BrxHandle file = 0;
    std::string path = dir.File("a.o");
    // Creation of files.
    EXPECT_NE(_brx_new_file(nullptr, BRX_FORMAT_ELF64, &file), 0);
    EXPECT_NE(_brx_new_file(path.c_str(), 0, &file), 0);
    EXPECT_NE(_brx_new_file(path.c_str(), 4, &file), 0);
    EXPECT_NE(_brx_new_file(path.c_str(), BRX_FORMAT_ELF64, nullptr), 0);
    EXPECT_NE(_brx_open_file(nullptr, nullptr, &file, 0), 0);
    ASSERT_EQ(_brx_new_file(path.c_str(), BRX_FORMAT_ELF64, &file), 0);
    BrxHandle section = AddSection(file, ".text", BRX_SECTION_CODE);
    BrxHandle table = SymbolTable(file);

    uint64_t value = 0;
    uint32_t capacity = 64;
    char name[64];
    // Unknown and impossible handles.
    for (BrxHandle h :
         {BrxHandle(0), BrxHandle(BRX_FIRST), BrxHandle(0x00fffffe), BrxHandle(0x7f000001)}) {
        EXPECT_NE(_brx_get_keyed(h, BRX_KEY_FORMAT, nullptr, &value, 0), 0);
        EXPECT_NE(_wcbrx_get_keyed(h, BRX_KEY_PATH, &capacity, name, 0), 0);
        EXPECT_NE(_brx_set_value(h, BRX_KEY_MACHINE, &value, 0), 0);
        BrxHandle made = 0;
        EXPECT_NE(_brx_create_object(h, 0, BRX_KIND_SECTION, 0, nullptr, &made, 0), 0);
        EXPECT_NE(_brx_write_file(h), 0);
        EXPECT_NE(_brx_close_file(h), 0);
    }
    // Unknown keys and keys of another kind of object.
    for (uint32_t key : {0u, 1u, 999u, 0xffffffffu, uint32_t(BRX_KEY_RELOC_TYPE)}) {
        EXPECT_NE(_brx_get_keyed(section, key, nullptr, &value, 0), 0) << key;
        EXPECT_NE(_brx_set_value(section, key, &value, 0), 0) << key;
    }
    EXPECT_NE(_brx_get_keyed(file, BRX_KEY_NEXT_RELOCATION, nullptr, &value, 0), 0);
    EXPECT_NE(_brx_get_keyed(file, BRX_KEY_OWNER, nullptr, &value, 0), 0); // a file has none
    EXPECT_NE(_brx_get_keyed(table, BRX_KEY_FIND, nullptr, &value, 0), 0);
    // Null pointers where a value is needed.
    EXPECT_NE(_brx_get_keyed(file, BRX_KEY_FORMAT, nullptr, nullptr, 0), 0);
    EXPECT_NE(_brx_get_keyed(section, BRX_KEY_NAME, nullptr, name, 0), 0);
    EXPECT_NE(_brx_get_keyed(section, BRX_KEY_NAME, &capacity, nullptr, 0), 0);
    EXPECT_NE(_brx_get_keyed(section, BRX_KEY_SECTION_DATA, nullptr, nullptr, 0), 0);
    EXPECT_NE(_brx_get_keyed(file, BRX_KEY_FIND, nullptr, &value, 0), 0);
    EXPECT_NE(_brx_get_keyed(section, BRX_KEY_NEXT_RELOCATION, nullptr, &value, 0), 0);
    EXPECT_NE(_brx_set_value(section, BRX_KEY_SECTION_ADDRESS, nullptr, 0), 0);
    BrxBytes noData{4, 0, nullptr};
    EXPECT_NE(_brx_set_value(section, BRX_KEY_SECTION_DATA, &noData, 0), 0);
    BrxBytes huge{UINT64_MAX, 1, name};
    EXPECT_NE(_brx_set_value(section, BRX_KEY_SECTION_DATA, &huge, 0), 0);
    // Wrong parents and attribute values at creation.
    BrxHandle out = 0;
    EXPECT_NE(_brx_create_object(file, 0, BRX_KIND_RELOCATION, 0, nullptr, &out, 0), 0);
    EXPECT_NE(_brx_create_object(section, 0, BRX_KIND_SECTION, 0, nullptr, &out, 0), 0);
    EXPECT_NE(_brx_create_object(file, 0, 42, 0, nullptr, &out, 0), 0);
    EXPECT_NE(_brx_create_object(file, 0, BRX_KIND_SECTION, 1, nullptr, &out, 0), 0);
    EXPECT_NE(_brx_create_object(file, 0, BRX_KIND_SECTION, 0, nullptr, nullptr, 0), 0);
    uint32_t badAlignment = 3, badBinding = 7;
    BrxAttr alignment[] = {{BRX_KEY_NAME, ".x"}, {BRX_KEY_SECTION_ALIGNMENT, &badAlignment}};
    EXPECT_NE(_brx_create_object(file, 0, BRX_KIND_SECTION, 2, alignment, &out, 0), 0);
    BrxAttr binding[] = {{BRX_KEY_SYMBOL_NAME, "s"}, {BRX_KEY_SYMBOL_BINDING, &badBinding}};
    EXPECT_NE(_brx_create_object(table, 0, BRX_KIND_SYMBOL, 2, binding, &out, 0), 0);
    BrxAttr unknown[] = {{BRX_KEY_NAME, ".y"}, {777, &badBinding}};
    EXPECT_NE(_brx_create_object(file, 0, BRX_KIND_SECTION, 2, unknown, &out, 0), 0);
    EXPECT_EQ(Sections(file).size(), 1u); // the refused sections left nothing behind
    // A file that was read cannot be written; a file whose path cannot be created fails.
    ASSERT_EQ(_brx_write_file(file), 0);
    BrxHandle read = 0;
    ASSERT_EQ(_brx_open_file(path.c_str(), nullptr, &read, 0), 0);
    EXPECT_NE(_brx_write_file(read), 0);
    _brx_close_file(read);
    _brx_close_file(file);
    ASSERT_EQ(_brx_new_file(dir.File("no/such/dir/a.o").c_str(), BRX_FORMAT_COFF, &file), 0);
    errno = 0;
    EXPECT_EQ(_brx_write_file(file), BRX_ERR_CANNOT_WRITE);
    EXPECT_EQ(errno, ENOENT);
    _brx_close_file(file);
}

} // namespace
