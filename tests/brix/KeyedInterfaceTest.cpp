// The keyed interface on objects made in memory: results, buffer protocols, section data
// writes, iteration and handle lifetime.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

using namespace brixtest;

namespace {

class KeyedInterface : public ::testing::Test {
protected:
    void SetUp() override {
        path = dir.File("model.o");
        ASSERT_EQ(_brx_new_file(path.c_str(), BRX_FORMAT_ELF64, &file), 0);
        text = AddSection(file, ".text", BRX_SECTION_CODE, 16);
        debug = AddSection(file, ".debug_info", 0, 4, 1);
        symbol = AddSymbol(file, "entry", BRX_BINDING_GLOBAL, BRX_SYMBOL_FUNCTION, text, 8);
        reloc = AddRelocation(debug, 39, symbol, 0);
    }
    void TearDown() override {
        if (file)
            _brx_close_file(file);
    }

    TempDir dir;
    std::string path;
    BrxHandle file = 0, text = 0, debug = 0, symbol = 0, reloc = 0;
};

TEST_F(KeyedInterface, NameAndPathQueriesAskForALargerBuffer) {
    struct Case {
        uint32_t capacity;
        int32_t result;
    };
    // "entry" needs 6 bytes with its terminator.
    for (Case c : {Case{0, BRX_ERR_BUFFER_TOO_SMALL}, Case{5, BRX_ERR_BUFFER_TOO_SMALL},
                   Case{6, BRX_OK}, Case{256, BRX_OK}}) {
        char buf[256];
        std::memset(buf, 'x', sizeof buf);
        EXPECT_EQ(_brx_get_keyed(symbol, BRX_KEY_SYMBOL_NAME, &c.capacity, buf, 0), c.result)
            << c.capacity;
        if (c.result == BRX_OK) {
            EXPECT_STREQ(buf, "entry");
        }
    }
    std::string longName(700, 'n');
    BrxHandle longSymbol = AddSymbol(file, longName.c_str(), BRX_BINDING_LOCAL, 0, text, 0);
    EXPECT_EQ(SymbolName(longSymbol), longName); // doubles 256 -> 512 -> 1024

    // The wide query gives the path in UTF-16, and its size counts UTF-16 units.
    BrxHandle wide = 0;
    std::string widePath = dir.File("caf\xc3\xa9.o"); // "café.o"
    ASSERT_EQ(_brx_new_file(widePath.c_str(), BRX_FORMAT_COFF, &wide), 0);
    char16_t buf[256];
    uint32_t capacity = sizeof buf;
    ASSERT_EQ(_wcbrx_get_keyed(wide, BRX_KEY_PATH, &capacity, buf, 0), 0);
    std::u16string got(buf);
    ASSERT_GE(got.size(), 6u);
    EXPECT_EQ(got.substr(got.size() - 6), u"caf\u00e9.o");
    EXPECT_EQ(got.size(), widePath.size() - 1); // two UTF-8 bytes, one UTF-16 unit
    capacity = uint32_t(2 * got.size());        // no room for the terminator
    EXPECT_EQ(_wcbrx_get_keyed(wide, BRX_KEY_PATH, &capacity, buf, 0), BRX_ERR_BUFFER_TOO_SMALL);
    _brx_close_file(wide);
}

TEST_F(KeyedInterface, SizeQueryOnAnythingButASectionIsRefusedAsNotASection) {
    uint64_t size = 0;
    for (BrxHandle h : {file, symbol, reloc, SymbolTable(file)})
        EXPECT_EQ(_brx_get_keyed(h, BRX_KEY_SECTION_SIZE, nullptr, &size, 0),
                  BRX_ERR_NOT_A_SECTION);
    EXPECT_EQ(_brx_get_keyed(text, BRX_KEY_SECTION_SIZE, nullptr, &size, 0), BRX_OK);
}

TEST_F(KeyedInterface, SectionDataWritesInsideAndAtTheEndButNotBeyond) {
    AppendBytes(text, {1, 2, 3, 4});
    struct Case {
        uint64_t offset;
        std::vector<uint8_t> data;
        int32_t result;
        std::vector<uint8_t> after;
    };
    const Case cases[] = {
        {1, {9, 9}, BRX_OK, {1, 9, 9, 4}},            // overwrite inside
        {4, {5}, BRX_OK, {1, 9, 9, 4, 5}},            // append at the end
        {3, {7, 7, 7}, BRX_OK, {1, 9, 9, 7, 7, 7}},   // overwrite and grow
        {7, {1}, BRX_ERR_FAILED, {1, 9, 9, 7, 7, 7}}, // a gap is refused
        {0, {}, BRX_OK, {1, 9, 9, 7, 7, 7}},          // nothing to move
    };
    for (const Case &c : cases) {
        BrxBytes rec{c.data.size(), c.offset, const_cast<uint8_t *>(c.data.data())};
        EXPECT_EQ(_brx_set_value(text, BRX_KEY_SECTION_DATA, &rec, 0), c.result) << c.offset;
        if (c.result == BRX_OK) {
            EXPECT_EQ(rec.count, c.data.size());
        }
        EXPECT_EQ(SectionBytes(text), c.after) << c.offset;
    }
    // Reads move what is there: a read running past the end moves the rest.
    uint8_t buf[8] = {};
    BrxBytes rec{8, 4, buf};
    EXPECT_EQ(_brx_get_keyed(text, BRX_KEY_SECTION_DATA, nullptr, &rec, 0), BRX_OK);
    EXPECT_EQ(rec.count, 2u);
    EXPECT_EQ(buf[0], 7);
    rec = {8, 6, buf};
    EXPECT_EQ(_brx_get_keyed(text, BRX_KEY_SECTION_DATA, nullptr, &rec, 0), BRX_OK);
    EXPECT_EQ(rec.count, 0u);
    rec = {1, 7, buf};
    EXPECT_NE(_brx_get_keyed(text, BRX_KEY_SECTION_DATA, nullptr, &rec, 0), BRX_OK);
}

TEST_F(KeyedInterface, FindWalksObjectsOfAKindAndEndsWithNoMore) {
    EXPECT_EQ(FindSection(file, ".debug_info"), debug);
    EXPECT_EQ(FindSection(file, ".missing"), 0u);
    EXPECT_EQ(Sections(file), (std::vector<BrxHandle>{text, debug}));

    BrxFind tableFind{BRX_FIRST, BRX_KIND_SYMBOL_TABLE, BRX_ANY, nullptr};
    BrxHandle table = 0;
    ASSERT_EQ(_brx_get_keyed(file, BRX_KEY_FIND, &tableFind, &table, 0), BRX_OK);
    tableFind.after = table;
    EXPECT_EQ(_brx_get_keyed(file, BRX_KEY_FIND, &tableFind, &table, 0), BRX_ERR_NO_MORE);

    // Numeric attributes: code sections by their flags, symbols by binding.
    uint16_t code = BRX_SECTION_CODE;
    BrxFind byFlags{BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_SECTION_FLAGS, &code};
    BrxHandle found = 0;
    ASSERT_EQ(_brx_get_keyed(file, BRX_KEY_FIND, &byFlags, &found, 0), BRX_OK);
    EXPECT_EQ(found, text);
    byFlags.after = found;
    EXPECT_EQ(_brx_get_keyed(file, BRX_KEY_FIND, &byFlags, &found, 0), BRX_ERR_NO_MORE);

    AddSymbol(file, "local", BRX_BINDING_LOCAL, BRX_SYMBOL_PLAIN, text, 0);
    BrxHandle second = AddSymbol(file, "other", BRX_BINDING_GLOBAL, BRX_SYMBOL_PLAIN, debug, 0);
    uint32_t global = BRX_BINDING_GLOBAL;
    BrxFindSymbol bySymbol{BRX_FIRST, BRX_KEY_SYMBOL_BINDING, &global};
    std::vector<BrxHandle> globals;
    while (_brx_get_keyed(SymbolTable(file), BRX_KEY_FIND_SYMBOL, &bySymbol, &found, 0) == 0) {
        globals.push_back(found);
        bySymbol.after = found;
    }
    EXPECT_EQ(globals, (std::vector<BrxHandle>{symbol, second}));

    // "After" must be an object of the kind searched, in the same file.
    BrxFind wrong{symbol, BRX_KIND_SECTION, BRX_ANY, nullptr};
    EXPECT_NE(_brx_get_keyed(file, BRX_KEY_FIND, &wrong, &found, 0), BRX_OK);
}

// A relocation's offset may come before its target; a record that cannot hold is refused and
// leaves nothing behind.
TEST_F(KeyedInterface, RelocationAndComdatRecordsAreChecked) {
    uint32_t type = 37;
    uint64_t offset = 12;
    BrxHandle target = text, r = 0;
    BrxAttr offsetFirst[] = {{BRX_KEY_RELOC_TYPE, &type},
                             {BRX_KEY_RELOC_OFFSET, &offset},
                             {BRX_KEY_RELOC_TARGET, &target}};
    ASSERT_EQ(_brx_create_object(debug, 0, BRX_KIND_RELOCATION, 3, offsetFirst, &r, 0), 0);
    EXPECT_EQ(U64(r, BRX_KEY_RELOC_OFFSET), 12u);
    EXPECT_EQ(U32(r, BRX_KEY_RELOC_TARGET), text);

    // No target, a target of another file, a target that is not a section or symbol.
    BrxHandle other = 0;
    ASSERT_EQ(_brx_new_file(dir.File("other.o").c_str(), BRX_FORMAT_ELF64, &other), 0);
    BrxHandle foreign = AddSection(other, ".text", BRX_SECTION_CODE);
    for (BrxHandle bad : {BrxHandle(0), foreign, reloc, file}) {
        BrxAttr attrs[] = {{BRX_KEY_RELOC_TYPE, &type}, {BRX_KEY_RELOC_TARGET, &bad}};
        EXPECT_NE(_brx_create_object(debug, 0, BRX_KIND_RELOCATION, 2, attrs, &r, 0), 0) << bad;
    }
    EXPECT_NE(_brx_create_object(debug, 0, BRX_KIND_RELOCATION, 1, offsetFirst, &r, 0), 0);
    EXPECT_EQ(Relocations(debug).size(), 2u);
    _brx_close_file(other);

    // An unknown selection, a tie to nothing, to a symbol or to the section itself.
    const BrxComdat refused[] = {{7, 0},
                                 {BRX_COMDAT_ASSOCIATIVE, 0},
                                 {BRX_COMDAT_ASSOCIATIVE, symbol},
                                 {BRX_COMDAT_ASSOCIATIVE, debug}};
    for (const BrxComdat &bad : refused)
        EXPECT_NE(_brx_set_value(debug, BRX_KEY_COMDAT, &bad, 0), 0) << bad.selection;
    BrxComdat c{99, 0};
    ASSERT_EQ(_brx_get_keyed(debug, BRX_KEY_COMDAT, nullptr, &c, 0), 0);
    EXPECT_EQ(c.selection, 0u);
}

TEST_F(KeyedInterface, ClosedHandlesAreRefusedAndNotHandedOutAgain) {
    BrxHandle table = SymbolTable(file);
    std::vector<BrxHandle> old = {file, text, debug, symbol, reloc, table};
    ASSERT_EQ(_brx_close_file(file), 0);
    file = 0;
    uint64_t v = 0;
    for (BrxHandle h : old) {
        EXPECT_NE(_brx_get_keyed(h, BRX_KEY_OWNER, nullptr, &v, 0), 0) << h;
        EXPECT_NE(_brx_set_value(h, BRX_KEY_SECTION_ADDRESS, &v, 0), 0) << h;
    }
    EXPECT_NE(_brx_close_file(old[0]), 0);
    EXPECT_NE(_brx_write_file(old[0]), 0);

    // A new file with as many objects reuses no handle value of the closed one.
    BrxHandle again = 0;
    ASSERT_EQ(_brx_new_file(path.c_str(), BRX_FORMAT_ELF32, &again), 0);
    std::set<BrxHandle> fresh = {again, SymbolTable(again)};
    for (int i = 0; i < 8; ++i)
        fresh.insert(AddSection(again, ".s", 0));
    for (BrxHandle h : old)
        EXPECT_EQ(fresh.count(h), 0u) << h;
    _brx_close_file(again);
}

} // namespace
