// Closing a subsection writes its length once its content is complete, or fails with the status
// of the object file that refused it.
#include "codeview/CodeViewReading.h"
#include "codeview/SymbolSections.h"
#include "frame/BinarySection.h"

#include <gtest/gtest.h>

namespace {

using namespace cvtest;

struct CloseCase {
    const char *what;
    uint32_t content;     // bytes written after the header (0: header only)
    bool startSubsection; // false: nothing since the last close
    uint32_t length;      // the length field afterwards
};

TEST(Subsections, ClosingPatchesTheLengthOfWhatWasWritten) {
    const CloseCase cases[] = {
        {"nothing since the last close", 0, false, 0},
        {"an empty subsection keeps the 0 of its header", 0, true, 0},
        {"content of 1 byte", 1, true, 1},
        {"content of 37 bytes", 37, true, 37},
    };
    for (const CloseCase &c : cases) {
        qtest::TempDir dir;
        qtest::ModuleBuilder builder(dir.File("s.obj"), BRX_FORMAT_COFF);
        // A COMDAT section's symbol section: created with its first bytes, no low buffer.
        CBinarySection section(builder.File(), BRX_FORMAT_COFF, ".debug$S", 4, 4, 1,
                               CBinarySection::AssociatedWith{0});
        const Bytes record(13, 0xAB);
        ASSERT_TRUE(section.Append(record.data(), uint32_t(record.size())).Ok());
        ASSERT_EQ(CloseSubsection(section), 0u);
        const uint64_t closedAt = section.Size();
        uint64_t header = 0;
        if (c.startSubsection) {
            ASSERT_TRUE(section.StartSubsection(DEBUG_S_LINES).Ok());
            header = section.SubsectionStart();
            EXPECT_EQ(header % 4, 0u) << c.what;
            EXPECT_EQ(header, (closedAt + 3) & ~uint64_t(3)) << c.what;
            const Bytes content(c.content, 0x5A);
            if (c.content) {
                ASSERT_TRUE(section.Append(content.data(), c.content).Ok());
            }
        }
        ASSERT_EQ(CloseSubsection(section), 0u) << c.what;
        EXPECT_EQ(section.SubsectionStart(), section.Size()) << c.what;
        const Bytes bytes = builder.SectionBytes(section.Section());
        // The symbols subsection that the first append opened holds the 13 bytes.
        EXPECT_EQ(U32(bytes, 8), 13u) << c.what;
        if (c.startSubsection) {
            EXPECT_EQ(U32(bytes, size_t(header)), DEBUG_S_LINES) << c.what;
            EXPECT_EQ(U32(bytes, size_t(header) + 4), c.length) << c.what;
        } else {
            EXPECT_EQ(bytes.size(), closedAt) << c.what;
        }
    }
}

TEST(Subsections, ALengthThatCannotBeWrittenFailsWithTheObjectFileStatus) {
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
