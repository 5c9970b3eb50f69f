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
