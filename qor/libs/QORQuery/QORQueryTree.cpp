#include "QORQuery/QORQueryTree.h"

#include <algorithm>

#include "QORCommon/QORException.h"

namespace QOR {
namespace {

void require(int status) {
    if (status != 0) throw QORException(errBadRequest, "the request is larger than a message may be");
}

}  // namespace

QORQueryTree::Id QORQueryTree::add(Node node) {
    m_nodes.push_back(std::move(node));
    return static_cast<Id>(m_nodes.size() - 1);
}

QORQueryTree::Id QORQueryTree::leaf(QORTag tag, std::string text) {
    Node node;
    node.tag = tag;
    node.hasText = true;
    node.text = std::move(text);
    return add(std::move(node));
}

QORQueryTree::Id QORQueryTree::node(QORTag tag) {
    Node node;
    node.tag = tag;
    return add(std::move(node));
}

void QORQueryTree::append(Id parent, Id child) {
    Node& node = m_nodes[parent];
    (node.last == none ? node.first : m_nodes[node.last].next) = child;
    node.last = child;
    node.height = std::max(node.height, m_nodes[child].height + 1);
}

void QORQueryTree::adopt(Id to, Id from) {
    Node& target = m_nodes[to];
    Node& source = m_nodes[from];
    (target.last == none ? target.first : m_nodes[target.last].next) = source.first;
    if (source.last != none) target.last = source.last;
    target.height = std::max(target.height, source.height);
    source.first = source.last = none;
}

void QORQueryTree::write(Id id, QORBinaryIterator out) const {
    const Node& node = m_nodes[id];
    if (node.hasText) return require(out.putValue(node.text, node.tag));
    require(out.addChild(node.tag));
    for (Id child = node.first; child != none; child = m_nodes[child].next)
        write(child, out);
}

}  // namespace QOR
