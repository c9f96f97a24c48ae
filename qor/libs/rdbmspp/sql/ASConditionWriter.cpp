#include "rdbmspp/sql/ASConditionWriter.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "QORCommon/QORNumbers.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/sql/ASNodes.h"
#include "rdbmspp/sql/ASSqlBuilder.h"
#include "rdbmspp/sql/ASSqlText.h"
#include "rdbmspp/sql/ASTypedTerms.h"

namespace QOR {

namespace {

using Node = ASComparison::Node;
using Index = std::uint32_t;
constexpr Index none = UINT32_MAX;

// Terms of a chain that stand beside each other before they are put into brackets of their own: an expression of
// SQLite has 1,000 levels, and each further term of a chain is one.
constexpr Index groupSize = 100;
// Beside a deep part, fewer do: every level of it has the terms of its chain on top.
constexpr Index turnedGroupSize = 8;
// What the natural order may cost the parser before the condition is turned. A select that is nested in another does
// not know how deep it will stand, so it stays modest.
constexpr std::size_t naturalDepth = 24;
// A condition that shares its parts could otherwise grow without bound when it is laid out.
constexpr std::size_t maxTerms = 5'000'000;

constexpr std::size_t heightOfTerm = 4;    // levels of a comparison
constexpr std::size_t costOfOperator = 2;  // "a AND"
constexpr std::size_t costOfBracket = 1;   // "("
constexpr std::size_t costOfNot = 2;       // "NOT ("
constexpr std::size_t costOfColumn = 3;    // "v"."c"
constexpr std::size_t costOfSelect = 6;    // what the select itself holds while its condition is read
constexpr std::size_t costOfAmong = 4;     // "qor_among(", and a comma
constexpr std::size_t costOfWhen = 3;      // "CASE WHEN"
constexpr std::size_t costOfThen = 5;      // "CASE WHEN a THEN"
// What a restriction puts around a condition: a guard, in brackets of its own and of its group, in a longer chain.
constexpr std::size_t depthOfRestriction = costOfThen + 3;
constexpr std::size_t heightOfRestriction = 6;
// "CASE WHEN length(CAST(": what bounds a pattern that is no literal.
constexpr std::size_t costOfPattern = 9;

/// A condition laid flat, comparisons, chains, nots and guards. Parts stand in one vector, parents before their
/// children.
struct Part {
    const Node* node = nullptr;  ///< a comparison; null for chains and nots
    Node::Kind kind = Node::Kind::And;
    bool negated = false;  ///< of a comparison
    Index first = none;    ///< children, linked by next
    Index last = none;
    Index next = none;
    Index children = 0;
    bool asked = false;      ///< a guard whose condition has a CASE of its own
    bool grouped = false;    ///< a chain whose terms stand in brackets of groupSize
    Index ungrouped = 0;     ///< terms before the first group
    std::size_t depth = 0;   ///< entries of the parser's stack above the part's own start
    std::size_t height = 0;  ///< levels of the expression

    bool startsGroup(Index term) const noexcept {
        return grouped && term >= ungrouped && (term - ungrouped) % groupSize == 0;
    }
};

std::size_t depthOf(const ASAttribute& operand) {
    if (operand.isColumn()) return costOfColumn;
    const auto& select = operand.nestedSelect();
    return costOfBracket + (select ? select->parserDepth() : parserDepthOf(operand.name()));
}

// Operands are read one after the other; what was read of the comparison before one is held meanwhile.
std::size_t depthOfTerm(const Node& node) {
    std::size_t depth = node.first ? depthOf(*node.first) : 0;
    if (node.second) depth = std::max(depth, costOfOperator + depthOf(*node.second));
    if (node.third) depth = std::max(depth, 2 * costOfOperator + depthOf(*node.third));
    switch (node.kind) {
        case Node::Kind::Raw:
            return costOfNot + parserDepthOf(node.value.text);
        case Node::Kind::In:
            if (node.untyped) depth += costOfAmong;
            return std::max(depth, costOfOperator + costOfBracket + parserDepthOf(node.value.text));
        case Node::Kind::LikeAttribute:
            return depth + costOfOperator + costOfPattern;
        case Node::Kind::LikeText:
            return std::max(depth, 2 * costOfOperator + costOfBracket);
        default:
            return std::max(depth, costOfOperator + costOfBracket);
    }
}

class Layout {
public:
    enum class Form { Natural, Turned };

    /// \param asks whether what stands behind guards has a CASE of its own
    Layout(const Node& root, Form form, bool asks) : m_form(form), m_asks(asks) {
        lay(root);
        for (std::size_t i = m_parts.size(); i-- > 0;)
            measure(m_parts[i]);
    }
    const std::vector<Part>& parts() const noexcept { return m_parts; }
    std::size_t depth() const noexcept { return m_parts.front().depth; }
    std::size_t height() const noexcept { return m_parts.front().height; }

private:
    struct Pending {
        const Node* node;
        Index parent;
        bool negated;
    };

    void lay(const Node& root);
    Index add(const Pending& pending, const Part& part);
    void layChain(const Pending& pending);
    void layGuard(const Pending& pending);
    void measure(Part& part);
    void group(Part& part);
    void measureChain(Part& part);
    void sortByDepth(Part& part);

    Form m_form;
    bool m_asks;
    std::vector<Part> m_parts;
    std::vector<Pending> m_pending;
};

void Layout::lay(const Node& root) {
    m_pending.push_back({&root, none, false});
    while (!m_pending.empty()) {
        const Pending pending = m_pending.back();
        m_pending.pop_back();
        if (m_parts.size() > maxTerms) throw AException("the condition has too many terms");
        const Node& node = *pending.node;
        if (node.isChain()) {
            layChain(pending);
        } else if (node.kind == Node::Kind::Guard) {
            layGuard(pending);
        } else if (node.kind != Node::Kind::Not) {
            Part part;
            part.node = &node;
            part.kind = node.kind;
            part.negated = pending.negated;
            add(pending, part);
        } else if (m_form == Form::Turned) {
            m_pending.push_back({node.left.get(), pending.parent, !pending.negated});
        } else {
            Part part;
            part.kind = Node::Kind::Not;
            const Index index = add(pending, part);
            m_pending.push_back({node.left.get(), index, false});
        }
    }
}

Index Layout::add(const Pending& pending, const Part& part) {
    const auto index = static_cast<Index>(m_parts.size());
    m_parts.push_back(part);
    if (pending.parent == none) return index;
    Part& parent = m_parts[pending.parent];
    if (parent.last == none) {
        parent.first = index;
    } else {
        m_parts[parent.last].next = index;
    }
    parent.last = index;
    ++parent.children;
    return index;
}

void Layout::layChain(const Pending& pending) {
    const Node& node = *pending.node;
    Node::Kind kind = node.kind;
    if (pending.negated) kind = kind == Node::Kind::And ? Node::Kind::Or : Node::Kind::And;
    Index index = pending.parent;
    if (index == none || m_parts[index].kind != kind) {
        Part part;
        part.kind = kind;
        index = add(pending, part);
    }
    m_pending.push_back({node.right.get(), index, pending.negated});
    m_pending.push_back({node.left.get(), index, pending.negated});
}

// Stands among the terms of a chain or alone; there is none under a not.
void Layout::layGuard(const Pending& pending) {
    Part part;
    part.kind = Node::Kind::Guard;
    part.asked = m_asks;
    const Index index = add(pending, part);
    m_pending.push_back({pending.node->right.get(), index, false});
    m_pending.push_back({pending.node->left.get(), index, false});
}

void Layout::measure(Part& part) {
    if (part.node) {
        part.depth = depthOfTerm(*part.node);
        part.height = heightOfTerm;
    } else if (part.kind == Node::Kind::Not) {
        part.depth = costOfNot + m_parts[part.first].depth;
        part.height = 1 + m_parts[part.first].height;
    } else if (part.kind == Node::Kind::Guard) {
        part.depth = std::max(costOfWhen + m_parts[part.first].depth,
                              costOfThen + (part.asked ? costOfWhen : 0) + m_parts[part.last].depth);
        part.height = 1 + std::max(m_parts[part.first].height, m_parts[part.last].height + (part.asked ? 1 : 0));
    } else {
        if (m_form == Form::Turned) sortByDepth(part);
        group(part);
        measureChain(part);
    }
}

void Layout::group(Part& part) {
    const bool turned = m_form == Form::Turned;
    part.grouped = part.children > (turned ? turnedGroupSize : groupSize);
    part.ungrouped = turned ? 1 : 0;
}

void Layout::measureChain(Part& part) {
    // An operator binds what is left of it first, so a term is as many levels down as terms follow it, within its
    // group and then in groups.
    const Index groups = part.grouped ? (part.children - part.ungrouped + groupSize - 1) / groupSize : 0;
    const Index beside = part.grouped ? groupSize + groups : part.children;
    std::size_t before = part.grouped && part.ungrouped == 0 ? costOfBracket : 0;
    for (Index i = part.first; i != none; i = m_parts[i].next) {
        const bool alone = i == part.first && part.grouped && part.ungrouped == 1;
        part.height = std::max(part.height, m_parts[i].height + (alone ? groups : beside));
        part.depth = std::max(part.depth, before + costOfBracket + m_parts[i].depth);
        before = part.grouped ? 2 * costOfOperator + costOfBracket : costOfOperator;
    }
}

// The deepest child first: there only its own bracket is held while it is read. The others keep their order.
void Layout::sortByDepth(Part& part) {
    Index deepest = part.first;
    Index beforeDeepest = none;
    for (Index i = part.first; m_parts[i].next != none; i = m_parts[i].next) {
        if (m_parts[m_parts[i].next].depth > m_parts[deepest].depth) {
            deepest = m_parts[i].next;
            beforeDeepest = i;
        }
    }
    if (deepest == part.first) return;
    m_parts[beforeDeepest].next = m_parts[deepest].next;
    if (part.last == deepest) part.last = beforeDeepest;
    m_parts[deepest].next = part.first;
    part.first = deepest;
}

Node::Op opposite(Node::Op op) {
    switch (op) {
        case Node::Op::Eq:
            return Node::Op::Ne;
        case Node::Op::Ne:
            return Node::Op::Eq;
        case Node::Op::Gt:
            return Node::Op::Le;
        case Node::Op::Ge:
            return Node::Op::Lt;
        case Node::Op::Lt:
            return Node::Op::Ge;
        case Node::Op::Le:
            break;
    }
    return Node::Op::Gt;
}

// A column of decimals keeps whole numbers that no number of floating point is.
const ASValue& exactValue(ASSqlBuilder& b, const Node& node) {
    if (node.value.kind != ASValue::Kind::Real || node.first->storage() != ASStorage::Decimal) return node.value;
    const auto whole = parseInt64(node.value.text);
    return whole ? b.keep(ASValue::ofInteger(*whole)) : node.value;
}

void writeValue(ASSqlBuilder& b, const Node& node) {
    if (!node.opaque) return b.value(exactValue(b, node));
    b.append(b.dialect().opaqueBegin);
    b.value(node.value);
    b.append(b.dialect().opaqueEnd);
}

// The engine takes an in of one item for an equality, and then sees nothing but the item.
void writeOpaqueIn(ASSqlBuilder& b, const Node& node) {
    b.operand(*node.first);
    b.append(" = ");
    b.append(b.dialect().opaqueBegin);
    b.append(node.value.text);
    b.append(b.dialect().opaqueEnd);
}

/// As texts, whatever type is declared for the column. A list of one or two items is no list to SQLite but comparisons.
/// It is a term of a restriction, which negates none.
void writeUntypedIn(ASSqlBuilder& b, const Node& node) {
    constexpr std::size_t guidLength = 36;
    constexpr std::size_t fewItems = 2;
    const ASDialect& dialect = b.dialect();
    const std::string items = joinedItems(node.value.text, guidLength);
    if (items.size() <= fewItems * guidLength) {
        b.append(dialect.untyped);
        return b.in(*node.first, node.value.text, false);
    }
    b.append(dialect.among);
    b.append("(");
    b.operand(*node.first);
    b.append(", '");
    b.append(items);
    b.append("')");
}

// Nothing is turned for an engine that tells types apart: its parser takes a condition of any depth.
void writeTerm(ASSqlBuilder& b, const Node& node, bool negated) {
    if (b.dialect().typed) return ASTypedTerms(b).term(node);
    const char* op = operatorText(negated ? opposite(node.op) : node.op);
    switch (node.kind) {
        case Node::Kind::Raw:
            b.append(negated ? "NOT (" : "(");
            b.append(node.value.text);
            b.append(")");
            break;
        case Node::Kind::Attributes:
            b.operand(*node.first);
            b.append(op);
            b.operand(*node.second);
            break;
        case Node::Kind::Value:
            b.operand(*node.first);
            b.append(op);
            writeValue(b, node);
            break;
        case Node::Kind::Values:
            b.value(node.value);
            b.append(op);
            b.value(node.other);
            break;
        case Node::Kind::LikeText:
            b.like(*node.first, nullptr, node.value, node.escape, negated);
            break;
        case Node::Kind::LikeAttribute:
            b.like(*node.first, &*node.second, node.value, node.escape, negated);
            break;
        case Node::Kind::Between:
            b.operand(*node.first);
            b.append(negated ? " NOT BETWEEN " : " BETWEEN ");
            b.operand(*node.second);
            b.append(" AND ");
            b.operand(*node.third);
            break;
        case Node::Kind::In:
            if (node.opaque) return writeOpaqueIn(b, node);
            if (node.second) return b.in(*node.first, *node.second->nestedSelect(), negated);
            if (node.untyped) return writeUntypedIn(b, node);
            b.in(*node.first, node.value.text, negated);
            break;
        case Node::Kind::IsNull:
            b.operand(*node.first);
            b.append(negated ? " IS NOT NULL" : " IS NULL");
            break;
        case Node::Kind::And:
        case Node::Kind::Or:
        case Node::Kind::Not:
        case Node::Kind::Guard:
            break;
    }
}

class Writer {
public:
    Writer(ASSqlBuilder& builder, const std::vector<Part>& parts) : m_builder(builder), m_parts(parts) {}
    void write();

private:
    struct Frame {
        Index part;
        Index child;  ///< the next to write
        Index written;
        bool brackets;
    };

    void open(Index index, bool brackets);
    void step();
    void separate(const Frame& frame);
    void close(const Frame& frame);
    ASSqlBuilder& m_builder;
    const std::vector<Part>& m_parts;
    std::vector<Frame> m_frames;
};

void Writer::write() {
    open(0, false);
    while (!m_frames.empty())
        step();
}

void Writer::open(Index index, bool brackets) {
    const Part& part = m_parts[index];
    if (part.node) {
        writeTerm(m_builder, *part.node, part.negated);
        return;
    }
    if (part.kind == Node::Kind::Not) {
        m_builder.append("NOT ");
        brackets = true;
    }
    if (part.kind == Node::Kind::Guard) {
        m_builder.append("CASE WHEN ");
        brackets = false;
    }
    if (brackets) m_builder.append("(");
    m_frames.push_back({index, part.first, 0, brackets});
}

void Writer::step() {
    Frame& frame = m_frames.back();
    const Part& part = m_parts[frame.part];
    if (frame.child == none) {
        close(frame);
        m_frames.pop_back();
        return;
    }
    separate(frame);
    const Index child = frame.child;
    frame.child = m_parts[child].next;
    ++frame.written;
    const bool bracketed = part.kind == Node::Kind::Not || part.kind == Node::Kind::Guard;
    if (bracketed && m_parts[child].kind == Node::Kind::Raw) return m_builder.append(m_parts[child].node->value.text);
    open(child, !bracketed);
}

void Writer::separate(const Frame& frame) {
    const Part& part = m_parts[frame.part];
    if (part.kind == Node::Kind::Guard) {
        if (frame.written > 0) m_builder.append(part.asked ? " THEN CASE WHEN " : " THEN ");
        return;
    }
    const bool group = part.startsGroup(frame.written);
    if (frame.written > 0) {
        if (group && frame.written > part.ungrouped) m_builder.append(")");
        m_builder.append(part.kind == Node::Kind::And ? " AND " : " OR ");
    }
    if (group) m_builder.append("(");
}

void Writer::close(const Frame& frame) {
    if (m_parts[frame.part].grouped) m_builder.append(")");
    if (frame.brackets) m_builder.append(")");
    if (m_parts[frame.part].kind == Node::Kind::Guard)
        m_builder.append(m_parts[frame.part].asked ? " THEN 1 = 1 END END" : " END");
}

void refuse(const ASDialect& dialect) {
    throw AException(std::string("the condition is nested too deeply for ") + dialect.name);
}

}  // namespace

// Where there is room for it, what stands behind a guard has a CASE of its own: as a value SQLite would have to tell
// false from null, which costs a nested select further searches. Of a select that is nested nobody knows the room.
void writeCondition(ASSqlBuilder& builder, const Node& root) {
    if (root.kind == Node::Kind::Raw) return builder.append(root.value.text);
    const ASDialect& dialect = builder.dialect();
    const bool asks = !builder.isNested();
    const Layout natural(root, Layout::Form::Natural, asks);
    const bool shallow = natural.depth() <= naturalDepth && natural.height() <= dialect.expressionDepth / 2;
    if (dialect.parserDepth == 0 || shallow) {
        Writer(builder, natural.parts()).write();
        return;
    }
    const auto fits = [&dialect](const Layout& layout) {
        return layout.depth() + costOfSelect <= dialect.parserDepth && layout.height() <= dialect.expressionDepth;
    };
    Layout turned(root, Layout::Form::Turned, asks);
    if (asks && !fits(turned)) turned = Layout(root, Layout::Form::Turned, false);
    if (!fits(turned)) refuse(dialect);
    Writer(builder, turned.parts()).write();
}

void checkCondition(const ASDialect& dialect, const Node& root) {
    if (dialect.parserDepth == 0 || root.kind == Node::Kind::Raw) return;
    const Layout turned(root, Layout::Form::Turned, false);
    if (turned.depth() + costOfSelect + depthOfRestriction > dialect.parserDepth ||
        turned.height() + heightOfRestriction > dialect.expressionDepth) {
        refuse(dialect);
    }
}

}  // namespace QOR
