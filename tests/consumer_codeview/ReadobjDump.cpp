#include "ReadobjDump.h"

#include <cctype>
#include <cstdlib>
#include <sstream>

namespace cvdump {
namespace {

std::string Trim(const std::string &s) {
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b])))
        ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1])))
        --e;
    return s.substr(b, e - b);
}

bool StartsWith(const std::string &s, const std::string &prefix) {
    return s.compare(0, prefix.size(), prefix) == 0;
}

bool EndsWith(const std::string &s, const std::string &suffix) {
    return s.size() >= suffix.size() &&
           s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// "Key: value" -> true with both parts.
bool KeyValue(const std::string &line, std::string &key, std::string &value) {
    const size_t colon = line.find(": ");
    if (colon == std::string::npos || line.find(' ') < colon)
        return false;
    key = line.substr(0, colon);
    value = line.substr(colon + 2);
    return true;
}

uint32_t Number(const std::string &text) {
    return uint32_t(std::strtoul(text.c_str(), nullptr, 0));
}

// "name (0x1F)" -> name and the number in parentheses.
void NameAndNumber(const std::string &value, std::string &name, uint32_t &number) {
    const size_t open = value.rfind(" (");
    name = open == std::string::npos ? value : value.substr(0, open);
    number = open == std::string::npos ? 0 : Number(value.substr(open + 2));
}

std::string HexBytes(const std::string &value) {
    std::string hex;
    for (char c : value)
        if (std::isxdigit(static_cast<unsigned char>(c)))
            hex += char(std::tolower(static_cast<unsigned char>(c)));
    return hex;
}

std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(Trim(line));
    return lines;
}

} // namespace

CodeViewDump ParseCodeView(const std::string &output) {
    CodeViewDump dump;
    enum class In { Nothing, Types, Symbols } in = In::Nothing;
    SymbolSection *section = nullptr;
    Symbol *symbol = nullptr;
    bool inEntries = false;
    Checksum *checksum = nullptr;
    LineTable *table = nullptr;
    LineSegment *segment = nullptr;
    TypeRecord *type = nullptr;
    uint32_t pairOffset = 0;

    for (const std::string &line : Lines(output)) {
        std::string key, value;
        if (line == "CodeViewTypes [") {
            in = In::Types;
            continue;
        }
        if (line == "CodeViewDebugInfo [") {
            in = In::Symbols;
            dump.symbolSections.emplace_back();
            section = &dump.symbolSections.back();
            symbol = nullptr;
            checksum = nullptr;
            table = nullptr;
            segment = nullptr;
            continue;
        }
        if (in == In::Types) {
            // "Procedure (0x1001) {"
            if (EndsWith(line, ") {")) {
                dump.types.emplace_back();
                type = &dump.types.back();
                std::string name;
                NameAndNumber(line.substr(0, line.size() - 2), name, type->index);
                type->fields["Record"] = name;
            } else if (type && KeyValue(line, key, value)) {
                type->fields[key] = value;
            }
            continue;
        }
        if (in != In::Symbols || !section)
            continue;

        if (StartsWith(line, "Section: ") && section->sectionNumber == 0) {
            std::string name;
            uint32_t number = 0;
            NameAndNumber(line.substr(9), name, number);
            section->sectionNumber = int(number);
        } else if (StartsWith(line, "SubSectionType: ")) {
            std::string name;
            uint32_t kind = 0;
            NameAndNumber(line.substr(16), name, kind);
            section->subsections.push_back(kind);
            symbol = nullptr;
            checksum = nullptr;
        } else if (line == "FileChecksum {") {
            section->checksums.emplace_back();
            checksum = &section->checksums.back();
            symbol = nullptr;
        } else if (line == "FunctionLineTable [") {
            section->lineTables.emplace_back();
            table = &section->lineTables.back();
            segment = nullptr;
            checksum = nullptr;
            symbol = nullptr;
        } else if (table && line == "FilenameSegment [") {
            table->segments.emplace_back();
            segment = &table->segments.back();
        } else if (segment && StartsWith(line, "+0x") && EndsWith(line, " [")) {
            pairOffset = Number(line.substr(1, line.size() - 3));
        } else if (segment && StartsWith(line, "LineNumberStart: ")) {
            segment->lines.push_back({pairOffset, Number(line.substr(17))});
        } else if (segment && StartsWith(line, "Filename: ")) {
            NameAndNumber(line.substr(10), segment->filename, segment->checksumOffset);
        } else if (table && !segment && KeyValue(line, key, value)) {
            if (key == "LinkageName")
                table->linkageName = value;
            else if (key == "CodeSize")
                table->codeSize = Number(value);
        } else if (checksum && KeyValue(line, key, value)) {
            if (key == "Filename")
                NameAndNumber(value, checksum->filename, checksum->stringOffset);
            else if (key == "ChecksumKind")
                checksum->kind = value;
            else if (key == "ChecksumBytes")
                checksum->bytes = HexBytes(value);
        } else if (!table && !checksum && EndsWith(line, " {") &&
                   line.find(' ') == line.size() - 2) {
            section->symbols.emplace_back();
            symbol = &section->symbols.back();
            symbol->record = line.substr(0, line.size() - 2);
            inEntries = false;
        } else if (symbol && line == "Entries [") {
            inEntries = true;
        } else if (symbol && inEntries && line == "]") {
            inEntries = false;
        } else if (symbol && inEntries) {
            symbol->entries.push_back(line);
        } else if (symbol && KeyValue(line, key, value)) {
            symbol->fields[key] = value;
        }
    }
    return dump;
}

std::vector<Section> ParseSections(const std::string &output) {
    std::vector<Section> sections;
    enum class In { Nothing, Sections, Characteristics, Relocations, Symbols } in = In::Nothing;
    Section *current = nullptr;
    Relocation *relocation = nullptr;
    std::string symbolSection;
    auto byNumber = [&](int number) -> Section * {
        for (Section &s : sections)
            if (s.number == number)
                return &s;
        return nullptr;
    };
    for (const std::string &line : Lines(output)) {
        std::string key, value;
        if (line == "Sections [") {
            in = In::Sections;
        } else if (line == "Relocations [") {
            in = In::Relocations;
        } else if (line == "Symbols [") {
            in = In::Symbols;
        } else if (in == In::Sections || in == In::Characteristics) {
            if (line == "Section {") {
                sections.emplace_back();
                current = &sections.back();
                in = In::Sections;
            } else if (current && StartsWith(line, "Characteristics [")) {
                in = In::Characteristics;
            } else if (in == In::Characteristics && line == "]") {
                in = In::Sections;
            } else if (in == In::Characteristics && current) {
                current->characteristics.push_back(line.substr(0, line.find(' ')));
            } else if (current && KeyValue(line, key, value)) {
                if (key == "Number")
                    current->number = int(Number(value));
                else if (key == "Name")
                    current->name = value.substr(0, value.find(" ("));
            }
        } else if (in == In::Relocations) {
            // "Section (4) .debug$S {"
            if (StartsWith(line, "Section (")) {
                current = byNumber(int(Number(line.substr(9))));
                relocation = nullptr;
            } else if (line == "Relocation {" && current) {
                current->relocations.emplace_back();
                relocation = &current->relocations.back();
            } else if (relocation && KeyValue(line, key, value)) {
                if (key == "Offset")
                    relocation->offset = Number(value);
                else if (key == "Type") {
                    std::string name;
                    NameAndNumber(value, name, relocation->type);
                } else if (key == "Symbol")
                    relocation->symbol = value;
            }
        } else if (in == In::Symbols) {
            if (line == "Symbol {") {
                symbolSection.clear();
            } else if (KeyValue(line, key, value)) {
                if (key == "Section") {
                    symbolSection = value;
                } else if (key == "Selection" || key == "AssocSection") {
                    std::string name;
                    uint32_t number = 0;
                    NameAndNumber(symbolSection, name, number);
                    if (Section *s = byNumber(int(number))) {
                        if (key == "Selection")
                            s->selection = value;
                        else
                            s->associatedSection = value.substr(0, value.find(" ("));
                    }
                }
            }
        }
    }
    return sections;
}

} // namespace cvdump
