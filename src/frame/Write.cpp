#include "frame/Write.h"

#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "scopes/ModuleScope.h"

#include "quillet/quillet.h"

namespace {
constexpr uint32_t kDebugAlignment = 4;
constexpr uint32_t kDebugKind = 1;
constexpr size_t kStagingBytes = 1 << 20;
} // namespace

uint32_t RunDwarfDriver() {
    LibraryState &state = State();
    CModuleScope *root = state.moduleRoot;
    if (!root)
        return DBG_ERR_NONE;
    uint32_t status = root->LayoutDwarf();
    if (status != DBG_ERR_NONE)
        return status;
    state.sourceFiles.ConvertToDwarf();

    int32_t format = FORMAT_ELF64;
    if (objfile::QueryFormat(state.binding.file, format).Failed())
        format = FORMAT_ELF64;
    CBinarySection info(state.binding.file, format, ".debug_info", kDebugAlignment, 0, kDebugKind);
    CBinarySection abbrev(state.binding.file, format, ".debug_abbrev", kDebugAlignment, 0,
                          kDebugKind);
    CBinarySection line(state.binding.file, format, ".debug_line", kDebugAlignment, 0, kDebugKind);
    if (!info.IsCreated() || !abbrev.IsCreated() || !line.IsCreated())
        return DBG_ERR_OBJECT_FILE;
    // Entries are small and many: they reach the object file in large pieces.
    info.EnableStaging(kStagingBytes);
    status = root->EmitDwarf(info, abbrev, line);
    if (info.Flush().Failed() && status == DBG_ERR_NONE)
        status = DBG_ERR_OBJECT_FILE;
    if (status != DBG_ERR_NONE)
        return status;
    // The abbreviation table ends with a null code after its last declaration.
    const uint8_t terminator = 0;
    if (abbrev.Append(&terminator, 1).Failed())
        return DBG_ERR_OBJECT_FILE;
    return DBG_ERR_NONE;
}
