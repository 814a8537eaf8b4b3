// Section buffers: the low buffer of a CodeView section, relocations by format, loading a section
// back, and patches of collected bytes.
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "support/ModuleBuilder.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

// The main symbol section keeps its 12-byte header in memory; the first append beyond it
// creates the section and writes the buffered bytes at offset 0.
TEST(BinarySection, LowBufferIsWrittenOutOnOverflow) {
    qtest::TempDir dir;
    qtest::ModuleBuilder module(dir.File("s.o"), BRX_FORMAT_COFF);
    CBinarySection main(module.File(), BRX_FORMAT_COFF, ".debug$S", 4, 4, 1,
                        CBinarySection::LowBuffer{12});
    ASSERT_TRUE(main.StartSubsection(CV_SIGNATURE).Ok());
    ASSERT_TRUE(main.StartSubsection(DEBUG_S_SYMBOLS).Ok());
    EXPECT_EQ(main.Size(), 12u);
    EXPECT_FALSE(main.IsCreated());
    EXPECT_EQ(module.FindSection(".debug$S"), 0u);
    EXPECT_EQ(main.SubsectionStart(), 4u);

    const uint8_t record[5] = {1, 2, 3, 4, 5};
    ASSERT_TRUE(main.Append(record, 5).Ok());
    EXPECT_TRUE(main.IsCreated());
    EXPECT_EQ(main.Size(), 17u);
    EXPECT_EQ(module.SectionBytes(".debug$S"),
              (Bytes{4, 0, 0, 0, 0xf1, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 5}));
    // A length patch goes to the object file once the section exists.
    ASSERT_TRUE(main.WriteU32At(8, 5).Ok());
    EXPECT_EQ(module.SectionBytes(".debug$S")[8], 5);
    EXPECT_TRUE(main.WriteU32At(15, 1).Failed()) << "beyond what was written";
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
