// What llvm-readobj-14 prints, as the tree its indentation shows: a line that ends in "{" or
// "[" (or "[ (flags)") opens a node named by the text before it, "}" and "]" close it, a
// "Key: value" line is a leaf, and any other line (an item of a list) is a leaf named by its text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace readobj {

struct Node {
    std::string name;  // "Subsection", "Procedure (0x1001)", "ObjectName", "cwd"
    std::string value; // of a "Key: value" line, or the flags after "Name [ "
    std::vector<Node> children;

    // The first child named `name`, or an empty node.
    const Node &Child(const std::string &name) const;
    // The value of the first child named `key`, or "<no KEY>".
    std::string Field(const std::string &key) const;
    // The children named `name`; with no name, the children that open nodes of their own (the
    // records of a list such as a symbols subsection or the type section).
    std::vector<const Node *> Children(const std::string &name = "") const;
    // Every node below this one, at any depth, named `name`, in the order printed.
    std::vector<const Node *> Find(const std::string &name) const;
    // The names of the children, in order.
    std::vector<std::string> Names() const;
};

Node Parse(const std::string &output);

// The number in the last parentheses of a value: "Symbols (0xF1)" gives 0xF1, "x.asm (0x18)"
// gives 0x18; the value itself when it is a plain number ("0x1C", "12").
uint64_t Number(const std::string &value);
// The value without its last parenthesised part: "x.asm (0x18)" gives "x.asm", "(0)" gives "".
std::string WithoutNumber(const std::string &value);

} // namespace readobj
