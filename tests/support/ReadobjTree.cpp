#include "support/ReadobjTree.h"

#include <cstdlib>
#include <sstream>

namespace readobj {

const Node &Node::Child(const std::string &name) const {
    static const Node none;
    for (const Node &child : children)
        if (child.name == name)
            return child;
    return none;
}

std::string Node::Field(const std::string &key) const {
    for (const Node &child : children)
        if (child.name == key)
            return child.value;
    return "<no " + key + ">";
}

std::vector<const Node *> Node::Children(const std::string &name) const {
    std::vector<const Node *> out;
    for (const Node &child : children)
        if (name.empty() ? !child.children.empty() : child.name == name)
            out.push_back(&child);
    return out;
}

std::vector<const Node *> Node::Find(const std::string &name) const {
    std::vector<const Node *> out;
    for (const Node &child : children) {
        if (child.name == name)
            out.push_back(&child);
        for (const Node *below : child.Find(name))
            out.push_back(below);
    }
    return out;
}

std::vector<std::string> Node::Names() const {
    std::vector<std::string> out;
    for (const Node &child : children)
        out.push_back(child.name);
    return out;
}

Node Parse(const std::string &output) {
    Node root;
    // Only the innermost open node takes children, so the pointers to its ancestors stay valid.
    std::vector<Node *> open = {&root};
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        const size_t first = line.find_first_not_of(' ');
        const size_t last = line.find_last_not_of(" \r");
        if (first == std::string::npos)
            continue;
        line = line.substr(first, last + 1 - first);
        if (line == "}" || line == "]") {
            if (open.size() > 1)
                open.pop_back();
            continue;
        }
        Node node;
        const size_t flags = line.find(" [ (");
        const bool opens = flags != std::string::npos || line.back() == '{' || line.back() == '[';
        const size_t colon = line.find(": ");
        if (flags != std::string::npos) {
            node.name = line.substr(0, flags);
            node.value = line.substr(flags + 3);
        } else if (opens) {
            node.name = line.substr(0, line.size() - 2);
        } else if (colon != std::string::npos) {
            node.name = line.substr(0, colon);
            node.value = line.substr(colon + 2);
        } else {
            node.name = line;
        }
        open.back()->children.push_back(std::move(node));
        if (opens)
            open.push_back(&open.back()->children.back());
    }
    return root;
}

uint64_t Number(const std::string &value) {
    const size_t open = value.rfind('(');
    const std::string digits = open == std::string::npos ? value : value.substr(open + 1);
    return std::strtoull(digits.c_str(), nullptr, 0);
}

std::string WithoutNumber(const std::string &value) {
    if (!value.empty() && value.front() == '(')
        return std::string(); // an empty name followed by its number
    const size_t open = value.rfind(" (");
    return open == std::string::npos ? value : value.substr(0, open);
}

} // namespace readobj
