// Everything the library keeps between calls, in one place. Dbg_finish releases what the run
// created and puts every item back to its initial value, so one process can run any number of
// production and retrieval runs one after another.
#pragma once

#include "dwarf/Abbrev.h"
#include "frame/ObjectFile.h"
#include "lines/LineProgram.h"
#include "lines/Retrieve.h"
#include "lines/SourceFile.h"
#include "platform/ObjectArena.h"
#include "platform/PointerSet.h"

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

class CBaseDebugType;
class CBaseLangObject;
class CBinarySection;
struct CCodeViewTables;
class CDebugBasicType;
class CDebugProcType;
class CModuleScope;
class CScopeNode;

constexpr uint64_t kFirstEntryOffset = 11; // the unit header's size
constexpr uint32_t kBaseTypeSlots = 13;    // base-type codes 0..12 (0 unused)

struct LibraryState {
    LibraryState();
    ~LibraryState();
    LibraryState(const LibraryState &) = delete;
    LibraryState &operator=(const LibraryState &) = delete;

    // Releases the reader, the scope tree (and with it every object), the types, the source
    // files, the abbreviations and any leftover CodeView section, then resets every item.
    void Reset();

    // The address width of DWARF fields: 4 for ELF32, 8 otherwise.
    unsigned AddressWidth() const { return binding.format == FORMAT_ELF32 ? 4 : 8; }

    uint32_t mode = 0;
    // The root of the scope tree; owned here (production or retrieval module).
    CModuleScope *moduleRoot = nullptr;
    CScopeNode *currentScope = nullptr;
    CObjectFile binding;
    std::unique_ptr<CBaseRetrieve> reader;

    // Types: the table owns them; the cache holds the one basic type per code.
    std::vector<std::unique_ptr<CBaseDebugType>> typeTable;
    CDebugBasicType *baseTypeCache[kBaseTypeSlots] = {};
    CDebugBasicType *voidType = nullptr;
    CDebugProcType *defaultProcType = nullptr;
    uint32_t typeIndexCounter = 0x1000;

    CSourceFileList sourceFiles;

    CBaseAbbrev *abbrevRegistry[ABBREV_KIND_COUNT] = {};
    uint32_t abbrevCodeCounter = 1;
    uint64_t runningEntryOffset = kFirstEntryOffset;
    uint32_t endSymbolCounter = 1;

    // The line program writer's registers and the write/decode interlock.
    CLineState lineState;
    uint32_t lineProgramUse = 0;
    int64_t lastSourceHit = -1;

    // CodeView: the symbol sections of an emission (the main one first) and the cursor that the
    // checksum and line passes move. The driver releases them; Reset releases any left over.
    std::vector<CBinarySection *> symbolSections;
    size_t symbolSectionCursor = 0;
    // The string and checksum tables of the CodeView emission in progress (owned by the driver,
    // null outside it).
    CCodeViewTables *codeViewTables = nullptr;

    // Procedures made by Dbg_create_object that no procedure scope has taken yet.
    std::unordered_map<const void *, std::unique_ptr<CBaseLangObject>> unattachedProcedures;

    // Handles that the library handed out and has not released. Unknown handles are refused.
    quillet::PointerSet liveScopes;
    // Language objects; its blocks also answer which object handles are live.
    quillet::ObjectArena objectArena;
    quillet::PointerSet liveTypes;
    quillet::PointerSet liveSources; // source cells
    // Set while Reset releases everything: the sets are emptied at once afterwards.
    bool releasing = false;

    // A scope the library knows (the last one found is remembered: lines arrive by the million).
    bool IsLiveScope(const void *scope) {
        if (scope && scope == m_pLastLiveScope)
            return true;
        if (!liveScopes.Contains(scope))
            return false;
        m_pLastLiveScope = scope;
        return true;
    }
    // A source handle the library knows (the last one found is remembered).
    bool IsLiveSource(const void *source) {
        if (source && source == m_pLastLiveSource)
            return true;
        if (!liveSources.Contains(source))
            return false;
        m_pLastLiveSource = source;
        return true;
    }
    void ForgetScope(const void *scope) {
        if (m_pLastLiveScope == scope)
            m_pLastLiveScope = nullptr;
        if (!releasing)
            liveScopes.Erase(scope);
    }

private:
    const void *m_pLastLiveScope = nullptr;
    const void *m_pLastLiveSource = nullptr;

public:
};

LibraryState &State();
