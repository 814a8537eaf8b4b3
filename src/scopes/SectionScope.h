// A section scope: one section of the object file, usually code. Holds procedure scopes; ends the
// DWARF line sequence of its rows; in CodeView a COMDAT code section gets its own symbol section.
#pragma once

#include "scopes/ScopeNode.h"

#include "brix/brix.h"

class CSectionScope : public CScopeNode {
public:
    // Reads the section's flags through the object-file library (code flag: bit value 2).
    explicit CSectionScope(BrxHandle section);
    // Without any query: for sections of files opened for reading.
    CSectionScope(BrxHandle section, bool isCode) : m_hSection(section), m_bCode(isCode) {}

    int GetKind() const override { return SCOPE_SECTION; }
    // Accepts procedure scopes.
    CError AddChildScope(CScopeNode *scope) override;
    uint32_t BeginCodeViewScope(CBinarySection *&symbols, CBinarySection *types) override;
    uint32_t EndCodeViewScope(CBinarySection *, CBinarySection *) override { return 0; }
    uint32_t EmitCodeViewLines(CBinarySection *&symbols) override;
    uint32_t BeginDwarfScope(CBinarySection &, CBinarySection &, CBinarySection &) override {
        return 0;
    }
    // Ends the line sequence of a section that wrote rows.
    uint32_t EndDwarfScope(CBinarySection &info, CBinarySection &abbrev,
                           CBinarySection &line) override;
    // The rows of this section's entries and of its procedures', by ascending address.
    uint32_t EmitDwarfLines(CBinarySection &line) override;
    uint32_t LayoutDwarf() override;

    BrxHandle Section() const { return m_hSection; }
    bool IsCodeSection() const { return m_bCode; }

private:
    BrxHandle m_hSection;
    bool m_bCode = false;
    bool m_bWroteRows = false;
};
