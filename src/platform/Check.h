// Consistency checks: a failed check is reported (expression text, base name of the source
// file, line) to the check handler, and the code goes on. Code after a check never relies on it.
#pragma once

namespace quillet {
void ReportCheck(const char *expression, const char *file, unsigned line);
}

// Evaluates to the truth of the expression, so a caller may branch on it as well.
#define QCHECK(expr)                                                                               \
    (static_cast<bool>(expr) ? true : (::quillet::ReportCheck(#expr, __FILE__, __LINE__), false))
