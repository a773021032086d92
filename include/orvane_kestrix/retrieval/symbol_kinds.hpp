#pragma once
// Kinds of symbol that hold others as rows of their own (classes, traits, namespaces...): the
// retriever describes such a symbol by its own lines, leaving out its members'.

#include <string_view>

namespace orvane_kestrix::retrieval {

inline bool holds_members(std::string_view kind) {
    return kind == "class" || kind == "interface" || kind == "struct" || kind == "trait" || kind == "enum" ||
           kind == "module" || kind == "namespace" || kind == "impl";
}

}  // namespace orvane_kestrix::retrieval
