/// \file
/// Requests of "pager2" that nobody thought of: over the views of the tests of both engines, with every part of the
/// grammar, and with values at the bounds of every type.
#pragma once

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "QORMessage/QORNotation.h"

namespace QOR::test {

/// The same requests for the same seed.
class MadeSelects {
public:
    enum class Kind { Whole, Real, Decimal, Text, Guid, Time };
    struct Column {
        const char* name;
        Kind kind;
    };
    struct View {
        const char* name;
        std::vector<Column> columns;
    };

    explicit MadeSelects(std::uint64_t seed, const std::vector<View>& over = views()) : m_dice(seed), m_views(over) {}

    /// A select whose rows have one order: it is sorted by all that it selects.
    std::string next() { return select({}); }

private:
    using Views = std::vector<const View*>;
    using Words = std::vector<std::string>;

    static const std::vector<View>& views() {
        static const std::vector<View> all{
            {"vThings",
             {{"id", Kind::Whole},
              {"name", Kind::Text},
              {"code", Kind::Text},
              {"score", Kind::Real},
              {"ratio", Kind::Decimal},
              {"big", Kind::Whole},
              {"small", Kind::Whole},
              {"flag", Kind::Whole},
              {"guid", Kind::Guid},
              {"born", Kind::Time},
              {"free", Kind::Text}}},
            {"vSecure",
             {{"id", Kind::Whole},
              {"title", Kind::Text},
              {"securableObjId", Kind::Guid},
              {"securityOperation_7", Kind::Whole},
              {"amount", Kind::Decimal},
              {"time", Kind::Time}}},
            {"vPair",
             {{"id", Kind::Whole},
              {"title", Kind::Text},
              {"securableObjId0", Kind::Guid},
              {"securableObjId1", Kind::Guid}}},
        };
        return all;
    }
    static const Words& valuesOf(Kind kind) {
        static const Words wholes{"0",
                                  "1",
                                  "-1",
                                  "7",
                                  "2147483647",
                                  "-2147483648",
                                  "2147483648",
                                  "4294967296",
                                  "5000000000",
                                  "12",
                                  "9007199254740993",
                                  "9223372036854775807",
                                  "-9223372036854775808",
                                  "9223372036854775808",
                                  "007",
                                  "+7",
                                  "word",
                                  "",
                                  "1.0",
                                  " 1"};
        static const Words reals{"0.1",
                                 "1.5",
                                 "2",
                                 "-0.25",
                                 "1e300",
                                 "1e-320",
                                 "0.30000000000000004",
                                 "12",
                                 "1e30",
                                 "0.0",
                                 "9007199254740993",
                                 "word",
                                 "1,5",
                                 "-1e10",
                                 "+1.5"};
        static const Words decimals{
            "0.1", "12.25", "0.3", "123456789012345678.25", "9007199254740993", "-0.5", "100", "100.00", "0.10", ".1",
            "1e2", "word",  "",    "123456789012345678.26"};
        static const Words texts{"Ann",
                                 "ann",
                                 "\xc3\x84nn",
                                 "\xc3\xa4nn",
                                 "a",
                                 "b  ",
                                 "",
                                 "b",
                                 "10",
                                 "010",
                                 "1.5",
                                 "it's \\ %",
                                 "\xf0\x9f\x98\x80",
                                 "\xef\xbf\xbd",
                                 "Z",
                                 "z",
                                 "a b",
                                 "2024-01-01 00:00:00",
                                 "A_",
                                 "~",
                                 "aaaaaaaa-0000-0000-0000-000000000001",
                                 "\"q\"",
                                 "?",
                                 "$1",
                                 "{x}"};
        static const Words guids{"aaaaaaaa-0000-0000-0000-000000000001",
                                 "BBBBBBBB-0000-0000-0000-000000000002",
                                 "{cccccccc-0000-0000-0000-000000000003}",
                                 "00000000-0000-0000-0000-000000000000",
                                 "ffffffff-ffff-ffff-ffff-ffffffffffff",
                                 "word",
                                 "",
                                 "12",
                                 "11111111-1111-1111-1111-111111111111"};
        static const Words times{"2024-01-01 00:00:00",
                                 "2024-06-30T12:00:00Z",
                                 "2024-02-29",
                                 "2024-02-30",
                                 "1969-12-31 23:59:58",
                                 "9999-12-31 23:59:59",
                                 "0001-01-01 00:00:00",
                                 "2024",
                                 "word",
                                 "",
                                 "2024-01-01 02:00:00+02:00",
                                 "1000-01-01"};
        switch (kind) {
            case Kind::Whole:
                return wholes;
            case Kind::Real:
                return reals;
            case Kind::Decimal:
                return decimals;
            case Kind::Guid:
                return guids;
            case Kind::Time:
                return times;
            case Kind::Text:
                break;
        }
        return texts;
    }
    static const Words& patterns() {
        static const Words all{"%",     "a%",  "%N%",    "_",     "__%", "\xc3\xa4%", "%\xf0\x9f\x98\x80%",
                               "%\\%%", "1%",  "%-0_-%", "AAAA%", "%!%", "",          "a_",
                               "%'%",   "!%%", "2024%",  "%.%"};
        return all;
    }

    std::uint64_t number(std::uint64_t below) { return m_dice() % below; }
    bool chance(std::uint64_t percent) { return number(100) < percent; }
    template <class T>
    const T& pick(const std::vector<T>& from) {
        return from[number(from.size())];
    }

    static std::string leaf(const char* name, const std::string& text) {
        std::string written = std::string("[\"") + name + "\",";
        writeNotationText(text, written);
        return written + "]";
    }
    static std::string element(const char* name, const std::string& children) {
        return std::string("[\"") + name + "\",[" + children + "]]";
    }

    std::string select(const Views& around) {
        const View& view = pick(m_views);
        const bool nested = !around.empty();
        std::string fields;
        std::string sorts;
        Words taken;
        for (std::uint64_t wanted = nested && !chance(2) ? 1 : 1 + number(4); wanted > 0; --wanted) {
            const Column& column = pick(view.columns);
            if (std::find(taken.begin(), taken.end(), column.name) != taken.end()) continue;
            taken.emplace_back(column.name);
            if (chance(nested ? 25 : 15)) {
                static const Words functions{"sum", "average", "min", "max", "count"};
                fields += "," + element("field", element("function", leaf("name", pick(functions)) + "," +
                                                                         leaf("field", column.name)));
            } else {
                fields += "," + leaf("field", column.name);
            }
            sorts += "," + element("sort", leaf("field", column.name) + (chance(50) ? R"(,["descending"])" : ""));
        }
        std::string body = leaf("view", view.name) + fields;
        if (!nested || chance(30)) body += sorts;
        if (chance(20)) body += R"(,["distinct"])";
        if (!nested && chance(30)) body += R"(,["statistics"])";
        if (chance(30) && (!nested || body.find("sort") != std::string::npos)) {
            body += "," + element("limit", leaf("size", std::to_string(1 + number(9))) +
                                               (chance(50) ? "," + leaf("offset", std::to_string(number(5))) : ""));
        }
        if (chance(85)) {
            Views inside = around;
            inside.push_back(&view);
            body += "," + element("where", condition(inside, nested ? 1 : 3));
        }
        return element("select", body);
    }

    std::string condition(const Views& levels, int depth) {
        const std::uint64_t kind = depth > 0 ? number(10) : 9;
        if (kind < 2) return element("not", condition(levels, depth - 1));
        if (kind < 5) {
            std::string terms = condition(levels, depth - 1);
            for (std::uint64_t more = number(3); more > 0; --more)
                terms += "," + condition(levels, depth - 1);
            return element(chance(50) ? "and" : "or", terms);
        }
        return comparison(levels);
    }

    std::string comparison(const Views& levels) {
        const Column& column = pick(levels.back()->columns);
        const std::string field = operandOf(column);
        switch (number(10)) {
            case 0:
                return element("is_null", field);
            case 1:
                return element("between", field + "," + other(levels, column) + "," + other(levels, column));
            case 2:
            case 3: {
                std::string items = field;
                for (std::uint64_t wanted = 1 + number(3); wanted > 0; --wanted)
                    items += "," + (chance(25) && levels.size() < 3 ? select(levels) : other(levels, column));
                return element("in", items);
            }
            case 4: {
                const bool escape = chance(30);
                const std::string pattern = chance(85) ? leaf("value", pick(patterns())) : other(levels, column);
                return element("like",
                               field + "," + pattern + (escape ? "," + leaf("escape", chance(70) ? "!" : "\\") : ""));
            }
            default: {
                static const Words operators{"eq", "ne", "lt", "le", "gt", "ge"};
                const std::string right = other(levels, column);
                return element(pick(operators).c_str(), chance(80) ? field + "," + right : right + "," + field);
            }
        }
    }

    /// A column, sometimes within a function.
    std::string operandOf(const Column& column, const char* view = nullptr) {
        const std::string field =
            leaf("field", view != nullptr ? std::string(view) + "." + column.name : std::string(column.name));
        return chance(12) ? element("function", leaf("name", chance(50) ? "lower" : "Upper") + "," + field) : field;
    }
    /// What it is compared with.
    std::string other(const Views& levels, const Column& column) {
        if (chance(20)) {
            const View& view = *pick(levels);
            return operandOf(pick(view.columns), view.name);
        }
        const Kind kind = chance(88) ? column.kind : static_cast<Kind>(number(6));
        const std::string value = leaf("value", pick(valuesOf(kind)));
        return chance(5) ? element("function", leaf("name", "upper") + "," + value) : value;
    }

    std::mt19937_64 m_dice;
    const std::vector<View>& m_views;
};

}  // namespace QOR::test
