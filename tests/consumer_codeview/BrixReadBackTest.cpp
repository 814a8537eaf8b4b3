// The line blocks Quillet writes into a COFF object, read back by brix's COFF reader (the one
// retrieval uses): per code section, blocks of (file, offset, line) as described, with COMDAT
// sections naming their files through their own checksum tables.
#include "codeview/CodeViewReading.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace cvtest;

std::string SymbolName(BrxHandle symbol) {
    char buffer[1024] = {};
    const uint32_t capacity = sizeof buffer;
    if (_brx_get_keyed(symbol, BRX_KEY_SYMBOL_NAME, &capacity, buffer, 0) != BRX_OK)
        return "<no name>";
    return buffer;
}

// "file: offset=line ...; " for every block of the section, file names without the directory.
std::string Blocks(BrxHandle section) {
    std::ostringstream out;
    BrxHandle previous = BRX_FIRST, block = 0;
    while (_brx_get_keyed(section, BRX_KEY_NEXT_LINE_BLOCK, &previous, &block, 0) == BRX_OK) {
        BrxHandle reference = 0, file = 0;
        _brx_get_keyed(block, BRX_KEY_LINE_BLOCK_FILE, nullptr, &reference, 0);
        _brx_get_keyed(reference, BRX_KEY_LINE_FILE_SYMBOL, nullptr, &file, 0);
        std::string name = SymbolName(file);
        out << name.substr(name.rfind('/') + 1) << ":";
        BrxHandle previousItem = BRX_FIRST, item = 0;
        while (_brx_get_keyed(block, BRX_KEY_NEXT_LINE_ITEM, &previousItem, &item, 0) == BRX_OK) {
            uint64_t address = 0;
            uint32_t line = 0;
            _brx_get_keyed(item, BRX_KEY_LINE_ITEM_ADDRESS, nullptr, &address, 0);
            _brx_get_keyed(item, BRX_KEY_LINE_ITEM_LINE, nullptr, &line, 0);
            out << " " << std::hex << address << std::dec << "=" << line;
            previousItem = item;
        }
        out << "; ";
        previous = block;
    }
    return out.str();
}

TEST(BrixReadBack, LineBlocksOfEverySectionComeBackAsDescribed) {
    qtest::TempDir dir;
    const std::string a = dir.File("a.asm"), b = dir.File("b.asm"), c = dir.File("c.asm");
    for (const std::string &path : {a, b, c})
        ASSERT_TRUE(qtest::WriteTextFile(path, path));
    const std::string object = dir.File("roundtrip.obj");
    {
        CoffModule m(object);
        DbgScope module = m.OpenModule();
        const BrxHandle text = m.Section(".text", 0x40), text2 = m.Section(".text2", 0x10);
        const BrxHandle one = m.Section(".text$one", 0x20, true, true);
        const BrxHandle two = m.Section(".text$two", 0x20, true, true);
        DbgSource fa = m.Source(a), fb = m.Source(b), fc = m.Source(c);
        DbgScope s = m.OpenSection(text);
        m.Line(s, fa, 1, 0);
        DbgScope p = m.OpenProcedure(m.Symbol("p", text, 0x10), 0x10, 0x40);
        m.Line(p, fb, 20, 0x18);
        m.Line(p, fa, 10, 0x10);
        m.Close();
        m.Reenter(module);
        DbgScope s2 = m.OpenSection(text2);
        m.Line(s2, fc, 7, 4);
        m.Reenter(module);
        m.OpenSection(one);
        DbgScope q = m.OpenProcedure(m.Symbol("q", one, 0), 0, 0x20);
        m.Line(q, fc, 30, 0);
        m.Line(q, fb, 31, 8);
        m.Close();
        m.Reenter(module);
        m.OpenSection(two);
        DbgScope r = m.OpenProcedure(m.Symbol("r", two, 4), 4, 0x20);
        m.Line(r, fb, 40, 4);
        m.Close();
        ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
        ASSERT_TRUE(m.Builder().Write());
    }

    uint32_t mode = 0;
    BrxHandle file = 0;
    ASSERT_EQ(_brx_open_file(object.c_str(), &mode, &file, 0), BRX_OK);
    const struct {
        const char *section;
        const char *blocks;
    } expected[] = {
        {".text", "a.asm: 0=1; a.asm: 10=10; b.asm: 18=20; "},
        {".text2", "c.asm: 4=7; "},
        {".text$one", "c.asm: 0=30; b.asm: 8=31; "},
        {".text$two", "b.asm: 4=40; "},
    };
    for (const auto &e : expected) {
        const auto sections = SectionsNamed(file, e.section);
        ASSERT_EQ(sections.size(), 1u) << e.section;
        EXPECT_EQ(Blocks(sections[0]), e.blocks) << e.section;
    }
    _brx_close_file(file);
}

} // namespace
