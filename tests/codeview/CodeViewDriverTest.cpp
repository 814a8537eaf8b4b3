// The CodeView driver end to end on an in-memory COFF object: the zero fill that ends a symbol
// section, names cut to fit their records, the entries that are left out or end an emission, and
// a subsection length that cannot be written.
// The layout of procedures, lines, files and COMDAT sections is read back by llvm-readobj in the
// consumer tests.
#include "codeview/CodeViewReading.h"
#include "codeview/SymbolSections.h"
#include "frame/BinarySection.h"

#include <gtest/gtest.h>

#include <map>

namespace {

using namespace cvtest;

constexpr uint32_t F1 = 0xF1, F2 = 0xF2, F3 = 0xF3, F4 = 0xF4;

class CodeViewDriver : public ::testing::Test {
protected:
    // No emission here may trip a consistency check unless the test expects it to.
    void TearDown() override {
        EXPECT_EQ(m_Checks.Count(), m_nExpectedChecks);
        if (m_Checks.Count() != m_nExpectedChecks)
            for (const std::string &expression : m_Checks.Expressions())
                ADD_FAILURE() << "check failed: " << expression;
    }

    qtest::CheckCounter m_Checks;
    int m_nExpectedChecks = 0;
    qtest::TempDir m_Dir;
    std::string ObjectPath() const { return m_Dir.File("module.obj"); }
};

// A constant's name of 1 to 4 bytes moves the end of the symbols subsection through every
// remainder modulo 4: zero fill ends the section on a 4-byte boundary (checked as the section
// is taken apart), and the subsection's length counts its records, not the fill.
TEST_F(CodeViewDriver, ZeroFillEndsTheSymbolSectionAndIsNotCounted) {
    std::vector<size_t> lengths;
    for (const std::string name : {"A", "AB", "ABC", "ABCD"}) {
        CoffModule m(ObjectPath());
        m.OpenModule();
        const int8_t value = 5;
        ASSERT_EQ(m.Builder().Constant(name, 2, &value), DBG_ERR_NONE);
        ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
        const auto subsections = m.MainSubsections();
        ASSERT_EQ(Kinds(subsections), std::vector<uint32_t>{F1}) << name;
        lengths.push_back(subsections[0].content.size());
    }
    for (size_t i = 1; i < lengths.size(); ++i)
        EXPECT_EQ(lengths[i], lengths[0] + i);
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

    const auto subsections = m.MainSubsections();
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

// An entry held by the module (its file does not exist: reading it would fail the emission) and
// entries without a source file are left out; only the section's other entry is written.
TEST_F(CodeViewDriver, EntriesOfTheModuleOrWithoutASourceFileAreLeftOut) {
    const std::string a = m_Dir.File("a.asm");
    ASSERT_TRUE(qtest::WriteTextFile(a, "a"));
    CoffModule m(ObjectPath());
    DbgScope module = m.OpenModule();
    m.Line(module, m.Source(m_Dir.File("missing.asm")), 4, 0);
    DbgScope section = m.OpenSection(m.Section(".text", 8));
    // Entries without a source file before and after the written one: the first of a scope has
    // no file before it either.
    DbgLineDesc first{nullptr, 2, 0, 4, 0, 0}, after{nullptr, 3, 0, 6, 0, 0};
    EXPECT_EQ(Dbg_create_line(section, &first), DBG_ERR_NONE);
    m.Line(section, m.Source(a), 1, 0);
    EXPECT_EQ(Dbg_create_line(section, &after), DBG_ERR_NONE);
    m_nExpectedChecks = 2; // recording them is reported; writing must report nothing more
    EXPECT_EQ(m_Checks.Count(), 2);
    ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
    const auto subsections = m.MainSubsections();
    ASSERT_EQ(Kinds(subsections), (std::vector<uint32_t>{F1, F3, F4, F2}));
    EXPECT_EQ(subsections[2].content.size(), 24u) << "one file checksum";
    EXPECT_EQ(subsections[3].content, Concat({LineHeader(0, 8), Block(0, {{0, 1}})}));
}

// The length of a subsection is patched once its content is complete; an object file that refuses
// the patch fails the emission with its status.
TEST(CodeViewSubsections, ALengthThatCannotBeWrittenFailsWithTheObjectFileStatus) {
    qtest::TempDir dir;
    BrxHandle file = 0;
    ASSERT_EQ(_brx_new_file(dir.File("gone.obj").c_str(), BRX_FORMAT_COFF, &file), BRX_OK);
    CBinarySection section(file, BRX_FORMAT_COFF, ".debug$S", 4, 4, 1,
                           CBinarySection::AssociatedWith{0});
    const Bytes record(8, 1);
    ASSERT_TRUE(section.Append(record.data(), uint32_t(record.size())).Ok());
    // The object file goes away under the section: the length patch is refused.
    ASSERT_EQ(_brx_close_file(file), BRX_OK);
    EXPECT_EQ(CloseSubsection(section), uint32_t(DBG_ERR_OBJECT_FILE));
}

} // namespace
