// qdbg: the command-line front end of Quillet (see Help.cpp for the manual).
#include "Builder.h"
#include "Description.h"
#include "Help.h"
#include "Query.h"
#include "Targets.h"
#include "Text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

namespace {

using namespace qdbg;

int Usage(const std::string &message, const std::string &command) {
    std::fprintf(stderr, "qdbg: %s\n", message.c_str());
    std::fprintf(stderr, "Try 'qdbg %s--help'.\n", command.empty() ? "" : (command + " ").c_str());
    return kExitUsage;
}

// False with errno set when the file cannot be opened or read (a directory opens but does not
// read).
bool ReadWholeFile(const std::string &path, std::string &text) {
    std::FILE *in = std::fopen(path.c_str(), "rb");
    if (!in)
        return false;
    char buffer[1 << 16];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0)
        text.append(buffer, n);
    int error = std::ferror(in) ? errno : 0;
    std::fclose(in);
    errno = error;
    return error == 0;
}

bool WantsHelp(const std::vector<std::string> &args) {
    for (const std::string &arg : args)
        if (arg == "--help" || arg == "-h")
            return true;
    return false;
}

int Build(const std::vector<std::string> &args) {
    std::string description, output, format = "elf64", target = "default";
    for (size_t k = 0; k < args.size(); ++k) {
        const std::string &arg = args[k];
        if (arg == "-o" || arg == "--output" || arg == "-f" || arg == "--format" || arg == "-t" ||
            arg == "--target") {
            if (k + 1 >= args.size())
                return Usage(arg + " needs a value", "build");
            std::string &value = arg == "-o" || arg == "--output"   ? output
                                 : arg == "-f" || arg == "--format" ? format
                                                                    : target;
            value = args[++k];
        } else if (arg.size() > 1 && arg[0] == '-') {
            return Usage("unknown option '" + arg + "'", "build");
        } else if (description.empty()) {
            description = arg;
        } else {
            return Usage("more than one description file", "build");
        }
    }
    if (description.empty())
        return Usage("no description file", "build");
    if (output.empty())
        return Usage("no output file (-o OUTPUT)", "build");
    int formatNumber = format == "elf32" ? 1 : format == "elf64" ? 2 : format == "coff" ? 3 : 0;
    if (formatNumber == 0)
        return Usage("unknown format '" + format + "' (elf64, elf32 or coff)", "build");
    uint32_t machine = 0;
    std::string misfit;
    if (!MachineFor(target, formatNumber, machine, misfit))
        return Usage(misfit, "build");

    std::string text;
    if (!ReadWholeFile(description, text)) {
        std::fprintf(stderr, "qdbg: %s: %s\n", description.c_str(), std::strerror(errno));
        return kExitFailed;
    }
    try {
        BuildObject(ParseDescription(text), output, formatNumber, machine);
    } catch (const DescriptionError &error) {
        if (error.Line() > 0)
            std::fprintf(stderr, "%s:%d: %s\n", description.c_str(), error.Line(), error.what());
        else
            std::fprintf(stderr, "%s: %s\n", description.c_str(), error.what());
        return kExitFailed;
    } catch (const std::bad_alloc &) {
        std::fprintf(stderr, "%s: not enough memory to build the object\n", description.c_str());
        return kExitFailed;
    }
    return kExitOk;
}

} // namespace

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty())
        return Usage("no command", "");
    std::string command = args.front();
    args.erase(args.begin());
    if (command == "--help" || command == "-h" || command == "help") {
        std::string text = HelpText(args.empty() ? "" : args.front());
        if (text.empty())
            return Usage("unknown command '" + args.front() + "'", "");
        std::fputs(text.c_str(), stdout);
        return kExitOk;
    }
    if (command == "--version") {
        std::printf("qdbg (Quillet) %s\n", QUILLET_VERSION);
        return kExitOk;
    }
    if (HelpText(command).empty())
        return Usage("unknown command '" + command + "'", "");
    if (WantsHelp(args)) {
        std::fputs(HelpText(command).c_str(), stdout);
        return kExitOk;
    }
    if (command == "build")
        return Build(args);
    return RunQuery(command, args);
}
