#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "support/ModuleBuilder.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

class BinarySection : public ::testing::Test {
protected:
    BinarySection() : m_Module(m_Dir.File("s.o"), BRX_FORMAT_COFF) {}

    qtest::TempDir m_Dir;
    qtest::ModuleBuilder m_Module;
};

// The main symbol section keeps its 12-byte header in memory; the first append beyond it
// creates the section and writes the buffered bytes at offset 0.
TEST_F(BinarySection, LowBufferIsWrittenOutOnOverflow) {
    CBinarySection main(m_Module.File(), BRX_FORMAT_COFF, ".debug$S", 4, 4, 1,
                        CBinarySection::LowBuffer{12});
    ASSERT_TRUE(main.StartSubsection(CV_SIGNATURE).Ok());
    ASSERT_TRUE(main.StartSubsection(DEBUG_S_SYMBOLS).Ok());
    EXPECT_EQ(main.Size(), 12u);
    EXPECT_FALSE(main.IsCreated());
    EXPECT_EQ(m_Module.FindSection(".debug$S"), 0u);
    EXPECT_EQ(main.SubsectionStart(), 4u);

    const uint8_t record[5] = {1, 2, 3, 4, 5};
    ASSERT_TRUE(main.Append(record, 5).Ok());
    EXPECT_TRUE(main.IsCreated());
    EXPECT_EQ(main.Size(), 17u);
    EXPECT_EQ(m_Module.SectionBytes(".debug$S"),
              (Bytes{4, 0, 0, 0, 0xf1, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 5}));
    // A length patch goes to the object file once the section exists.
    ASSERT_TRUE(main.WriteU32At(8, 5).Ok());
    EXPECT_EQ(m_Module.SectionBytes(".debug$S")[8], 5);
    EXPECT_TRUE(main.WriteU32At(15, 1).Failed()) << "beyond what was written";
}

TEST_F(BinarySection, TypeSectionWithOnlyItsSignatureIsNeverCreated) {
    {
        CBinarySection types(m_Module.File(), BRX_FORMAT_COFF, ".debug$T", 4, 4, 1,
                             CBinarySection::LowBuffer{4});
        ASSERT_TRUE(types.StartSubsection(CV_SIGNATURE).Ok());
        EXPECT_EQ(types.Size(), 4u);
    }
    EXPECT_EQ(m_Module.FindSection(".debug$T"), 0u);
}

// A COMDAT code section's symbol section starts its signature and symbols subsection in front
// of its first bytes, and is tied to its code section.
TEST_F(BinarySection, ComdatSymbolSectionStartsWithItsHeaders) {
    BrxHandle code = m_Module.AddSection(".text$x", true, 16);
    CBinarySection own(m_Module.File(), BRX_FORMAT_COFF, ".debug$S", 4, 4, 1,
                       CBinarySection::AssociatedWith{code});
    EXPECT_EQ(own.PendingSubsectionType(), CV_SIGNATURE);
    const uint8_t record[2] = {0xAA, 0xBB};
    ASSERT_TRUE(own.Append(record, 2).Ok());
    EXPECT_EQ(own.PendingSubsectionType(), 0u);
    ASSERT_NE(own.Section(), 0u);
    EXPECT_EQ(m_Module.SectionBytes(own.Section()),
              (Bytes{4, 0, 0, 0, 0xf1, 0, 0, 0, 0, 0, 0, 0, 0xAA, 0xBB}));
    BrxComdat comdat{0, 0};
    ASSERT_EQ(_brx_get_keyed(own.Section(), BRX_KEY_COMDAT, nullptr, &comdat, 0), 0);
    EXPECT_EQ(comdat.selection, uint32_t(BRX_COMDAT_ASSOCIATIVE));
    EXPECT_EQ(comdat.section, code);

    // One whose first bytes open another subsection gets no empty symbols subsection.
    CBinarySection linesFirst(m_Module.File(), BRX_FORMAT_COFF, ".debug$S", 4, 4, 1,
                              CBinarySection::AssociatedWith{code});
    ASSERT_TRUE(linesFirst.StartSubsection(DEBUG_S_LINES).Ok());
    EXPECT_EQ(linesFirst.SubsectionStart(), 4u);
    ASSERT_TRUE(linesFirst.Append(record, 2).Ok());
    EXPECT_EQ(m_Module.SectionBytes(linesFirst.Section()),
              (Bytes{4, 0, 0, 0, 0xf2, 0, 0, 0, 0, 0, 0, 0, 0xAA, 0xBB}));
}

// Subsection headers start on a multiple of 4: a size of 13 gets three zero bytes first.
TEST_F(BinarySection, SubsectionsAreAligned) {
    struct Case {
        uint32_t before;
        uint64_t start;
    } cases[] = {{13, 16}, {12, 12}, {14, 16}, {15, 16}, {16, 16}};
    for (const Case &c : cases) {
        CBinarySection section(m_Module.File(), BRX_FORMAT_COFF, ".debug$S", 4, 4, 1,
                               CBinarySection::LowBuffer{0});
        Bytes filler(c.before, 0x11);
        ASSERT_TRUE(section.Append(filler.data(), c.before).Ok());
        ASSERT_TRUE(section.StartSubsection(DEBUG_S_LINES).Ok());
        EXPECT_EQ(section.SubsectionStart(), c.start) << c.before;
        EXPECT_EQ(section.Size(), c.start + 8) << c.before;
    }
}

// Relocations go against the section, which they create when it does not exist yet; the type
// follows the object format.
TEST(BinarySectionRelocations, CreateTheSectionAndUseTheFormatsTypes) {
    struct Case {
        int32_t format;
        uint32_t sectionType, addressType;
    } cases[] = {{BRX_FORMAT_ELF32, 37, 37}, {BRX_FORMAT_ELF64, 37, 39}, {BRX_FORMAT_COFF, 11, 14}};
    for (const Case &c : cases) {
        qtest::TempDir dir;
        qtest::ModuleBuilder module(dir.File("r.o"), c.format);
        BrxHandle text = module.AddSection(".text", true, 16);
        CBinarySection section(module.File(), c.format, ".debug$S", 4, 4, 1,
                               CBinarySection::LowBuffer{12});
        ASSERT_TRUE(section.AddSectionRelocation(8, text).Ok());
        ASSERT_TRUE(section.AddAddressRelocation(4, text).Ok());
        ASSERT_NE(section.Section(), 0u);
        auto relocations = module.Relocations(section.Section());
        ASSERT_EQ(relocations.size(), 2u);
        EXPECT_EQ(relocations[0].offset, 8u);
        EXPECT_EQ(relocations[0].type, c.sectionType) << c.format;
        EXPECT_EQ(relocations[1].offset, 4u);
        EXPECT_EQ(relocations[1].type, c.addressType) << c.format;
    }
}

class LoadedSection : public CBaseDebugSection {
public:
    LoadedSection(const char *name) : CBaseDebugSection(name) {}
    CError Parse() override { return kOk; }
};

TEST(BaseDebugSection, LoadsAWholeSectionOrFails) {
    qtest::TempDir dir;
    qtest::ModuleBuilder module(dir.File("l.o"), BRX_FORMAT_ELF64);
    CBinarySection written(module.File(), BRX_FORMAT_ELF64, ".debug_line", 4, 0, 1);
    Bytes content = {9, 8, 7, 6, 5};
    ASSERT_TRUE(written.Append(content).Ok());

    LoadedSection line(".debug_line");
    ASSERT_TRUE(line.Load(module.File()).Ok());
    EXPECT_EQ(Bytes(line.Data(), line.Data() + line.Size()), content);
    EXPECT_EQ(line.ReadPosition(), line.Data());

    LoadedSection missing(".debug_info");
    EXPECT_TRUE(missing.Load(module.File()).Failed());
    EXPECT_TRUE(missing.Load(0).Failed());
}

} // namespace

namespace {

// Collected appends reach the file in pieces; patches land whether the bytes are still
// collected, already written, or both.
TEST(BinarySectionStaging, PatchesAndFlushesKeepTheBytes) {
    qtest::TempDir dir;
    qtest::ModuleBuilder module(dir.File("st.o"), BRX_FORMAT_ELF64);
    CBinarySection section(module.File(), BRX_FORMAT_ELF64, ".debug_info", 4, 0, 1);
    section.EnableStaging(8);
    Bytes expected;
    for (uint8_t i = 0; i < 20; ++i) {
        ASSERT_TRUE(section.Append(&i, 1).Ok());
        expected.push_back(i);
    }
    EXPECT_EQ(section.Size(), 20u);
    EXPECT_EQ(module.SectionBytes(".debug_info"), Bytes(expected.begin(), expected.begin() + 16))
        << "two full pieces are written, four bytes still collected";
    ASSERT_TRUE(section.WriteU32At(17, 0xA1A2A3A4u).Failed()); // beyond the end
    ASSERT_TRUE(section.WriteU32At(16, 0xD1D2D3D4u).Ok());     // collected
    ASSERT_TRUE(section.WriteU32At(14, 0xC1C2C3C4u).Ok());     // straddles
    ASSERT_TRUE(section.WriteU32At(0, 0xB1B2B3B4u).Ok());      // written
    ASSERT_TRUE(section.Flush().Ok());
    for (auto [offset, value] :
         {std::pair<size_t, uint32_t>{16, 0xD1D2D3D4u}, {14, 0xC1C2C3C4u}, {0, 0xB1B2B3B4u}})
        for (int b = 0; b < 4; ++b)
            expected[offset + b] = uint8_t(value >> (8 * b));
    EXPECT_EQ(module.SectionBytes(".debug_info"), expected);
}

} // namespace
