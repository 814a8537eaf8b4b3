// The manual text of qdbg: `qdbg --help` and `qdbg COMMAND --help`.
#ifndef QDBG_HELP_H
#define QDBG_HELP_H

#include <string>

namespace qdbg {

// The whole manual (no command) or the page of one command; empty for an unknown command.
std::string HelpText(const std::string &command);

} // namespace qdbg

#endif
