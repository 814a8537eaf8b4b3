#include "frame/LibraryState.h"

#include "frame/BinarySection.h"
#include "objects/DebugObjects.h"
#include "scopes/ModuleScope.h"
#include "types/DebugTypes.h"

LibraryState::LibraryState() = default;

LibraryState::~LibraryState() {
    // Only at process exit: brix's own state may be gone already, and it releases its files.
    if (reader)
        reader->LeaveObjectToBrix();
    Reset();
}

void LibraryState::Reset() {
    releasing = true;
    reader.reset();
    // The tree goes first: its objects refer to types and abbreviations.
    delete moduleRoot; // clears moduleRoot
    moduleRoot = nullptr;
    currentScope = nullptr;
    unattachedProcedures.clear();
    for (CBinarySection *section : symbolSections)
        delete section;
    symbolSections.clear();
    symbolSectionCursor = 0;
    typeTable.clear();
    for (CDebugBasicType *&slot : baseTypeCache)
        slot = nullptr;
    voidType = nullptr;
    defaultProcType = nullptr;
    sourceFiles.Clear();
    ClearAbbrevRegistry();

    mode = 0;
    binding = CObjectFile();
    typeIndexCounter = kFirstTypeIndex;
    abbrevCodeCounter = 1;
    runningEntryOffset = kFirstEntryOffset;
    endSymbolCounter = 1;
    lineState = CLineState();
    lineProgramUse = 0;
    lastSourceHit = -1;
    liveScopes.Clear();
    objectArena.Clear();
    liveTypes.Clear();
    liveSources.Clear();
    m_pLastLiveScope = nullptr;
    m_pLastLiveSource = nullptr;
    releasing = false;
}

LibraryState &State() {
    static LibraryState state;
    return state;
}
