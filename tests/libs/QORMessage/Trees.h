// Helpers for tests of messages: trees from notation, and a picture of a tree that tells every difference.
#pragma once

#include <string>
#include <string_view>

#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORMessage.h"
#include "QORMessage/QORNotation.h"

namespace QOR::test {

inline QORMessage treeOf(std::string_view notation) {
    QORMessage message;
    readElement(notation, message);
    return message;
}

inline std::string notationOf(const QORMessage& message) {
    std::string out;
    writeElement(*message.rootNode(), out);
    return out;
}

/// Tag, depth, kind and value of each element, one a line, in document order.
inline std::string picture(const QORMessage& message) {
    std::string out;
    const QORMessageNode* node = message.rootNode();
    for (;;) {
        out += std::to_string(node->depth) + " " + std::to_string(node->tag) + " " +
               std::to_string(static_cast<int>(node->kind)) + " ";
        out.append(node->data == nullptr ? "" : node->data, node->size);
        out += '\n';
        if (node->firstChild != nullptr) {
            node = node->firstChild;
            continue;
        }
        while (node != nullptr && node->next == nullptr)
            node = node->parent;
        if (node == nullptr) return out;
        node = node->next;
    }
}

}  // namespace QOR::test
