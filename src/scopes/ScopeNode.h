// The scope tree: a module scope at the root, section scopes under it, procedure scopes under
// sections. A scope owns the objects created in it, its child scopes and its line entries, and
// takes part in the walks that the emission drivers run over the tree.
#pragma once

#include "lines/LineEntry.h"
#include "platform/CError.h"

#include <cstdint>
#include <memory>
#include <vector>

class CBaseLangObject;
class CBinarySection;

enum ScopeKind : int { SCOPE_MODULE = 1, SCOPE_SECTION = 2, SCOPE_PROCEDURE = 3 };

class CScopeNode {
public:
    CScopeNode();
    virtual ~CScopeNode();
    CScopeNode(const CScopeNode &) = delete;
    CScopeNode &operator=(const CScopeNode &) = delete;

    virtual int GetKind() const = 0;
    // Accepts or refuses a child by its kind and attaches it.
    virtual CError AddChildScope(CScopeNode *scope) = 0;
    void AddLineEntry(const CLineEntry &entry) { m_Lines.push_back(entry); }
    CError CreateLineEntry(uint32_t line, uint32_t column, uint32_t baseLow, uint32_t baseHigh,
                           uint32_t offset, void *source);

    // CodeView: records at the start of the scope; may choose another symbol section for the
    // scope and its subtree. Statuses are DBG_ERR_* codes.
    virtual uint32_t BeginCodeViewScope(CBinarySection *&symbols, CBinarySection *types) = 0;
    virtual uint32_t EndCodeViewScope(CBinarySection *symbols, CBinarySection *types) = 0;
    // CodeView line blocks of the scope; sets `symbols` to null when the subtree has none.
    virtual uint32_t EmitCodeViewLines(CBinarySection *&symbols) = 0;

    // DWARF write walk: opening output, line rows, child scopes, own objects, closing output.
    uint32_t EmitDwarf(CBinarySection &info, CBinarySection &abbrev, CBinarySection &line);
    virtual uint32_t BeginDwarfScope(CBinarySection &info, CBinarySection &abbrev,
                                     CBinarySection &line) = 0;
    virtual uint32_t EndDwarfScope(CBinarySection &info, CBinarySection &abbrev,
                                   CBinarySection &line) = 0;
    virtual uint32_t EmitDwarfLines(CBinarySection &line) = 0;
    // DWARF layout walk: child scopes, then own objects.
    virtual uint32_t LayoutDwarf();

    // CodeView symbol walk: opening records, own objects, child scopes, closing records.
    uint32_t EmitCodeViewSymbols(CBinarySection *symbols, CBinarySection *types);
    // CodeView line walk: the scope's blocks, then its children unless the scope skipped them.
    uint32_t EmitCodeViewLineWalk(CBinarySection *symbols);

    // Attaches `scope` as the last child (its parent must be unset).
    void AttachChild(CScopeNode *scope);
    // Appends an object the scope owns (an object already listed is not added again).
    void AddObject(CBaseLangObject *object);
    // Appends an object the scope lists but does not own (a basic type's entry).
    void AddSharedObject(CBaseLangObject *object);
    // Takes the shared objects listed from position `count` on out of the list again (what a
    // failed object creation registered).
    void DropSharedObjectsFrom(size_t count);
    // True when this scope or a scope below it holds line entries.
    bool SubtreeHasLines() const;

    bool IsOpen() const { return m_bOpen; }
    void SetOpen(bool open) { m_bOpen = open; }
    CScopeNode *Parent() const { return m_pParentScope; }
    const std::vector<CBaseLangObject *> &Objects() const { return m_Objects; }
    const std::vector<std::unique_ptr<CScopeNode>> &Children() const { return m_Children; }
    std::vector<CLineEntry> &Lines() { return m_Lines; }
    const std::vector<CLineEntry> &Lines() const { return m_Lines; }

protected:
    // The base layout walk; its result.
    uint32_t LayoutChildrenAndObjects();
    // Takes an owned object out of the list (the last one moves into its place) and hands it
    // to the caller.
    std::unique_ptr<CBaseLangObject> TakeObjectAt(size_t position);

    bool m_bOpen = true;
    CScopeNode *m_pParentScope = nullptr;
    std::vector<CBaseLangObject *> m_Objects;
    std::vector<std::unique_ptr<CScopeNode>> m_Children;
    std::vector<CLineEntry> m_Lines;
};
