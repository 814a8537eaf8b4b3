// The module scope: the root of the tree, one per object file, standing for the compilation unit.
#pragma once

#include "objects/CompInfo.h"
#include "scopes/ScopeNode.h"

#include <unordered_set>

class CModuleScope : public CScopeNode {
public:
    explicit CModuleScope(const CCompInfo &compInfo);
    // Clears the library's module root (and current scope) when they point at this module.
    ~CModuleScope() override;

    int GetKind() const override { return SCOPE_MODULE; }
    // Accepts section scopes and counts the code sections they stand for (a section entered
    // twice counts once).
    CError AddChildScope(CScopeNode *scope) override;
    // The object-name record, the compile record and the environment block.
    uint32_t BeginCodeViewScope(CBinarySection *&symbols, CBinarySection *types) override;
    uint32_t EndCodeViewScope(CBinarySection *, CBinarySection *) override { return 0; }
    uint32_t EmitCodeViewLines(CBinarySection *&) override { return 0; }
    // The unit header and the compile-unit entry.
    uint32_t BeginDwarfScope(CBinarySection &info, CBinarySection &abbrev,
                             CBinarySection &line) override;
    // The null entry that ends the unit's children and the line program's unit length.
    uint32_t EndDwarfScope(CBinarySection &info, CBinarySection &abbrev,
                           CBinarySection &line) override;
    // The line program's header.
    uint32_t EmitDwarfLines(CBinarySection &line) override;
    uint32_t LayoutDwarf() override;

    CCompInfo &CompInfo() { return m_CompInfo; }
    const CCompInfo &CompInfo() const { return m_CompInfo; }
    int32_t CodeSectionCount() const { return int32_t(m_CodeSections.size()); }

private:
    // Before the layout: types that objects refer to but that were never registered (in a
    // module without debugging information, or typed before the module was opened) join the
    // module's objects, so that every type reference names an entry.
    void RegisterReferencedTypes();

    CCompInfo m_CompInfo;
    std::unordered_set<BrxHandle> m_CodeSections;
};
