// Placeholder until the CodeView emission lands: every entry point refuses the format.
#include "codeview/CodeViewEmit.h"

#include "quillet/quillet.h"

uint32_t RunCodeViewDriver() { return DBG_ERR_UNSUPPORTED_FORMAT; }
uint32_t SectionBeginCodeView(CSectionScope &, CBinarySection *&, CBinarySection *) {
    return DBG_ERR_UNSUPPORTED_FORMAT;
}
uint32_t SectionEmitCodeViewLines(CSectionScope &, CBinarySection *&) {
    return DBG_ERR_UNSUPPORTED_FORMAT;
}
uint32_t ProcEmitCodeViewLines(CProcScope &, CBinarySection *&) {
    return DBG_ERR_UNSUPPORTED_FORMAT;
}
