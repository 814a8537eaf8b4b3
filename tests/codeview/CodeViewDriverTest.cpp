// The CodeView driver end to end on an in-memory COFF object: subsection framing and length
// patching, the string and checksum tables, line blocks, COMDAT symbol sections and the cursor
// that finds them, and the failures that end an emission.
#include "codeview/CodeViewReading.h"

#include "codeview/Md5.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

namespace {

using namespace cvtest;

constexpr uint32_t F1 = 0xF1, F2 = 0xF2, F3 = 0xF3, F4 = 0xF4;
constexpr uint32_t kSectionIndex = 11, kSectionRelative = 14;

Bytes ChecksumRecord(uint32_t stringOffset, const std::string &content) {
    const quillet::Md5Digest digest = quillet::CMd5::Of(content.data(), content.size());
    Bytes out;
    PutU32(out, stringOffset);
    out.push_back(16);
    out.push_back(1);
    out.insert(out.end(), digest.begin(), digest.end());
    PutU16(out, 0);
    return out;
}

// A lines subsection's header: the start of its code (relocated against the section), segment
// and flags 0, the code size.
Bytes LineHeader(uint32_t start, uint32_t codeSize) {
    Bytes out;
    PutU32(out, start);
    PutU32(out, 0);
    PutU32(out, codeSize);
    return out;
}

Bytes Block(uint32_t file, std::vector<std::pair<uint32_t, uint32_t>> pairs) {
    Bytes out;
    PutU32(out, file);
    PutU32(out, uint32_t(pairs.size()));
    PutU32(out, uint32_t(12 + 8 * pairs.size()));
    for (auto [offset, line] : pairs) {
        PutU32(out, offset);
        PutU32(out, (line & 0xFFFFFF) | 0x80000000);
    }
    return out;
}

class CodeViewDriver : public ::testing::Test {
protected:
    // No emission here may trip a consistency check.
    void TearDown() override {
        EXPECT_EQ(m_Checks.Count(), m_nExpectedChecks);
        if (m_Checks.Count() != m_nExpectedChecks)
            for (const std::string &expression : m_Checks.Expressions())
                ADD_FAILURE() << "check failed: " << expression;
    }

    qtest::CheckCounter m_Checks;
    int m_nExpectedChecks = 0;
    qtest::TempDir m_Dir;
    std::string Write(const std::string &name, const std::string &content) const {
        const std::string path = m_Dir.File(name);
        EXPECT_TRUE(qtest::WriteTextFile(path, content)) << path;
        return path;
    }
    std::string ObjectPath() const { return m_Dir.Path() + "/module.obj"; }
};

// The relocations of the lines subsections' headers, from the first lines subsection on: the
// section index of the segment field, then the section-relative offset of the offset field,
// both against the header's anchor. Each lines subsection has an anchor of its own: the
// procedure it begins, else the section for the first one, else a symbol made at its start.
void ExpectAnchors(const CoffModule &m, BrxHandle symbols, const std::vector<Subsection> &lines,
                   const std::vector<std::string> &anchors) {
    std::vector<qtest::ModuleBuilder::Relocation> relocations;
    for (const auto &r : m.Relocations(symbols))
        if (r.offset >= lines.front().offset)
            relocations.push_back(r);
    ASSERT_EQ(lines.size(), anchors.size());
    ASSERT_EQ(relocations.size(), 2 * anchors.size());
    for (size_t i = 0; i < anchors.size(); ++i) {
        const auto &index = relocations[2 * i], &offset = relocations[2 * i + 1];
        const size_t header = lines[i].offset + 8;
        EXPECT_EQ(index.offset, header + 4) << "header " << i;
        EXPECT_EQ(index.type, kSectionIndex) << "header " << i;
        EXPECT_EQ(TargetName(index.target), anchors[i]) << "header " << i;
        EXPECT_EQ(offset.offset, header) << "header " << i;
        EXPECT_EQ(offset.type, kSectionRelative) << "header " << i;
        EXPECT_EQ(offset.target, index.target) << "header " << i;
    }
}

std::vector<Subsection> From(const std::vector<Subsection> &subsections, size_t first) {
    return std::vector<Subsection>(subsections.begin() + first, subsections.end());
}

TEST_F(CodeViewDriver, EmptyModuleHoldsOnlyTheModuleRecords) {
    CoffModule m(ObjectPath());
    m.OpenModule();
    ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);

    const auto symbols = m.SectionsNamed(".debug$S");
    ASSERT_EQ(symbols.size(), 1u);
    EXPECT_TRUE(m.SectionsNamed(".debug$T").empty()) << "no type record, no type section";
    const Bytes bytes = CoffModule::Contents(symbols[0]);
    const auto subsections = Subsections(bytes);
    ASSERT_EQ(Kinds(subsections), std::vector<uint32_t>{F1});
    // The length is patched; zero fill brings the section to a multiple of 4 bytes.
    EXPECT_EQ((subsections[0].content.size() + 12 + 3) & ~size_t(3), bytes.size());
    std::vector<uint16_t> kinds;
    for (const Record &r : Records(subsections[0].content))
        kinds.push_back(r.kind);
    EXPECT_EQ(kinds, (std::vector<uint16_t>{0x1101, 0x113C, 0x113D}));
    EXPECT_TRUE(m.Relocations(symbols[0]).empty());
}

TEST_F(CodeViewDriver, WithoutDebugInfoTheEnvironmentBlockIsLeftOut) {
    CoffModule m(ObjectPath());
    m.OpenModule(/*noDebugInfo=*/1);
    ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
    const auto subsections = Subsections(CoffModule::Contents(m.SectionsNamed(".debug$S")[0]));
    ASSERT_EQ(Kinds(subsections), std::vector<uint32_t>{F1});
    std::vector<uint16_t> kinds;
    for (const Record &r : Records(subsections[0].content))
        kinds.push_back(r.kind);
    EXPECT_EQ(kinds, (std::vector<uint16_t>{0x1101, 0x113C}));
}

TEST_F(CodeViewDriver, SubsectionsStartOnFourByteBoundaries) {
    // A constant's name of 1 to 4 bytes moves the end of the symbols subsection through every
    // remainder modulo 4; the string table's header must still start aligned, after zero fill.
    const std::string source = Write("a.asm", "x");
    std::vector<size_t> lengths;
    for (const std::string name : {"A", "AB", "ABC", "ABCD"}) {
        CoffModule m(ObjectPath());
        DbgScope module = m.OpenModule();
        const int32_t code = 2;
        const int8_t value = 5;
        const DbgObjectProp props[] = {
            {DBG_PROP_BASE_TYPE, &code}, {DBG_PROP_VALUE, &value}, {DBG_PROP_NAME, name.c_str()}};
        DbgObject constant = nullptr;
        ASSERT_EQ(Dbg_create_object(DBG_OBJ_CONSTANT, props, 3, module, &constant), DBG_ERR_NONE);
        DbgScope section = m.OpenSection(m.Section(".text", 4));
        m.Line(section, m.Source(source), 1, 0);
        ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
        const auto subsections = Subsections(CoffModule::Contents(m.SectionsNamed(".debug$S")[0]));
        ASSERT_EQ(Kinds(subsections), (std::vector<uint32_t>{F1, F3, F4, F2})) << name;
        lengths.push_back(subsections[0].content.size());
        EXPECT_EQ(subsections[1].offset, (12 + lengths.back() + 3) & ~size_t(3)) << name;
    }
    for (size_t i = 1; i < lengths.size(); ++i)
        EXPECT_EQ(lengths[i], lengths[0] + i) << "the length counts the content, not the fill";

    // Without lines the symbols subsection is the last one: zero fill still ends the section
    // on a 4-byte boundary, and the length does not count it.
    for (const std::string name : {"A", "AB", "ABC", "ABCD"}) {
        CoffModule m(ObjectPath());
        DbgScope module = m.OpenModule();
        const int32_t code = 2;
        const int8_t value = 5;
        const DbgObjectProp props[] = {
            {DBG_PROP_BASE_TYPE, &code}, {DBG_PROP_VALUE, &value}, {DBG_PROP_NAME, name.c_str()}};
        DbgObject constant = nullptr;
        ASSERT_EQ(Dbg_create_object(DBG_OBJ_CONSTANT, props, 3, module, &constant), DBG_ERR_NONE);
        ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
        const Bytes bytes = CoffModule::Contents(m.SectionsNamed(".debug$S")[0]);
        EXPECT_EQ(bytes.size() % 4, 0u) << name;
        const auto subsections = Subsections(bytes);
        ASSERT_EQ(Kinds(subsections), std::vector<uint32_t>{F1}) << name;
        EXPECT_EQ(subsections[0].content.size(), lengths[name.size() - 1]) << name;
    }
}

TEST_F(CodeViewDriver, EachFileIsInTheTablesOnceUnderThePathItIsReadFrom) {
    // x.asm is registered twice; sub/src/x.asm shares its base name; both are named relative to
    // the working directory.
    ASSERT_EQ(qtest::RunCommand("mkdir -p '" + m_Dir.File("sub/src") + "'").exitCode, 0);
    Write("x.asm", "one");
    Write("sub/src/x.asm", "second\nfile\n");
    char previous[4096];
    ASSERT_NE(getcwd(previous, sizeof previous), nullptr);
    ASSERT_EQ(chdir(m_Dir.Path().c_str()), 0);
    {
        CoffModule m(ObjectPath());
        m.OpenModule();
        DbgSource first = m.Source("x.asm"), other = m.Source("sub/src/x.asm");
        DbgSource again = m.Source("x.asm");
        DbgScope section = m.OpenSection(m.Section(".text", 0x40));
        // Recorded out of order: the tables follow the recording order, the blocks the
        // addresses.
        m.Line(section, other, 7, 8);
        m.Line(section, again, 6, 4);
        m.Line(section, first, 5, 0);
        EXPECT_EQ(Dbg_emit(), DBG_ERR_NONE);

        const BrxHandle symbols = m.SectionsNamed(".debug$S").at(0);
        const auto subsections = Subsections(CoffModule::Contents(symbols));
        EXPECT_EQ(Kinds(subsections), (std::vector<uint32_t>{F1, F3, F4, F2, F2}));
        if (subsections.size() == 5) {
            Bytes strings = {0};
            PutString(strings, m_Dir.File("sub/src/x.asm"));
            const uint32_t xOffset = uint32_t(strings.size());
            PutString(strings, m_Dir.File("x.asm"));
            EXPECT_EQ(subsections[1].content, strings);
            EXPECT_EQ(subsections[2].content, Concat({ChecksumRecord(1, "second\nfile\n"),
                                                      ChecksumRecord(xOffset, "one")}));
            // Both records of x.asm name one file and make one run; a lines subsection per run,
            // the last one to the end of the section.
            EXPECT_EQ(subsections[3].content,
                      Concat({LineHeader(0, 8), Block(24, {{0, 5}, {4, 6}})}));
            EXPECT_EQ(subsections[4].content, Concat({LineHeader(0, 0x38), Block(0, {{0, 7}})}));
            ExpectAnchors(m, symbols, From(subsections, 3), {".text", "$$$L1@0x8"});
        }
    }
    EXPECT_EQ(chdir(previous), 0);
}

TEST_F(CodeViewDriver, NonAsciiNamesAreWrittenInUtf8) {
    // U+00E9, U+20AC and U+1F600: two, three and four bytes in the string table; the file is
    // found by the same conversion of its name.
    const std::string base = "caf\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80.asm";
    const std::string path = Write(base, "accented");
    CoffModule m(ObjectPath());
    m.OpenModule();
    const std::u16string wide = Wide(m_Dir.Path()) + u"/caf\u00E9\u20AC\U0001F600.asm";
    DbgSource source = m.Builder().Source(wide);
    DbgScope section = m.OpenSection(m.Section(".text", 4));
    m.Line(section, source, 3, 0);
    ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
    const auto subsections = Subsections(CoffModule::Contents(m.SectionsNamed(".debug$S")[0]));
    ASSERT_EQ(Kinds(subsections), (std::vector<uint32_t>{F1, F3, F4, F2}));
    Bytes strings = {0};
    PutString(strings, path);
    EXPECT_EQ(subsections[1].content, strings);
    EXPECT_EQ(subsections[2].content, ChecksumRecord(1, "accented"));
}

TEST_F(CodeViewDriver, EachProcedureAndEachStretchBetweenThemHasItsOwnLinesSubsection) {
    const std::string a = Write("a.asm", "a"), b = Write("b.asm", "b");
    CoffModule m(ObjectPath());
    DbgScope module = m.OpenModule();
    const BrxHandle text = m.Section(".text", 0x30), more = m.Section(".text2", 0x30);
    const BrxHandle quiet = m.Section(".text3", 0x10);
    DbgSource fa = m.Source(a), fb = m.Source(b);
    // First section: entries of its own before and after its procedure.
    DbgScope s1 = m.OpenSection(text);
    m.Line(s1, fa, 1, 0);
    m.Line(s1, fa, 2, 0x24);
    DbgScope p1 = m.OpenProcedure(m.Symbol("p1", text, 8), 8, 0x20);
    m.Line(p1, fb, 10, 8);
    m.Line(p1, fb, 11, 12);
    m.Close();
    m.Reenter(module);
    // Second section: no entries of its own, two procedures with entries.
    m.OpenSection(more);
    DbgScope p2 = m.OpenProcedure(m.Symbol("p2", more, 0), 0, 0x10);
    m.Line(p2, fa, 20, 4);
    m.Close();
    DbgScope p3 = m.OpenProcedure(m.Symbol("p3", more, 0x10), 0x10, 0x30);
    m.Line(p3, fb, 30, 0x10);
    m.Line(p3, fa, 31, 0x18);
    m.Close();
    m.Reenter(module);
    // Third: no entries anywhere below it.
    m.OpenSection(quiet);
    m.OpenProcedure(m.Symbol("p4", quiet, 0), 0, 0x10);
    m.Close();
    ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);

    const BrxHandle symbols = m.SectionsNamed(".debug$S").at(0);
    const auto subsections = Subsections(CoffModule::Contents(symbols));
    ASSERT_EQ(Kinds(subsections), (std::vector<uint32_t>{F1, F3, F4, F2, F2, F2, F2, F2, F2}));
    // One checksum table for every section: a at 0, b at 24. Offsets count from each start; p3's
    // code is cut where its second file begins.
    const Bytes expected[] = {
        Concat({LineHeader(0, 8), Block(0, {{0, 1}})}),
        Concat({LineHeader(0, 0x18), Block(24, {{0, 10}, {4, 11}})}),
        Concat({LineHeader(0, 0x0C), Block(0, {{0, 2}})}),
        Concat({LineHeader(0, 0x10), Block(0, {{4, 20}})}),
        Concat({LineHeader(0, 0x08), Block(24, {{0, 30}})}),
        Concat({LineHeader(0x18, 0x18), Block(0, {{0, 31}})}),
    };
    for (size_t i = 0; i < 6; ++i)
        EXPECT_EQ(subsections[3 + i].content, expected[i]) << "lines subsection " << i;
    ExpectAnchors(m, symbols, From(subsections, 3),
                  {".text", "p1@0x8", "$$$L1@0x24", "p2@0x0", "p3@0x10", ".text2"});
}

TEST_F(CodeViewDriver, ComdatSectionsNameTheirFilesInTheMainTable) {
    const std::string a = Write("a.asm", "aaa"), b = Write("b.asm", "bbb");
    const std::string c = Write("c.asm", "ccc");
    CoffModule m(ObjectPath());
    DbgScope module = m.OpenModule();
    const BrxHandle text = m.Section(".text", 0x10);
    const BrxHandle inlined = m.Section(".text$inl", 0x18, true, /*comdat=*/true);
    DbgSource fa = m.Source(a), fb = m.Source(b), fc = m.Source(c);
    DbgScope plain = m.OpenSection(text);
    m.Line(plain, fb, 1, 0);
    m.Line(plain, fa, 2, 4);
    m.Reenter(module);
    // The first record of the section's own symbols is a label: its relocations must point at
    // it behind the signature and subsection header that its append brought in front of it.
    const BrxHandle entry = m.Symbol("inl_entry", inlined, 2, false, BRX_SYMBOL_PLAIN);
    const BrxHandle inl = m.Symbol("inl", inlined, 0);
    DbgScope comdat = m.OpenSection(inlined);
    ASSERT_EQ(m.Builder().CodeLabel(entry, nullptr, comdat), DBG_ERR_NONE);
    DbgScope proc = m.OpenProcedure(inl, 0, 0x18);
    m.Line(proc, fa, 30, 0);
    m.Line(proc, fc, 31, 6);
    m.Close();
    ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);

    const auto symbols = m.SectionsNamed(".debug$S");
    ASSERT_EQ(symbols.size(), 2u);
    const BrxComdat association = CoffModule::Comdat(symbols[1]);
    EXPECT_EQ(association.selection, uint32_t(BRX_COMDAT_ASSOCIATIVE));
    EXPECT_EQ(association.section, inlined);
    EXPECT_EQ(CoffModule::Comdat(symbols[0]).selection, 0u);

    // The main table holds every file once, c (named only in the COMDAT section) included.
    const auto main = Subsections(CoffModule::Contents(symbols[0]));
    ASSERT_EQ(Kinds(main), (std::vector<uint32_t>{F1, F3, F4, F2, F2}));
    const uint32_t aOffset = uint32_t(1 + b.size() + 1);
    const uint32_t cOffset = uint32_t(aOffset + a.size() + 1);
    EXPECT_EQ(main[2].content, Concat({ChecksumRecord(1, "bbb"), ChecksumRecord(aOffset, "aaa"),
                                       ChecksumRecord(cOffset, "ccc")}));
    EXPECT_EQ(main[3].content, Concat({LineHeader(0, 4), Block(0, {{0, 1}})}));
    EXPECT_EQ(main[4].content, Concat({LineHeader(0, 0x0C), Block(24, {{0, 2}})}));
    ExpectAnchors(m, symbols[0], From(main, 3), {".text", "$$$L1@0x4"});

    // The COMDAT section's own symbol section has no table: its blocks name the main one's.
    const auto own = Subsections(CoffModule::Contents(symbols[1]));
    ASSERT_EQ(Kinds(own), (std::vector<uint32_t>{F1, F2, F2}));
    EXPECT_EQ(RecordKinds(own[0].content), (std::vector<uint16_t>{0x1105, 0x1110, 0x0006}));
    const auto records = Records(own[0].content);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(own[1].content, Concat({LineHeader(0, 6), Block(24, {{0, 30}})}));
    EXPECT_EQ(own[2].content, Concat({LineHeader(6, 0x12), Block(48, {{0, 31}})}));

    ExpectAnchors(m, symbols[1], From(own, 1), {"inl@0x0", ".text$inl"});

    // Segment and offset fields of the label and of the procedure.
    const size_t symbolsAt = own[0].offset + 8;
    const std::vector<qtest::ModuleBuilder::Relocation> expected = {
        {symbolsAt + records[0].offset + 8, kSectionIndex, entry},
        {symbolsAt + records[0].offset + 4, kSectionRelative, entry},
        {symbolsAt + records[1].offset + 36, kSectionIndex, inl},
        {symbolsAt + records[1].offset + 32, kSectionRelative, inl},
    };
    const auto relocations = m.Relocations(symbols[1]);
    ASSERT_EQ(relocations.size(), expected.size() + 4);
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(relocations[i].offset, expected[i].offset) << "relocation " << i;
        EXPECT_EQ(relocations[i].type, expected[i].type) << "relocation " << i;
        EXPECT_EQ(relocations[i].target, expected[i].target) << "relocation " << i;
    }
}

TEST_F(CodeViewDriver, EachComdatSectionFindsItsOwnSymbolSection) {
    // The first has no lines but still moves the cursor; the third has lines but no records, and
    // its symbol section no empty symbols subsection.
    const std::string a = Write("a.asm", "a");
    CoffModule m(ObjectPath());
    DbgScope module = m.OpenModule();
    const BrxHandle first = m.Section(".text$1", 8, true, true);
    const BrxHandle second = m.Section(".text$2", 8, true, true);
    const BrxHandle only = m.Section(".text$only", 8, true, true);
    DbgSource source = m.Source(a);
    m.OpenSection(first);
    m.OpenProcedure(m.Symbol("f1", first, 0), 0, 8);
    m.Close();
    m.Reenter(module);
    m.OpenSection(second);
    DbgScope proc = m.OpenProcedure(m.Symbol("f2", second, 0), 0, 8);
    m.Line(proc, source, 3, 2);
    m.Close();
    m.Reenter(module);
    m.Line(m.OpenSection(only), source, 5, 4);
    ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);

    const auto symbols = m.SectionsNamed(".debug$S");
    ASSERT_EQ(symbols.size(), 4u);
    EXPECT_EQ(CoffModule::Comdat(symbols[1]).section, first);
    EXPECT_EQ(CoffModule::Comdat(symbols[2]).section, second);
    EXPECT_EQ(CoffModule::Comdat(symbols[3]).section, only);
    EXPECT_EQ(Kinds(Subsections(CoffModule::Contents(symbols[0]))),
              (std::vector<uint32_t>{F1, F3, F4}));
    EXPECT_EQ(Kinds(Subsections(CoffModule::Contents(symbols[1]))), (std::vector<uint32_t>{F1}));
    const auto own = Subsections(CoffModule::Contents(symbols[2]));
    ASSERT_EQ(Kinds(own), (std::vector<uint32_t>{F1, F2}));
    EXPECT_EQ(own[1].content, Concat({LineHeader(0, 8), Block(0, {{2, 3}})}));
    const auto linesOnly = Subsections(CoffModule::Contents(symbols[3]));
    ASSERT_EQ(Kinds(linesOnly), (std::vector<uint32_t>{F2}));
    EXPECT_EQ(linesOnly[0].content, Concat({LineHeader(4, 4), Block(0, {{0, 5}})}));
    ExpectAnchors(m, symbols[3], linesOnly, {".text$only"});
}

// Names too long for a record's 16-bit length are cut at a character boundary, and each cut is
// reported: a record takes at most 65,536 bytes, so that its length still fits once a linker pads
// it to a multiple of 4 (lld-link otherwise writes a wrapped length into the program database).
// The object name, however long, is written whole.
TEST_F(CodeViewDriver, LongNamesAreCutToFitTheirRecords) {
    const std::string objectPath = m_Dir.File(std::string(300, 'o') + ".obj");
    CoffModule m(objectPath);
    const std::u16string producer(70000, u'p'), tool(70000, u't');
    const uint16_t version[3] = {1, 2, 3};
    DbgScope module = nullptr;
    ASSERT_EQ(Dbg_open_module_scope(m.File(), 1, 0, 0, 1, version, version, producer.c_str(),
                                    u"/src", u"main.asm", tool.c_str(), &module),
              DBG_ERR_NONE);
    // A label record has 12 bytes besides its name, so 65,524 bytes of name fit: the cut falls
    // inside the four bytes of U+1F600 and goes back to its first.
    const std::string labelName = std::string(65523, 'l') + "\xF0\x9F\x98\x80" + "tail";
    const std::string constantName(70000, 'k');
    const BrxHandle text = m.Section(".text", 4);
    DbgScope section = m.OpenSection(text);
    ASSERT_EQ(m.Builder().CodeLabel(m.Symbol(labelName, text, 0, false, BRX_SYMBOL_PLAIN), nullptr,
                                    section),
              DBG_ERR_NONE);
    const int8_t value = 1;
    ASSERT_EQ(m.Builder().Constant(constantName, 2, &value), DBG_ERR_NONE);
    ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
    m_nExpectedChecks = 4; // producer, environment block, label, constant

    const auto subsections = Subsections(CoffModule::Contents(m.SectionsNamed(".debug$S")[0]));
    ASSERT_EQ(Kinds(subsections), std::vector<uint32_t>{F1});
    std::map<uint16_t, Bytes> byKind;
    for (const Record &r : Records(subsections[0].content))
        byKind[r.kind] = r.bytes;
    ASSERT_EQ(byKind.size(), 5u);
    auto textOf = [](const Bytes &record, size_t from) {
        return std::string(record.begin() + from, record.end());
    };
    EXPECT_EQ(textOf(byKind[0x1101], 8), objectPath + '\0');
    EXPECT_EQ(textOf(byKind[0x113C], 26), std::string(65508, 'p') + '\0' + '\0');
    EXPECT_EQ(textOf(byKind[0x1105], 11), labelName.substr(0, 65523) + '\0');
    EXPECT_EQ(byKind[0x1107].size(), 0x10000u) << "the constant fills its record";
    // The environment block cuts the long tool path and keeps the other strings.
    const std::string env = textOf(byKind[0x113D], 5);
    EXPECT_EQ(env.size(), 0x10000u - 5);
    EXPECT_NE(env.find(std::string("src") + '\0' + "/src/main.asm" + '\0'), std::string::npos);
}

TEST_F(CodeViewDriver, LinesHeldByTheModuleAreIgnored) {
    CoffModule m(ObjectPath());
    DbgScope module = m.OpenModule();
    // The file does not exist: reading it would fail the emission.
    m.Line(module, m.Source(m_Dir.Path() + "/missing.asm"), 4, 0);
    m.OpenSection(m.Section(".text", 8));
    ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
    EXPECT_EQ(Kinds(Subsections(CoffModule::Contents(m.SectionsNamed(".debug$S")[0]))),
              std::vector<uint32_t>{F1});
}

TEST_F(CodeViewDriver, SourceFilesThatCannotBeReadFailTheEmission) {
    ASSERT_EQ(qtest::RunCommand("mkdir -p '" + m_Dir.File("folder.asm") + "'").exitCode, 0);
    for (const std::string name : {"missing.asm", "folder.asm"}) {
        CoffModule m(ObjectPath());
        m.OpenModule();
        DbgScope section = m.OpenSection(m.Section(".text", 8));
        m.Line(section, m.Source(m_Dir.File(name)), 4, 0);
        EXPECT_EQ(Dbg_emit(), DBG_ERR_WRITE_FAILED) << name;
    }
}

TEST_F(CodeViewDriver, EntryWithoutASourceFileIsLeftOut) {
    const std::string a = Write("a.asm", "a");
    CoffModule m(ObjectPath());
    m.OpenModule();
    DbgScope section = m.OpenSection(m.Section(".text", 8));
    m.Line(section, m.Source(a), 1, 0);
    DbgLineDesc desc{nullptr, 2, 0, 4, 0, 0};
    EXPECT_EQ(Dbg_create_line(section, &desc), DBG_ERR_NONE);
    m_nExpectedChecks = 1; // recording it is reported; writing must report nothing more
    EXPECT_EQ(m_Checks.Count(), 1);
    ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
    const auto subsections = Subsections(CoffModule::Contents(m.SectionsNamed(".debug$S")[0]));
    ASSERT_EQ(Kinds(subsections), (std::vector<uint32_t>{F1, F3, F4, F2}));
    EXPECT_EQ(subsections[3].content, Concat({LineHeader(0, 8), Block(0, {{0, 1}})}));
}

TEST_F(CodeViewDriver, ProcedureTypesAreNumberedInTheTypeSection) {
    CoffModule m(ObjectPath());
    m.OpenModule();
    const BrxHandle text = m.Section(".text", 0x30);
    DbgType data4 = nullptr, real8 = nullptr, near = nullptr, far = nullptr;
    ASSERT_EQ(Dbg_base_type(5, &data4), DBG_ERR_NONE);
    ASSERT_EQ(Dbg_base_type(10, &real8), DBG_ERR_NONE);
    ASSERT_EQ(Dbg_procedure_type(data4, 1, &near), DBG_ERR_NONE);
    ASSERT_EQ(Dbg_procedure_type(real8, 2, &far), DBG_ERR_NONE);
    m.OpenSection(text);
    m.OpenProcedure(m.Symbol("one", text, 0), 0, 0x10, near);
    m.Close();
    m.OpenProcedure(m.Symbol("two", text, 0x10), 0x10, 0x20, far);
    m.Close();
    m.OpenProcedure(m.Symbol("three", text, 0x20), 0x20, 0x30, near);
    m.Close();
    ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);

    const auto types = m.SectionsNamed(".debug$T");
    ASSERT_EQ(types.size(), 1u);
    const Bytes expected = {
        0x04, 0x00, 0x00, 0x00,                                     // signature
        0x06, 0x00, 0x01, 0x12, 0x00, 0x00, 0x00, 0x00,             // 0x1000 argument list
        0x0e, 0x00, 0x08, 0x10, 0x22, 0x00, 0x00, 0x00, 0x0d, 0x00, // 0x1001 procedure
        0x00, 0x00, 0x00, 0x10, 0x00, 0x00,                         //   returning data4
        0x06, 0x00, 0x01, 0x12, 0x00, 0x00, 0x00, 0x00,             // 0x1002 argument list
        0x0e, 0x00, 0x08, 0x10, 0x41, 0x00, 0x00, 0x00, 0x00, 0x00, // 0x1003 procedure
        0x00, 0x00, 0x02, 0x10, 0x00, 0x00,                         //   returning real8
    };
    EXPECT_EQ(CoffModule::Contents(types[0]), expected);

    const auto subsections = Subsections(CoffModule::Contents(m.SectionsNamed(".debug$S")[0]));
    std::vector<uint32_t> procedureTypes;
    for (const Record &r : Records(subsections.at(0).content))
        if (r.kind == 0x1110)
            procedureTypes.push_back(U32(r.bytes, 28));
    EXPECT_EQ(procedureTypes, (std::vector<uint32_t>{0x1001, 0x1003, 0x1001}));
}

} // namespace
