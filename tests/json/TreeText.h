// The compact text of a value, a container or a message: trees are compared as exact strings.
#ifndef TESTS_JSON_TREETEXT_H_
#define TESTS_JSON_TREETEXT_H_

#include <string>

template <typename Tree>
std::string Text(const Tree& tree) {
    std::string out;
    tree.Serialize(out);
    return out;
}

#endif  // TESTS_JSON_TREETEXT_H_
