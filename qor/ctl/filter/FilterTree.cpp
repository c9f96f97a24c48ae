#include "filter/FilterTree.h"

#include <vector>

#include "filter/FilterNames.h"
#include "output/TextWidth.h"

namespace QOR {
namespace {

constexpr std::size_t deepestLevel = 24;

std::string label(const TToken& token, const FilterNames& names) {
    std::string out;
    switch (token.tokenClass) {
        case tcIdentifier: {
            appendVisible(token.text, out);
            const std::string description = names.describe(token.text);
            return description.empty() ? out : out + "  (" + description + ")";
        }
        case tcOperator:
            if (token.type == ttUnaryMinus) return "-";
            return token.type == ttFunction ? token.text + "()" : token.text;
        default:
            return writeConstant(token);
    }
}

}  // namespace

std::string writeConstant(const TToken& token) {
    if (token.tokenClass == tcNumber) return token.text;
    std::string doubled;
    for (const char ch : token.text)
        doubled.append(ch == '\'' ? 2 : 1, ch);
    std::string out = "'";
    appendVisible(doubled, out);
    return out + "'";
}

std::string drawTree(const TNode& tree, const FilterNames& names) {
    struct Item {
        const TNode* node;
        std::size_t level;
        bool last;  ///< the last of its siblings
    };
    std::string out;
    std::vector<Item> items{{&tree, 0, true}};
    std::vector<bool> open;  // by level: whether siblings follow further down
    while (!items.empty()) {
        const Item item = items.back();
        items.pop_back();
        open.resize(item.level);
        for (std::size_t level = 1; level < item.level; ++level)
            out += open[level] ? "│  " : "   ";
        if (item.level > 0) out += item.last ? "└─ " : "├─ ";
        open.push_back(!item.last);
        if (item.level == deepestLevel && !item.node->children().empty()) {
            out += "... (" + std::to_string(item.node->postOrder().size()) + " more)\n";
            continue;
        }
        out.append(label(item.node->token(), names)).append("\n");
        // The first child is the rightmost operand, so pushing in order leaves the left one on top.
        bool last = true;
        for (const TNode& child : item.node->children()) {
            items.push_back({&child, item.level + 1, last});
            last = false;
        }
    }
    return out;
}

}  // namespace QOR
