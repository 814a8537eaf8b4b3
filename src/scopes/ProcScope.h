// A procedure scope: the objects and line entries of one procedure, wrapped in the procedure's
// own output (its record and end record in CodeView, its entry and the null entry that ends its
// children in DWARF). The label of the procedure's main symbol is folded into the procedure.
#pragma once

#include "objects/ProcObject.h"
#include "scopes/ScopeNode.h"

#include <memory>
#include <vector>

class CProcScope : public CScopeNode {
public:
    // Takes ownership of the procedure.
    explicit CProcScope(CProcObject *procedure);
    ~CProcScope() override;

    int GetKind() const override { return SCOPE_PROCEDURE; }
    // Refuses every scope.
    CError AddChildScope(CScopeNode *) override { return kFailed; }
    uint32_t BeginCodeViewScope(CBinarySection *&symbols, CBinarySection *types) override;
    // S_END.
    uint32_t EndCodeViewScope(CBinarySection *symbols, CBinarySection *types) override;
    uint32_t EmitCodeViewLines(CBinarySection *&symbols) override;
    uint32_t BeginDwarfScope(CBinarySection &info, CBinarySection &abbrev,
                             CBinarySection &line) override;
    uint32_t EndDwarfScope(CBinarySection &info, CBinarySection &abbrev,
                           CBinarySection &line) override;
    uint32_t EmitDwarfLines(CBinarySection &) override { return 0; }
    uint32_t LayoutDwarf() override;

    CProcObject *Procedure() const { return m_pProc.get(); }

private:
    std::unique_ptr<CProcObject> m_pProc;
    // Main-symbol labels taken out of the object list at layout; released with the scope.
    std::vector<std::unique_ptr<CBaseLangObject>> m_FoldedLabels;
};
