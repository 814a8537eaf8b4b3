#include "dwarf/Abbreviations.h"
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "support/ModuleBuilder.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

namespace {

class Abbreviations : public ::testing::Test {
protected:
    Abbreviations()
        : m_Module(m_Dir.File("a.o"), BRX_FORMAT_ELF64),
          m_Section(m_Module.File(), BRX_FORMAT_ELF64, ".debug_abbrev", 4, 0, 1) {}

    qtest::TempDir m_Dir;
    qtest::ModuleBuilder m_Module;
    CBinarySection m_Section;
};

// Declarations are numbered in order of first use and each is written once, whatever kind
// asks first; the bytes are the tag, the children flag and the attribute/form pairs.
TEST_F(Abbreviations, DeclarationsAreNumberedInOrderOfFirstUse) {
    struct Case {
        std::function<CBaseAbbrev *()> make;
        std::vector<uint8_t> body; // after the code
    } cases[] = {
        {[] { return new CTypeAbbrev(); }, {0x24, 0x00, 0x03, 0x08, 0x0b, 0x0d, 0x3e, 0x0d, 0, 0}},
        {[] { return new CLabelAbbrev(); }, {0x0a, 0x00, 0x03, 0x08, 0x11, 0x01, 0x3f, 0x0c, 0, 0}},
        {[] { return new CEntryPointAbbrev(); },
         {0x03, 0x00, 0x03, 0x08, 0x11, 0x01, 0x3f, 0x0c, 0, 0}},
        {[] { return new CVariableAbbrev(); },
         {0x34, 0x00, 0x03, 0x08, 0x11, 0x01, 0x49, 0x14, 0x3f, 0x0c, 0, 0}},
        {[] { return new CConstantAbbrev(); },
         {0x27, 0x00, 0x03, 0x08, 0x1c, 0x0a, 0x49, 0x14, 0, 0}},
        {[] { return new CEnregSymAbbrev(); }, {0x27, 0x00, 0x03, 0x08, 0x02, 0x0a, 0, 0}},
        {[] { return new CProcAbbrev(true, false); },
         {0x2e, 0x01, 0x01, 0x14, 0x03, 0x08, 0x11, 0x01, 0x12, 0x01, 0x3f, 0x0c, 0x2a, 0x0a, 0,
          0}},
        {[] { return new CProcAbbrev(false, true); },
         {0x2e, 0x00, 0x01, 0x14, 0x03, 0x08, 0x11, 0x01, 0x12, 0x01, 0x3f, 0x0c, 0x49, 0x14, 0x2a,
          0x0a, 0, 0}},
        // A unit without a code section leaves out its address range.
        {[] {
             auto *unit = new CCompUnitAbbrev();
             unit->m_bNoRange = 1;
             return static_cast<CBaseAbbrev *>(unit);
         },
         {0x11, 0x01, 0x03, 0x08, 0x1b, 0x08, 0x25, 0x08, 0x10, 0x06, 0x42, 0x0b, 0x00, 0x00}},
    };
    std::vector<uint8_t> expected;
    uint32_t nextCode = 1;
    for (const Case &c : cases) {
        CBaseAbbrev *abbrev = c.make();
        ShareAbbrev(abbrev);
        uint32_t code = 0;
        ASSERT_TRUE(abbrev->WriteDeclaration(m_Section, code).Ok());
        EXPECT_EQ(code, nextCode);
        expected.push_back(uint8_t(nextCode++));
        expected.insert(expected.end(), c.body.begin(), c.body.end());
        // A second request and a second instance of the kind write nothing more.
        CBaseAbbrev *again = c.make();
        ShareAbbrev(again);
        EXPECT_EQ(again, abbrev);
        ASSERT_TRUE(again->WriteDeclaration(m_Section, code).Ok());
        EXPECT_EQ(code, nextCode - 1);
    }
    EXPECT_EQ(m_Module.SectionBytes(".debug_abbrev"), expected);
}

} // namespace
