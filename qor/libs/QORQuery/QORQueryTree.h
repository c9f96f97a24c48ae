/// \file
/// What the parser of row conditions builds: a tree whose nodes are numbered, so that a tree of any shape is taken
/// down without recursion and lists are joined at no cost.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORTags.h"

namespace QOR {

/// Elements of a where tree. One thread; nodes live as long as the tree.
class QORQueryTree {
public:
    using Id = std::uint32_t;
    static constexpr Id none = 0;

    QORQueryTree() : m_nodes(1) {}

    /// A leaf with a text.
    Id leaf(QORTag tag, std::string text);
    /// An element without text or children so far.
    Id node(QORTag tag);
    void append(Id parent, Id child);
    /// Moves the children of `from` behind those of `to`.
    void adopt(Id to, Id from);

    QORTag tag(Id id) const { return m_nodes[id].tag; }
    Id firstChild(Id id) const { return m_nodes[id].first; }
    /// The one behind it below the same parent.
    Id nextSibling(Id id) const { return m_nodes[id].next; }
    const std::string& text(Id id) const { return m_nodes[id].text; }
    void setText(Id id, std::string text) { m_nodes[id].text = std::move(text); }
    /// Levels of elements that the node takes, itself included.
    std::size_t height(Id id) const { return m_nodes[id].height; }

    /// Writes the node below the element that `out` stands on. The height bounds how deep this goes.
    void write(Id id, QORBinaryIterator out) const;

private:
    struct Node {
        QORTag tag = 0;
        Id first = none;
        Id last = none;
        Id next = none;
        std::uint32_t height = 1;
        bool hasText = false;
        std::string text;
    };

    Id add(Node node);

    std::vector<Node> m_nodes;  ///< the first stands for "none"
};

}  // namespace QOR
