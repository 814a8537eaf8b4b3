#include "codeview/SymbolSections.h"

#include "codeview/CodeViewFormat.h"
#include "frame/BinarySection.h"
#include "frame/ObjectFile.h"
#include "platform/Check.h"

#include "quillet/quillet.h"

bool IsComdatSection(BrxHandle section) {
    BrxComdat comdat = {0, 0};
    if (!QCHECK(objfile::SectionComdat(section, comdat).Ok()))
        return false;
    return comdat.selection != 0;
}

uint32_t CloseSubsection(CBinarySection &section) {
    const uint64_t size = section.Size();
    const uint64_t start = section.SubsectionStart();
    if (size == start)
        return DBG_ERR_NONE;
    if (!QCHECK(size >= start + quillet::cv::kSubsectionHeaderSize))
        return DBG_ERR_NONE;
    const uint64_t length = size - start - quillet::cv::kSubsectionHeaderSize;
    if (!QCHECK(length <= UINT32_MAX))
        return DBG_ERR_OBJECT_FILE;
    // A length of 0 is already in place: the header was written with it.
    if (length > 0 && section.WriteU32At(start + 4, uint32_t(length)).Failed())
        return DBG_ERR_OBJECT_FILE;
    section.SetSubsectionStart(size);
    return DBG_ERR_NONE;
}
