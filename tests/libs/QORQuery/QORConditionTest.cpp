// Row conditions: what they become, and where a mistake is.
//
// Trees are written tersely: a field is its name, a value stands in single quotes, an escape behind a tilde, any other
// element is (name child ...).
#include "QORQuery/QORCondition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <string>
#include <string_view>

#include "QORCommon/QORException.h"
#include "QORCommon/QORTime.h"
#include "QORMessage/QORMessage.h"
#include "QORMessage/QORNotation.h"
#include "QORQuery/QORQueryError.h"
#include "support/LongTexts.h"

namespace QOR {
namespace {

using test::repeated;

constexpr std::size_t levels = 62;

void print(const QORMessageNode& node, std::string& out) {
    const std::string_view text = node.data == nullptr ? std::string_view() : std::string_view(node.data, node.size);
    switch (node.tag) {
        case tag::value:
            out.append("'").append(text) += '\'';
            return;
        case tag::escape:
            out.append("~").append(text);
            return;
        default:
            break;
    }
    if (node.kind == QORValueKind::Text) {
        out += text;
        return;
    }
    out.append("(").append(QORTagDictionary::instance().name(node.tag));
    for (const QORMessageNode* child = node.firstChild; child != nullptr; child = child->next) {
        out += ' ';
        print(*child, out);
    }
    out += ')';
}

/// The condition as a tree, or where and why there is none.
std::string parsed(std::string_view text, std::string_view view = "v") {
    QORMessage message;
    QORBinaryIterator at = message.root();
    at.addChild(tag::where);
    try {
        parseCondition(text, {.view = std::string(view), .levels = levels}, at);
    } catch (const QORQueryError& error) {
        return std::to_string(error.offset()) + ": " + error.what();
    }
    std::string out;
    const QORMessageNode* const where = message.rootNode()->firstChild;
    for (const QORMessageNode* child = where->firstChild; child != nullptr; child = child->next)
        print(*child, out);
    return out;
}

struct Case {
    const char* rule;
    const char* text;
    const char* tree;
};

class Condition : public testing::TestWithParam<Case> {};

TEST_P(Condition, BecomesItsTree) {
    EXPECT_EQ(parsed(GetParam().text), GetParam().tree) << GetParam().rule;
}

const Case conditions[] = {
    // comparisons
    {"equal", "a = 1", "(eq a '1')"},
    {"not equal has two spellings", "a <> 1 or a != 2", "(or (ne a '1') (ne a '2'))"},
    {"order comparisons", "a<1 and b<=2 and c>3 and d>=4", "(and (lt a '1') (le b '2') (gt c '3') (ge d '4'))"},
    {"a value may stand left", "5 < a", "(lt '5' a)"},
    {"two columns", "a = v.b", "(eq a v.b)"},
    {"two values", "'x' = 'x'", "(eq 'x' 'x')"},
    {"a quote is written twice", "a = 'it''s'", "(eq a 'it's')"},
    {"an empty text is a value", "a = ''", "(eq a '')"},
    {"numbers keep their spelling", "a in (1, -2, +3, 1.50, .5, 1e5, -1.5E-3, 007)",
     "(in a '1' '-2' '3' '1.50' '0.5' '1e5' '-1.5E-3' '007')"},
    {"blanks are free", "\ta=\n 'x  y' ", "(eq a 'x  y')"},
    {"none are needed", "a='x'and(b=2)or'y'=c", "(or (and (eq a 'x') (eq b '2')) (eq 'y' c))"},
    {"UTF-8 in texts and names", "größe = '三'", "(eq größe '三')"},
    // names
    {"names in double quotes", "\"and\" = 1 and \"a b\" = 2 and \"q\"\"q\" = 3",
     "(and (eq and '1') (eq a b '2') (eq q\"q '3'))"},
    {"a view in double quotes", "\"my view\".\"c\" = 1", "(eq my view.c '1')"},
    {"a column with a point is named with its view", "\"env.name\" = 1", "(eq v.env.name '1')"},
    {"a qualified column may hold points", "v.\"a.b\" = 1", "(eq v.a.b '1')"},
    {"words of nested selects and functions are names elsewhere",
     "limit = 1 and order = 2 and desc = 3 and upper = 4 and offset = 5 and time = 6",
     "(and (eq limit '1') (eq order '2') (eq desc '3') (eq upper '4') (eq offset '5') (eq time '6'))"},
    // functions
    {"upper and lower", "UPPER(a) = lower('X')", "(eq (function upper a) (function lower 'X'))"},
    {"functions nest", "upper(lower((a))) like 'x%'", "(like (function upper (function lower a)) 'x%')"},
    // the other comparisons
    {"like", "a like '%x_'", "(like a '%x_')"},
    {"like with escape", "a like '10!%' escape '!'", "(like a '10!%' ~!)"},
    {"not like", "a NOT LIKE 'x'", "(not (like a 'x'))"},
    {"like takes any operand", "a like b", "(like a b)"},
    {"between", "a between 1 and 2", "(between a '1' '2')"},
    {"the and of between is not the and of conditions", "a between 1 and 2 and b between c and d",
     "(and (between a '1' '2') (between b c d))"},
    {"not between", "a not between 1 and 2 or b = 3", "(or (not (between a '1' '2')) (eq b '3'))"},
    {"is null", "a is null", "(is_null a)"},
    {"is not null", "a is not null and b IS NULL", "(and (not (is_null a)) (is_null b))"},
    {"in", "a in ('x','y')", "(in a 'x' 'y')"},
    {"in with one item", "a in (1)", "(in a '1')"},
    {"not in", "a not in (1, b, upper(c))", "(not (in a '1' b (function upper c)))"},
    // logic
    {"and binds tighter than or", "a=1 or b=2 and c=3", "(or (eq a '1') (and (eq b '2') (eq c '3')))"},
    {"also from the left", "a=1 and b=2 or c=3", "(or (and (eq a '1') (eq b '2')) (eq c '3'))"},
    {"not binds tighter than and", "not a=1 and b=2", "(and (not (eq a '1')) (eq b '2'))"},
    {"not binds looser than comparisons", "not a = b", "(not (eq a b))"},
    {"not before an operand in parentheses", "not (a) = 1", "(not (eq a '1'))"},
    {"not before a condition in parentheses", "not (a = 1 or b = 2)", "(not (or (eq a '1') (eq b '2')))"},
    {"two nots are none", "not not a = 1 and not not not b = 2", "(and (eq a '1') (not (eq b '2')))"},
    {"a not of a negated comparison is none", "not a is not null", "(is_null a)"},
    {"parentheses change the order", "(a=1 or b=2) and c=3", "(and (or (eq a '1') (eq b '2')) (eq c '3'))"},
    {"a chain is one element whatever its parentheses", "(a=1 and b=2) and (c=3 and (d=4 and e=5))",
     "(and (eq a '1') (eq b '2') (eq c '3') (eq d '4') (eq e '5'))"},
    {"operands in parentheses", "((a)) = (1) and ((b)) in ((2)) and (c) between (3) and (4)",
     "(and (eq a '1') (in b '2') (between c '3' '4'))"},
    {"keywords in any case", "A Like 'x' ANd nOT b Is NULL", "(and (like A 'x') (not (is_null b)))"},
    // nested selects
    {"a nested select", "eid in (select eid from vOpLog)", "(in eid (select vOpLog eid))"},
    {"beside other items", "eid not in ('x', select eid from w)", "(not (in eid 'x' (select w eid)))"},
    {"with all its parts",
     "eid in (select distinct eid from w where a = 1 or b = v.c order by a desc, b asc, c limit 5 offset 2)",
     "(in eid (select w eid (distinct) (where (or (eq a '1') (eq b v.c))) (sort a (descending)) (sort b) (sort c) "
     "(limit 5 2)))"},
    {"with an aggregate", "time in (select avg(time) from w)", "(in time (select w (field (function average time))))"},
    {"its column may name its view", "eid in (select W.eid from w)", "(in eid (select w eid))"},
    {"its columns with points are named with its view", "e in (select e from w where \"a.b\" = 1) and \"c.d\" = 2",
     "(and (in e (select w e (where (eq w.a.b '1')))) (eq v.c.d '2'))"},
    {"selects nest", "a in (select b from w where c in (select d from x where e = v.f))",
     "(in a (select w b (where (in c (select x d (where (eq e v.f)))))))"},
};
INSTANTIATE_TEST_SUITE_P(QORCondition, Condition, testing::ValuesIn(conditions));

class Mistake : public testing::TestWithParam<Case> {};

TEST_P(Mistake, IsNamedWithItsPlace) {
    EXPECT_EQ(parsed(GetParam().text), GetParam().tree) << GetParam().rule;
}

const Case mistakes[] = {
    {"nothing", "", "0: expected a column or a value, found the end of the text"},
    {"blanks only", "  ", "2: expected a column or a value, found the end of the text"},
    {"a column alone", "a",
     "1: expected a comparison (=, <>, <, <=, >, >=, like, in, between, is), found the end of the text"},
    {"a column alone in parentheses", "(a",
     "2: expected a comparison (=, <>, <, <=, >, >=, like, in, between, is) or \")\", found the end of the text"},
    {"no right side", "a = ", "4: expected a column or a value, found the end of the text"},
    {"two comparisons", "a = 1 = 2", "6: expected \"and\", \"or\" or the end of the text, found \"=\""},
    {"two conditions", "a = 1 b = 2", "6: expected \"and\", \"or\" or the end of the text, found \"b\""},
    {"a text behind a condition", "a = 1 'x'",
     "6: expected \"and\", \"or\" or the end of the text, found the text \"x\""},
    {"and at the end", "a = 1 and", "9: expected a column or a value, found the end of the text"},
    {"and at the beginning", "and a = 1",
     "0: expected a column or a value, found the word \"and\"; a name spelled like it stands in double quotes"},
    {"open parenthesis", "x = 1 and (a = 1", "10: the parenthesis that opens here is never closed"},
    {"parenthesis too many", "a = 1)", "5: expected \"and\", \"or\" or the end of the text, found \")\""},
    {"something else in parentheses", "(a = 1 b)", "7: expected \"and\", \"or\" or \")\", found \"b\""},
    {"empty parentheses", "()", "1: expected a column or a value, found \")\""},
    {"text without end", "a = 'x", "4: the text that begins here has no closing single quote"},
    {"name without end", "\"a = 1", "0: the name that begins here has no closing double quote"},
    {"empty name", "\"\" = 1", "0: the name is empty"},
    {"no such sign", "a == 1", "2: \"==\" is not an operator; equality is written \"=\""},
    {"nor this", "a && b", "2: \"&&\" is not an operator; it is written \"and\""},
    {"a stray character", "a = #", "4: \"#\" has no meaning here"},
    {"a stray character of several bytes", "\xE2\x82\xAC",
     "3: expected a comparison (=, <>, <, <=, >, >=, like, in, between, is), found the end of the text"},
    {"no number", "a = 12ab",
     "4: \"12ab\" is neither a number nor a duration such as 7d; a text is written in single quotes"},
    {"no number either", "a = 1.2.3",
     "4: \"1.2.3\" is neither a number nor a duration such as 7d; a text is written in single quotes"},
    {"an unfinished exponent", "a = 1e",
     "4: \"1e\" is neither a number nor a duration such as 7d; a text is written in single quotes"},
    {"a sign alone", "a = -b", "5: expected a number after the sign, found \"b\""},
    {"arithmetic", "a + 1 = 2", "2: a condition does not calculate; expected a comparison"},
    {"equal to null", "a = null", "4: nothing equals null; write \"is null\" or \"is not null\""},
    {"null in a list", "a in (null)",
     "6: expected a column or a value, found the word \"null\"; a name spelled like it stands in double quotes"},
    {"is something", "a is 5", "5: expected \"null\" or \"not null\", found \"5\""},
    {"is not something", "a is not 5", "9: expected \"null\", found \"5\""},
    {"not without more", "a not 5", "6: expected \"like\", \"in\" or \"between\" after \"not\", found \"5\""},
    {"empty list", "a in ()", "6: expected a column or a value, found \")\""},
    {"no list", "a in 5", "5: expected \"(\" and a list, found \"5\""},
    {"open list", "a in (1, 2", "5: the list that opens here is never closed"},
    {"list without comma", "a in (1 2)", "8: expected \",\" or \")\", found \"2\""},
    {"between without and", "a between 1 or 2", "12: expected \"and\", found \"or\""},
    {"escape of two characters", "a like 'x' escape 'ab'",
     "18: expected one ASCII character in single quotes, found the text \"ab\""},
    {"escape outside ASCII", "a like 'x' escape '\xC3\xA9'",
     "18: expected one ASCII character in single quotes, found the text \"\xC3\xA9\""},
    {"escape without text", "a like 'x' escape",
     "17: expected one ASCII character in single quotes, found the end of the text"},
    {"unknown function", "count(a) > 1",
     "0: a condition knows the functions upper(), lower(), now() and current_eid() only, found \"count\""},
    {"function of nothing", "upper() = 1", "6: expected a column or a value, found \")\""},
    {"function of two", "upper(a, b) = 1", "7: expected \")\", found \",\""},
    {"open function", "upper(a", "0: the parenthesis of this operand is never closed"},
    {"three names", "a.b.c = 1", "3: a column is named as \"column\" or \"view.column\""},
    {"a view with a point", "\"a.b\".c = 1", "0: a view whose name holds a point cannot qualify a column"},
    {"a view alone", "v. = 1", "3: expected a column, found \"=\""},
    {"a select as operand", "a = (select b from w)", "5: a nested select can stand only in the list of \"in\""},
    {"a select of two columns", "a in (select b, c from w)", "14: a select in a list has one column"},
    {"a select without view", "a in (select b)", "14: expected \"from\", found \")\""},
    {"a select's own qualifier", "a in (select x.b from w)",
     "13: \"x\" is not the view that this select reads, which is \"w\""},
    {"a mistake within a select", "a in (select b from w where c)",
     "29: expected a comparison (=, <>, <, <=, >, >=, like, in, between, is), found \")\""},
    {"behind a select", "a in (select b from w c)", "22: expected \")\" at the end of the nested select, found \"c\""},
    {"a limit with a leading zero", "a in (select b from w limit 010)", "28: expected a number of rows, found \"010\""},
    {"a limit that is none", "a in (select b from w limit x)", "28: expected a number of rows, found \"x\""},
};
INSTANTIATE_TEST_SUITE_P(QORCondition, Mistake, testing::ValuesIn(mistakes));

TEST(QORCondition, LongChainsStayFlat) {
    const std::string tree = parsed("a=0" + repeated(" and a=1", 100'000));
    EXPECT_TRUE(tree.starts_with("(and (eq a '0') (eq a '1') (eq a '1')"));
    EXPECT_EQ(tree.size(), std::string("(and (eq a '0'))").size() + 100'000 * std::string(" (eq a '1')").size());
}

TEST(QORCondition, ChainsThatLeanRightStayFlat) {
    const std::string tree = parsed(repeated("a=1 or (", 50'000) + "a=2" + repeated(")", 50'000));
    EXPECT_TRUE(tree.starts_with("(or (eq a '1') (eq a '1')"));
    EXPECT_TRUE(tree.ends_with(" (eq a '1') (eq a '2'))"));
}

TEST(QORCondition, ParenthesesAndNotsCostNoDepth) {
    EXPECT_EQ(parsed(repeated("(", 100'000) + "a = 1" + repeated(")", 100'000)), "(eq a '1')");
    EXPECT_EQ(parsed("a = " + repeated("(", 100'000) + "1" + repeated(")", 100'000)), "(eq a '1')");
    EXPECT_EQ(parsed(repeated("not ", 100'000) + "a = 1"), "(eq a '1')");
}

/// `a=1 and (a=1 or (a=1 and ... a=1))`, which takes an element a level.
std::string alternation(std::size_t depth) {
    std::string text;
    for (std::size_t at = 0; at < depth; ++at)
        text += at % 2 == 0 ? "a=1 and (" : "a=1 or (";
    return text + "a=1" + repeated(")", depth);
}

TEST(QORCondition, DepthEndsWhereMessagesEnd) {
    // The innermost comparison takes two levels, itself and its operands.
    EXPECT_TRUE(parsed(alternation(levels - 2)).starts_with("(and "));
    EXPECT_EQ(parsed(alternation(levels - 1)), "4: the condition is nested too deeply here; a request takes 62 levels");
    EXPECT_TRUE(parsed(alternation(50'000)).ends_with("nested too deeply here; a request takes 62 levels"));
}

TEST(QORCondition, FunctionsAndSelectsCountAgainstDepth) {
    EXPECT_TRUE(
        parsed(repeated("upper(", 1000) + "a" + repeated(")", 1000) + " = 1").ends_with("a request takes 62 levels"));
    EXPECT_TRUE(parsed(repeated("a in (select a from w where ", 20) + "a=1" + repeated(")", 20)).starts_with("(in a "));
    EXPECT_TRUE(parsed(repeated("a in (select a from w where ", 21) + "a=1" + repeated(")", 21))
                    .ends_with("a request takes 62 levels"));
    EXPECT_TRUE(
        parsed(repeated("a in (select a from w where ", 100'000)).ends_with("selects are nested too deeply here"));
}

/// Makes conditions at random: the text, as a person might write it, and the tree that it must become.
class ConditionMaker {
public:
    explicit ConditionMaker(unsigned seed) : m_random(seed) {}

    struct Made {
        std::string text;
        std::string tree;
        int strength;  ///< 3 comparison, 2 not, 1 and, 0 or
    };

    Made make(unsigned depth) {
        const unsigned kind = depth == 0 ? 3 : pick(5);
        if (kind == 0) return chain("and", 1, depth);
        if (kind == 1) return chain("or", 0, depth);
        if (kind == 2) return negation(depth);
        return comparison();
    }

private:
    unsigned pick(unsigned count) { return static_cast<unsigned>(m_random() % count); }
    std::string blank() { return std::string(1 + pick(2), pick(4) == 0 ? '\n' : ' '); }
    std::string keyword(std::string word) {
        if (pick(2) == 0)
            for (char& c : word)
                c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
        return word;
    }

    /// In parentheses where the place needs it, and sometimes where it does not.
    std::string placed(const Made& made, int needed) {
        return made.strength < needed || pick(5) == 0 ? "( " + made.text + ")" : made.text;
    }

    Made chain(const std::string& word, int strength, unsigned depth) {
        Made made{"", "(" + word, strength};
        const unsigned count = 2 + pick(3);
        for (unsigned at = 0; at < count; ++at) {
            const Made child = make(depth - 1);
            if (at > 0) made.text += blank() + keyword(word) + blank();
            made.text += placed(child, strength + 1);
            // An element of the same kind gives its children to this one.
            const bool same = child.tree.starts_with("(" + word + " ");
            made.tree +=
                same ? child.tree.substr(word.size() + 1, child.tree.size() - word.size() - 2) : " " + child.tree;
        }
        made.tree += ")";
        return made;
    }

    Made negation(unsigned depth) {
        const Made child = make(depth - 1);
        return {keyword("not") + blank() + placed(child, 2), negated(child.tree), 2};
    }
    static std::string negated(const std::string& tree) {
        return tree.starts_with("(not ") ? tree.substr(5, tree.size() - 6) : "(not " + tree + ")";
    }

    struct Operand {
        std::string text;
        std::string tree;
    };
    Operand operand() {
        static const Operand simple[] = {{"a", "a"},       {"\"b c\"", "b c"}, {"v.d", "v.d"},    {"'x''y'", "'x'y'"},
                                         {"-12", "'-12'"}, {"3.5", "'3.5'"},   {"'and'", "'and'"}};
        const Operand chosen = simple[pick(std::size(simple))];
        if (pick(6) == 0) return {"( " + chosen.text + " )", chosen.tree};
        if (pick(6) == 0) return {keyword("lower") + "(" + chosen.text + ")", "(function lower " + chosen.tree + ")"};
        return chosen;
    }

    Made comparison() {
        const Operand left = operand();
        const Operand right = operand();
        const Operand third = operand();
        const std::string no = pick(3) == 0 ? keyword("not") + " " : "";
        Made made{"", "", 3};
        switch (pick(5)) {
            case 0:
                made = {left.text + ">=" + right.text, "(ge " + left.tree + " " + right.tree + ")", 3};
                return made;
            case 1:
                made = {left.text + " " + keyword("is") + " " + no + keyword("null"), "(is_null " + left.tree + ")", 3};
                break;
            case 2:
                made = {left.text + " " + no + keyword("like") + " " + right.text,
                        "(like " + left.tree + " " + right.tree + ")", 3};
                break;
            case 3:
                made = {left.text + " " + no + keyword("between") + " " + right.text + " " + keyword("and") + " " +
                            third.text,
                        "(between " + left.tree + " " + right.tree + " " + third.tree + ")", 3};
                break;
            default:
                made = {left.text + " " + no + keyword("in") + "(" + right.text + "," + third.text + ")",
                        "(in " + left.tree + " " + right.tree + " " + third.tree + ")", 3};
                break;
        }
        if (!no.empty()) made.tree = negated(made.tree);
        return made;
    }

    std::minstd_rand m_random;
};

TEST(QORCondition, ConditionsMadeAtRandomBecomeTheirTrees) {
    for (unsigned seed = 1; seed <= 3000; ++seed) {
        const ConditionMaker::Made made = ConditionMaker(seed).make(1 + seed % 6);
        EXPECT_EQ(parsed(made.text), made.tree) << made.text;
    }
}

TEST(QORCondition, WhateverIsCutOffOrSwappedIsReadOrRefusedWithAPlaceInTheText) {
    for (unsigned seed = 1; seed <= 50; ++seed) {
        const std::string text = ConditionMaker(seed).make(3).text;
        std::minstd_rand random(seed);
        for (std::size_t at = 0; at < text.size(); ++at) {
            std::string swapped = text;
            swapped[at] = static_cast<char>(random() % 256);
            for (const std::string& damaged : {text.substr(0, at), text.substr(at), swapped}) {
                const std::string tree = parsed(damaged);
                if (tree.starts_with("(")) continue;
                EXPECT_LE(std::stoul(tree), damaged.size()) << damaged;
            }
        }
    }
}

TEST(QORCondition, TreeIsWrittenAsMessagesAre) {
    QORMessage message;
    QORBinaryIterator at = message.root();
    at.addChild(tag::where);
    parseCondition("not a = 'x' or upper(b) in (1)", {.view = "v", .levels = levels}, at);
    std::string json;
    writeElement(*message.rootNode(), json);
    EXPECT_EQ(json, R"([1742,[[2236,[[2237,[[2225,[[1741,"a"],[1018,"x"]]]]],)"
                    R"([2234,[[2222,[[1026,"upper"],[1741,"b"]]],[1018,"1"]]]]]]])");
}

// ---- stored forms -----------------------------------------------------------------------------------------------

constexpr const char* now = "2024-05-02 10:30:00";
constexpr const char* currentEid = "75693551-cf81-461c-bb3e-0ec3b6dcc016";

std::string typeOf(std::string_view view, std::string_view column) {
    if (view != "v" && view != "w") return {};
    if (column == "time") return "datetime";
    if (column == "eid") return "uniqueidentifier";
    if (column == "n") return "int";
    if (column == "big") return "BIGINT";
    if (column == "rate") return "decimal(10, 2)";
    return column == "name" ? "nvarchar(64)" : "";
}

/// As parsed(), for views v and w whose columns have types.
std::string stored(std::string_view text, const QORColumnTypes& types = typeOf) {
    QORMessage message;
    QORBinaryIterator at = message.root();
    at.addChild(tag::where);
    try {
        parseCondition(
            text, {.view = "v", .levels = levels, .types = types, .now = str2time(now), .currentEid = currentEid}, at);
    } catch (const QORQueryError& error) {
        return std::to_string(error.offset()) + ": " + error.what();
    }
    std::string out;
    print(*message.rootNode()->firstChild->firstChild, out);
    return out;
}

TEST(QORCondition, LiteralsOfListsAndBoundsTakeTheStoredForm) {
    const Case table[] = {
        {"bounds of a time", "time between '2024-05-01T00:00:00+0000' and '2024-05-01T12:00:00+02:00'",
         "(between time '2024-05-01 00:00:00' '2024-05-01 10:00:00')"},
        {"a date alone", "time in ('2024-05-01')", "(in time '2024-05-01 00:00:00')"},
        {"the second before the epoch", "time in ('1969-12-31 23:59:59')", "(in time '1969-12-31 23:59:59')"},
        {"negated", "time not in ('2024-05-01')", "(not (in time '2024-05-01 00:00:00'))"},
        {"a GUID", "eid in ('{75693551-CF81-461C-BB3E-0EC3B6DCC016}', eid)",
         "(in eid '75693551-cf81-461c-bb3e-0ec3b6dcc016' eid)"},
        {"numbers", "n in (1, '+2', -3) or big between 1 and '9007199254740993'",
         "(or (in n '1' '2' '-3') (between big '1' '9007199254740993'))"},
        {"fractions", "rate in (1.50, '1e3')", "(in rate '1.5' '1000')"},
        {"a text", "name in ('2024-05-01', ' A ')", "(in name '2024-05-01' ' A ')"},
        {"an unknown column", "other in ('X')", "(in other 'X')"},
        {"a qualified column", "w.time in ('2024-05-01')", "(in w.time '2024-05-01 00:00:00')"},
        {"a literal among columns", "'2024-05-01' between time and w.time",
         "(between '2024-05-01 00:00:00' time w.time)"},
        {"a literal in a list of columns", "'2024-05-01' in (name, time)", "(in '2024-05-01' name time)"},
        {"beside a function", "upper(eid) in ('AB')", "(in (function upper eid) 'AB')"},
        {"a function in the list", "eid in (upper('ab'))", "(in eid (function upper 'ab'))"},
        {"in a nested select", "name in (select name from w where time between '2024-05-01' and '2024-05-02')",
         "(in name (select w name (where (between time '2024-05-01 00:00:00' '2024-05-02 00:00:00'))))"},
        {"beside a nested select", "'2024-05-01' in (select max(time) from w)",
         "(in '2024-05-01 00:00:00' (select w (field (function max time))))"},
        {"beside a nested count", "'7' in (select count(time) from w)",
         "(in '7' (select w (field (function count time))))"},
        {"no time", "name = 'x' and time between 'last week' and '2024-05-01'",
         "28: \"last week\" is not a date or time"},
        {"no GUID", "eid in ('75693551-cf81-461c-bb3e-0ec3b6dcc016', 'x')", "48: \"x\" is not a GUID"},
        {"no integer", "n in (1.5)", "6: \"1.5\" is not an integer of 32 bits"},
        {"an equation", "time = '2024-05-01'", "(eq time '2024-05-01')"},
    };
    for (const Case& each : table)
        EXPECT_EQ(stored(each.text), each.tree) << each.rule;
}

TEST(QORCondition, TimesAreToldFromNow) {
    const Case table[] = {
        {"now", "time < now()", "(lt time '2024-05-02 10:30:00')"},
        {"durations before it", "time > NOW ( ) - 7d", "(gt time '2024-04-25 10:30:00')"},
        {"several", "time between now()-1w+1d and now()", "(between time '2024-04-26 10:30:00' '2024-05-02 10:30:00')"},
        {"in parentheses", "time > (now() - 1h)", "(gt time '2024-05-02 09:30:00')"},
        {"on the left", "now() - 1d12h <= time", "(le '2024-04-30 22:30:00' time)"},
        {"without a column", "now() = name", "(eq '2024-05-02 10:30:00' name)"},
        {"words", "time >= 'yesterday' and time < 'Today'",
         "(and (ge time '2024-05-01 00:00:00') (lt time '2024-05-02 00:00:00'))"},
        {"words in a list", "time in ('today', '2024-05-01')", "(in time '2024-05-02 00:00:00' '2024-05-01 00:00:00')"},
        {"words beside a text", "name = 'yesterday' or name in ('now')", "(or (eq name 'yesterday') (in name 'now'))"},
        {"words beside a function", "upper(time) = 'now'", "(eq (function upper time) 'now')"},
        {"words in patterns", "time like 'now'", "(like time 'now')"},
        {"words of a nested select", "eid in (select eid from w where time > '-1d')",
         "(in eid (select w eid (where (gt time '2024-05-01 10:30:00'))))"},
        {"durations with a sign", "time > -7d and time < + 1h",
         "(and (gt time '2024-04-25 10:30:00') (lt time '2024-05-02 11:30:00'))"},
        {"durations with a sign elsewhere", "n = -1m or n in (+1h)", "(or (eq n '-60') (in n '3600'))"},
        {"durations", "n > 90m and big between 0s and 1w", "(and (gt n '5400') (between big '0' '604800'))"},
        {"a column called now", "now = 1 and current_eid = 2", "(and (eq now '1') (eq current_eid '2'))"},
        {"a duration is no time", "time in (7d)", "9: \"604800\" is not a date or time"},
        {"nothing in now", "time > now(1)", "11: expected \")\", found \"1\""},
        {"a number after it", "time > now() - 7", "15: expected a duration such as 7d, 12h or 30m, found \"7\""},
        {"nothing after it", "time > now() -",
         "14: expected a duration such as 7d, 12h or 30m, found the end of the text"},
        {"too long ago", "time > now() - 2025w - 3660000d + 3660000d",
         "7: this time is before the year 0 or after the year 9999"},
        {"also with a sign", "time > -3660000d", "7: this time is before the year 0 or after the year 9999"},
    };
    for (const Case& each : table)
        EXPECT_EQ(stored(each.text), each.tree) << each.rule;
}

TEST(QORCondition, KnowsWhoAsks) {
    EXPECT_EQ(stored("eid = current_eid()"), "(eq eid '75693551-cf81-461c-bb3e-0ec3b6dcc016')");
    EXPECT_EQ(stored("Current_EID() in (eid)"), "(in '75693551-cf81-461c-bb3e-0ec3b6dcc016' eid)");
    EXPECT_EQ(parsed("a = current_eid()"), "4: who asks stands for no environment, so that current_eid() is none");
}

TEST(QORCondition, TypesAreAskedForOnlyWhereTheyMatter) {
    int asked = 0;
    const QORColumnTypes types = [&](std::string_view, std::string_view) {
        ++asked;
        return std::string();
    };
    stored("a = 1 and b like 'x' and c in (select d from w) and e between f and g and upper(h) in (1)", types);
    EXPECT_EQ(asked, 0);
    stored("a > now() - 7d and b = 7d and c = 'nowhere'", types);
    EXPECT_EQ(asked, 0);
    stored("a > -7d", types);
    EXPECT_EQ(asked, 1);
    stored("a in (1)", types);
    EXPECT_EQ(asked, 2);
}

/// Where a mistake is and what its detail says: "offset found|expected|suggestion", of two views v (a, title) and w
/// (b).
std::string mistake(std::string_view text) {
    static const std::vector<std::string> v{"a", "title"};
    static const std::vector<std::string> w{"b"};
    QORConditionOptions options{.view = "v", .levels = levels};
    options.columns = [](std::string_view view) { return view == "v" ? &v : view == "w" ? &w : nullptr; };
    QORMessage message;
    QORBinaryIterator at = message.root();
    at.addChild(tag::where);
    try {
        parseCondition(text, options, at);
    } catch (const QORQueryError& error) {
        const QORQueryDetail& detail = error.detail();
        return std::to_string(error.offset()) + " " + detail.found + "|" + detail.expected + "|" + detail.suggestion;
    }
    return "none";
}

TEST(QORCondition, NamesThatThereAreNotAreMistakesWhereNamesAreKnown) {
    EXPECT_EQ(mistake("a = 1 and v.title = 'x' and a in (select b from w where b = v.a order by b)"), "none");
    EXPECT_EQ(mistake("a = 1 and titel = 2"), "10 titel|a column of v|title");
    EXPECT_EQ(mistake("\"TITLE\" = 2"), "0 TITLE|a column of v|title");
    EXPECT_EQ(mistake("v.b = 1"), "0 b|a column of v|a");
    EXPECT_EQ(mistake("x.a = 1"), "0 x|a view|");
    EXPECT_EQ(mistake("a in (select a from w)"), "13 a|a column of w|b");
    EXPECT_EQ(mistake("a in (select max(a) from w)"), "13 a|a column of w|b") << "the function's place";
    EXPECT_EQ(mistake("a in (select b from u)"), "20 u|a view|");
    EXPECT_EQ(mistake("a in (select b from w where a = 1)"), "28 a|a column of w|b");
    EXPECT_EQ(mistake("a in (select b from w order by a)"), "31 a|a column of w|b");
    EXPECT_EQ(parsed("nothing.known = 1"), "(eq nothing.known '1')");
}

TEST(QORCondition, MistakesTellWhatStandsThereAndWhatWouldDo) {
    EXPECT_EQ(mistake("a = )"), "4 )|a column or a value|");
    EXPECT_THAT(mistake("a"), testing::StartsWith("1 |a comparison"));
    EXPECT_EQ(mistake("a in 5"), "5 5|\"(\" and a list|");
}

// ---- printing ---------------------------------------------------------------------------------------------------

/// The condition of a where element that notation describes, as a text; or why it has none.
std::string printed(std::string_view notation) {
    QORRequestEnvelope request =
        readRequest(R"({"operator":"o","request":"r","body":[1742,[)" + std::string(notation) + "]]}");
    try {
        return printCondition(*request.body.rootNode()->firstChild->firstChild);
    } catch (const QORException& error) {
        return std::to_string(error.code()) + " " + error.message();
    }
}

/// The text that a condition is printed as, which must become the same tree.
std::string reprinted(std::string_view text, std::string_view view = "v") {
    QORMessage message;
    QORBinaryIterator at = message.root();
    at.addChild(tag::where);
    parseCondition(text, {.view = std::string(view), .levels = levels}, at);
    const std::string again = printCondition(*message.rootNode()->firstChild->firstChild);
    EXPECT_EQ(parsed(again, view), parsed(text, view)) << again;
    return again;
}

TEST(ConditionPrinter, EveryConditionThatIsReadIsPrintedAsOneThatBecomesTheSameTree) {
    for (const Case& each : conditions)
        reprinted(each.text);
}

TEST(ConditionPrinter, WritesWhatAPersonWouldWrite) {
    const std::pair<const char*, const char*> texts[] = {
        {"a=1 AND(b<>'x')", "a = 1 and b <> 'x'"},
        {"(a=1 or b=2)and not(c=3 and d=4)", "(a = 1 or b = 2) and not (c = 3 and d = 4)"},
        {"a=1 or (b=2 and c=3)", "a = 1 or b = 2 and c = 3"},
        {"not (a like 'x!%' escape '!')", "a not like 'x!%' escape '!'"},
        {"not (a in (1, 'y')) and not (a is null)", "a not in (1, 'y') and a is not null"},
        {"not a between -1.5 and 1e5", "a not between -1.5 and '1e5'"},
        {"not a = 1", "not a = 1"},
        {"\"And\" = 'it''s' and \"a\"\"b\" = 007", "\"And\" = 'it''s' and \"a\"\"b\" = 007"},
        {"w.\"a b\" = v.größe", "w.\"a b\" = v.größe"},
        {"upper(lower(a)) = ''", "upper(lower(a)) = ''"},
        {"a in (select avg(b) from w)", "a in (select average(b) from w)"},
        {"a in (select distinct \"b.c\" from \"w.x\" where d = 1 order by e desc, f asc limit 5 offset 2)",
         "a in (select distinct \"b.c\" from \"w.x\" where d = 1 order by e desc, f limit 5 offset 2)"},
    };
    for (const auto& [text, again] : texts)
        EXPECT_EQ(reprinted(text), again);
}

TEST(ConditionPrinter, ColumnsWithPointsComeBackWithTheirView) {
    EXPECT_EQ(reprinted("\"env.name\" = 1"), "v.\"env.name\" = 1");
}

TEST(ConditionPrinter, ConditionsMadeAtRandomBecomeTheSameTreesAgain) {
    for (unsigned seed = 1; seed <= 3000; ++seed)
        reprinted(ConditionMaker(seed).make(1 + seed % 6).text);
}

/// Makes trees as parsing leaves them, of names and texts that no person would choose.
class TreeMaker {
public:
    explicit TreeMaker(unsigned seed) : m_random(seed) {}

    void condition(QORBinaryIterator out, unsigned depth, QORTag parent = 0) {
        const unsigned kind = depth == 0 ? 9 : pick(10);
        if (kind < 2 && parent != tag::logicalAnd) return chain(out, tag::logicalAnd, depth);
        if (kind < 4 && parent != tag::logicalOr) return chain(out, tag::logicalOr, depth);
        if (kind == 4 && parent != tag::logicalNot) {
            out.addChild(tag::logicalNot);
            return condition(out, depth - 1, tag::logicalNot);
        }
        comparison(out, depth);
    }

private:
    unsigned pick(unsigned count) { return static_cast<unsigned>(m_random() % count); }

    void chain(QORBinaryIterator out, QORTag tag, unsigned depth) {
        out.addChild(tag);
        const unsigned count = 2 + pick(3);
        for (unsigned at = 0; at < count; ++at)
            condition(out, depth - 1, tag);
    }

    void comparison(QORBinaryIterator out, unsigned depth) {
        static constexpr QORTag signs[] = {tag::eq, tag::ne, tag::lt, tag::le, tag::gt, tag::ge};
        const unsigned kind = pick(10);
        if (kind < 6) {
            out.addChild(signs[kind]);
            operand(out, 2);
            return operand(out, 2);
        }
        static constexpr QORTag others[] = {tag::like, tag::between, tag::isNull, tag::in};
        out.addChild(others[kind - 6]);
        operand(out, 2);
        if (kind == 8) return;
        operand(out, 2);
        if (kind == 6 && pick(2) == 0) out.putValue(std::string(1, static_cast<char>(1 + pick(127))), tag::escape);
        if (kind == 7) operand(out, 2);
        if (kind == 9 && depth > 0) select(out, depth - 1);
    }

    void operand(QORBinaryIterator out, unsigned depth) {
        const unsigned kind = pick(depth == 0 ? 2 : 3);
        if (kind == 0) {
            out.putValue(text(), tag::value);
        } else if (kind == 1) {
            const std::string column = name();
            out.putValue(pick(2) == 0 && column.find('.') == std::string::npos ? column : plainName() + "." + column,
                         tag::field);
        } else {
            out.addChild(tag::function);
            out.putValue(pick(2) == 0 ? "upper" : "lower", tag::name);
            operand(out, depth - 1);
        }
    }

    void select(QORBinaryIterator out, unsigned depth) {
        out.addChild(tag::select);
        out.putValue(name(), tag::view);
        QORBinaryIterator field = out;
        if (pick(2) == 0) {
            out.putValue(name(), tag::field);
        } else {
            field.addChild(tag::field);
            field.addChild(tag::function);
            field.putValue("count", tag::name);
            field.putValue(name(), tag::field);
        }
        if (pick(2) == 0) {
            QORBinaryIterator flag = out;
            flag.addChild(tag::distinct);
        }
        if (pick(2) == 0) {
            QORBinaryIterator where = out;
            where.addChild(tag::where);
            condition(where, depth);
        }
        for (unsigned keys = pick(3); keys > 0; --keys) {
            QORBinaryIterator sort = out;
            sort.addChild(tag::sort);
            sort.putValue(name(), tag::field);
            if (pick(2) == 0) sort.addChild(tag::descending);
        }
        if (pick(2) == 0) {
            QORBinaryIterator limit = out;
            limit.addChild(tag::limit);
            limit.putValue(std::to_string(pick(1000)), tag::size);
            if (pick(2) == 0) limit.putValue(std::to_string(pick(1000)), tag::offset);
        }
    }

    /// Never empty; now and then with a point in it.
    std::string name() { return pick(4) == 0 ? plainName() + "." + plainName() : plainName(); }
    std::string plainName() {
        static const std::string names[] = {"a",           "time",  "and", "Select", "null", "upper", "now",
                                            "current_eid", "limit", "1a",  "a b",    "\"",   "a\"b",  "größe",
                                            "'",           "-",     "7d",  "desc",   "\n",   "a$1"};
        return names[pick(std::size(names))];
    }
    std::string text() {
        static const std::string texts[] = {"",    "x",   "it's", "'",  "12",  "-12",  "1.5",   "-0",
                                            "007", "1e5", "+1",   ".5", "5.",  "-",    "--1",   "now",
                                            "-7d", "\n",  "\xFF", "a%", "1 2", "null", "\"x\"", "'' or 1 = 1"};
        return texts[pick(std::size(texts))];
    }

    std::minstd_rand m_random;
};

TEST(ConditionPrinter, TreesMadeAtRandomArePrintedAsTextsThatBecomeThem) {
    for (unsigned seed = 1; seed <= 5000; ++seed) {
        QORMessage message;
        QORBinaryIterator where = message.root();
        where.addChild(tag::where);
        TreeMaker(seed).condition(where, 1 + seed % 5);
        const QORMessageNode& made = *message.rootNode()->firstChild->firstChild;
        std::string tree;
        print(made, tree);
        const std::string text = printCondition(made);
        ASSERT_EQ(parsed(text), tree) << "seed " << seed << ": " << text;
    }
}

TEST(ConditionPrinter, WhatIsReadAsOneIsPrintedAsOne) {
    EXPECT_EQ(printed(R"(["and",[["and",[["is_null",[["field","a"]]]]],["is_null",[["field","b"]]]]])"),
              "a is null and b is null");
    EXPECT_EQ(printed(R"(["not",[["not",[["is_null",[["field","a"]]]]]]])"), "not a is not null");
}

TEST(ConditionPrinter, WhatNoTextBecomesIsRefused) {
    const std::pair<const char*, const char*> trees[] = {
        {R"(["and",[]])", "400 the element \"and\" is empty"},
        {R"(["not",[["is_null",[["field","a"]]],["is_null",[["field","a"]]]]])",
         "400 the element \"is_null\" is one too many"},
        {R"(["field","a"])", "400 the element \"field\" is empty"},
        {R"(["row",[["field","a"]]])", "400 the element \"row\" is no condition"},
        {R"(["eq",[["field","a"]]])", "400 the element \"eq\" lacks an operand"},
        {R"(["eq",[["field","a"],["value","1"],["value","2"]]])", "400 the element \"value\" is one too many"},
        {R"(["eq",[["field",""],["value","1"]]])", "400 the element \"field\" holds no name"},
        {R"(["eq",[["field","a."],["value","1"]]])", "400 the element \"field\" lacks the name of a view or a column"},
        {R"(["eq",[["field",".a"],["value","1"]]])", "400 the element \"field\" lacks the name of a view or a column"},
        {R"(["eq",[["field","a"],["value"]]])", "400 the element \"value\" holds no text"},
        {R"(["eq",[["field","a"],["select",[["view","w"],["field","b"]]]]])",
         "400 the element \"select\" is no operand"},
        {R"(["eq",[["field","a"],["function",[["name","count"],["field","b"]]]]])",
         "400 the element \"function\" is neither upper nor lower"},
        {R"(["eq",[["field","a"],["function",[["field","b"]]]]])",
         "400 the element \"function\" is neither upper nor lower"},
        {R"(["like",[["field","a"],["value","x"],["value","!"]]])", "400 the element \"value\" is no escape"},
        {R"(["like",[["field","a"],["value","x"],["escape","ab"]]])",
         "400 the element \"escape\" is not one character of ASCII"},
        {R"(["in",[["field","a"]]])", "400 the element \"in\" lacks an operand"},
        {R"(["in",[["field","a"],["select",[["field","b"]]]]])", "400 the element \"select\" lacks \"view\""},
        {R"(["in",[["field","a"],["select",[["view","w"],["field","b"],["field","c"]]]]])",
         "400 the element \"field\" is one too many"},
        {R"(["in",[["field","a"],["select",[["view","w"],["field","b"],["statistics"]]]]])",
         "400 the element \"statistics\" is no part of a nested select"},
        {R"(["in",[["field","a"],["select",[["view","w"],["field",[["function",[["name","avg"],["field","b"]]]]]]]]])",
         "400 the element \"field\" has a function that cannot be spelled"},
        {R"(["in",[["field","a"],["select",[["view","w"],["field",[["function",[["name","a b"],["field","b"]]]]]]]]])",
         "400 the element \"field\" has a function that cannot be spelled"},
        {R"(["in",[["field","a"],["select",[["view","w"],["field",[["value","b"]]]]]]])",
         "400 the element \"field\" has a function that cannot be spelled"},
        {R"(["in",[["field","a"],["select",[["view","w"],["field","b"],["limit",[["size","-1"]]]]]]])",
         "400 the element \"size\" is no number of rows"},
        {R"(["in",[["field","a"],["select",[["view","w"],["field","b"],["limit",[["size","010"]]]]]]])",
         "400 the element \"size\" is no number of rows"},
    };
    for (const auto& [tree, reason] : trees)
        EXPECT_EQ(printed(tree), reason) << tree;
}

}  // namespace
}  // namespace QOR
