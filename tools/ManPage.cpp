// qdbg_manpage OUTPUT: writes the manual page qdbg.1 from the text that `qdbg --help` prints,
// so that the two cannot drift apart. The help text's layout carries over unchanged: its
// headings (lines that start in the first column) become sections, the NAME section becomes the
// one-line summary that whatis and apropos index, and every other section is set line for line
// as it is written, its columns and examples kept.
#include "Help.h"

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace {

// The help text indents section bodies by this much; the manual's own section indent replaces it.
const size_t kHelpIndent = 4;

// Escapes one line of text for the formatter: backslashes, and the characters that it would
// otherwise typeset as typographic ones (minus as a hyphen, quotes as curly quotes), so that
// options and examples can be copied from the rendered page. A control character at the start
// of a line is made plain text.
std::string Escape(const std::string &line) {
    std::string out;
    if (!line.empty() && (line[0] == '.' || line[0] == '\''))
        out += "\\&";
    for (char c : line) {
        switch (c) {
        case '\\':
            out += "\\e";
            break;
        case '-':
            out += "\\-";
            break;
        case '\'':
            out += "\\(aq";
            break;
        case '`':
            out += "\\(ga";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::string StripIndent(const std::string &line) {
    size_t n = 0;
    while (n < kHelpIndent && n < line.size() && line[n] == ' ')
        ++n;
    return line.substr(n);
}

std::string Trim(const std::string &text) {
    size_t begin = text.find_first_not_of(' ');
    if (begin == std::string::npos)
        return "";
    return text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

struct Section {
    std::string heading;
    std::vector<std::string> lines;
};

std::vector<Section> SplitSections(const std::string &help) {
    std::vector<Section> sections;
    std::istringstream in(help);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line[0] != ' ')
            sections.push_back({line, {}});
        else if (!sections.empty())
            sections.back().lines.push_back(line);
    }
    for (Section &section : sections)
        while (!section.lines.empty() && Trim(section.lines.back()).empty())
            section.lines.pop_back();
    return sections;
}

// "qdbg - what it does" over several lines becomes one line with the formatter's dash.
std::string NameLine(const Section &section) {
    std::string joined;
    for (const std::string &line : section.lines) {
        std::string words = Trim(line);
        if (!words.empty())
            joined += (joined.empty() ? "" : " ") + words;
    }
    size_t dash = joined.find(" - ");
    if (dash == std::string::npos)
        return Escape(joined);
    return Escape(joined.substr(0, dash)) + " \\- " + Escape(joined.substr(dash + 3));
}

std::string ManPage(const std::string &help, const std::string &version) {
    std::string page = ".TH QDBG 1 \"\" \"Quillet " + version + "\" \"User Commands\"\n";
    for (const Section &section : SplitSections(help)) {
        page += ".SH " + Escape(section.heading) + "\n";
        if (section.heading == "NAME") {
            page += NameLine(section) + "\n";
            continue;
        }
        page += ".nf\n";
        for (const std::string &line : section.lines) {
            std::string text = StripIndent(line);
            if (Trim(text).empty())
                page += ".sp\n";
            else if (section.heading == "COMMANDS" && text[0] != ' ')
                page += "\\fB" + Escape(text) + "\\fR\n"; // the synopsis of one command
            else
                page += Escape(text) + "\n";
        }
        page += ".fi\n";
    }
    return page;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: qdbg_manpage OUTPUT\n");
        return 2;
    }
    std::string page = ManPage(qdbg::HelpText(""), QUILLET_VERSION);
    std::FILE *out = std::fopen(argv[1], "wb");
    bool written = out && std::fwrite(page.data(), 1, page.size(), out) == page.size();
    if (out && std::fclose(out) != 0)
        written = false;
    if (!written) {
        std::perror(argv[1]);
        return 1;
    }
    return 0;
}
