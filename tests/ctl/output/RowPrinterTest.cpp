// What rows look like in each form.
#include "output/RowPrinter.h"

#include <functional>
#include <string>
#include <vector>

#include "output/TextWidth.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

Cell text(std::string_view bytes) {
    return {Cell::Kind::Text, bytes};
}
Cell binary(std::string_view bytes) {
    return {Cell::Kind::Binary, bytes};
}
const Cell null{};

using Rows = std::vector<std::vector<Cell>>;

std::string print(const std::function<std::unique_ptr<RowSink>(Output&)>& makePrinter,
                  const std::vector<std::string>& names, const Rows& rows, const std::optional<RowCounts>& counts) {
    TextOutput out;
    const auto printer = makePrinter(out);
    printer->begin(names);
    for (const auto& row : rows)
        printer->row(row);
    printer->end(counts);
    return out.text();
}

std::string printedWith(const RowPrinterOptions& options, std::string_view form, const std::vector<std::string>& names,
                        const Rows& rows, const std::optional<RowCounts>& counts = std::nullopt) {
    return print([&](Output& out) { return findRowForm(form)->makePrinter(options, out); }, names, rows, counts);
}

std::string filledIn(std::string_view pattern, const std::vector<std::string>& names, const Rows& rows) {
    return print([&](Output& out) { return makeTemplatePrinter(pattern, out); }, names, rows, std::nullopt);
}

std::string printed(std::string_view form, const std::vector<std::string>& names, const Rows& rows,
                    const std::optional<RowCounts>& counts = std::nullopt, std::size_t width = 0) {
    return printedWith({width, counts.has_value()}, form, names, rows, counts);
}

std::string table(const std::vector<std::string>& names, const Rows& rows, std::size_t width = 0) {
    return printed("table", names, rows, std::nullopt, width);
}

TEST(Table, ColumnsAreAlignedAndNumbersStandRight) {
    EXPECT_EQ(table({"name", "size", "state"},
                    {{text("web1"), text("5"), text("up")}, {text("database"), text("-1024.5"), text("x")}}),
              "name         size  state\n"
              "--------  -------  -----\n"
              "web1            5  up\n"
              "database  -1024.5  x\n");
}

TEST(Table, NullsShowAndKeepAColumnOfNumbers) {
    EXPECT_EQ(table({"n", "t", "all"}, {{text("10"), null, null}, {null, text(""), null}}),
              " n  t  all\n"
              "--  -  ---\n"
              "10  -  -\n"
              " -     -\n");
}

TEST(Table, WhatDisturbsATerminalIsMadeVisible) {
    EXPECT_EQ(table({"a"}, {{text("x\ny\tz\x1b[0m\x7f\xff")}, {text("\xE2\x80\xAE|\xC2\x85")}}),
              "a\n"
              "----------------------\n"
              "x\\ny\\tz\\x1b[0m\\x7f\\xff\n"
              "\\u{202e}|\\u{85}\n");
}

TEST(Table, WidthsAreThoseOfTheTerminal) {
    EXPECT_EQ(table({"a", "b"}, {{text("\xE4\xB8\x89"), text("x")}, {text("e\xCC\x81"), text("y")}}),
              "a   b\n"
              "--  -\n"
              "\xE4\xB8\x89  x\n"
              "e\xCC\x81   y\n");
}

TEST(Table, BinaryValuesAreHex) {
    EXPECT_EQ(table({"info"}, {{binary(std::string_view("\x00\xff\x10", 3))}}), "info\n--------\n0x00ff10\n");
}

TEST(Table, TheWidestColumnsGiveWay) {
    EXPECT_EQ(table({"id", "text", "more"}, {{text("1"), text("abcdefghijklmnop"), text("abcdefghijkl")}}, 24),
              "id  text       more\n"
              "--  ---------  ---------\n"
              " 1  abcdefgh\xE2\x80\xA6  abcdefgh\xE2\x80\xA6\n");
}

TEST(Table, NumbersAndTimesAreNeverCut) {
    const std::string out =
        table({"size_of_it", "text", "n"}, {{text("181578961213"), text("abcdefghijklmnop"), text("7")}}, 26);
    EXPECT_EQ(out,
              "  size_of_it  text       n\n"
              "------------  ---------  -\n"
              "181578961213  abcdefgh\xE2\x80\xA6  7\n");
    EXPECT_EQ(table({"size", "text"}, {{text("181578961213"), text("abcdefghijklmnop")}}, 16),
              "size  181578961213\n"
              "text  abcdefghi\xE2\x80\xA6\n");
}

TEST(Table, SizesAreToldInUnitsToPeople) {
    RowPrinterOptions options;
    options.sizes = true;
    const std::vector<Cell> sizes{text("181578961213"), text("2048"), text("980"), text("5"), text("x"), null};
    const std::vector<std::string> names{"size", "memory", "max(backup.size)", "count(size)", "size", "size"};
    EXPECT_EQ(printedWith(options, "table", names, {sizes}),
              "     size   memory  max(backup.size)  count(size)  size  size\n"
              "---------  -------  ----------------  -----------  ----  ----\n"
              "169.1 GiB  2.0 GiB         980 bytes            5  x     -\n");
    EXPECT_EQ(printedWith(options, "record", {"size"}, {{text("2048")}}), "size  2.0 KiB\n");
}

TEST(Table, NothingIsCutWithoutATerminal) {
    const std::string longText(500, 'x');
    EXPECT_EQ(table({"a"}, {{text(longText)}}), "a\n" + std::string(500, '-') + "\n" + longText + "\n");
}

TEST(Table, ManyColumnsBecomeBlocks) {
    EXPECT_EQ(table({"first", "second", "third"},
                    {{text("abcdefghijklm"), text("1"), null}, {text("x"), text("2"), null}}, 15),
              "first   abcdef\xE2\x80\xA6\n"
              "second  1\n"
              "third   -\n"
              "\n"
              "first   x\n"
              "second  2\n"
              "third   -\n");
}

TEST(Table, EveryLineFits) {
    for (std::size_t width = 1; width < 60; ++width) {
        const std::string out = table({"first", "second column", "third"},
                                      {{text("some text here"), text("1234567"), text("\xE4\xB8\x89\xE4\xB8\x89")},
                                       {null, text("2"), text("the longest text of all of them")}},
                                      width);
        for (std::size_t at = 0; width >= 18 && at < out.size();) {  // a number stays whole
            const std::size_t end = out.find('\n', at);
            EXPECT_LE(textWidth(out.substr(at, end - at)), width) << out;
            at = end + 1;
        }
    }
}

TEST(Table, RowsBehindTheFirstTenThousandKeepTheirText) {
    Rows rows(10'000, {text("1"), text("a")});
    rows.push_back({text("a longer one"), text("b")});
    const std::string out = table({"n", "t"}, rows);
    EXPECT_TRUE(out.ends_with("1  a\na longer one  b\n"));
}

TEST(Table, CountsStandBeneath) {
    EXPECT_EQ(printed("table", {"a"}, {{text("x")}}, RowCounts{1, 400}), "a\n-\nx\n\n1 of 400 rows\n");
    EXPECT_EQ(printed("table", {"a"}, {}, RowCounts{0, 1}), "a\n-\n0 of 1 row\n");
    EXPECT_EQ(printed("table", {"a"}, {}), "a\n-\nno rows\n");
}

TEST(Table, WithoutHeaderHasRowsAlone) {
    EXPECT_EQ(printedWith({.header = false}, "table", {"a long name", "b"}, {{text("1"), text("x")}}), "1  x\n");
    EXPECT_EQ(printedWith({.header = false}, "table", {"a"}, {}), "");
}

const ColumnKinds identifiers{{"eid", QORColumnKind::Identifier}, {"parent", QORColumnKind::Identifier}};
const std::string guidA = "11111111-2222-3333-4444-555555555555";
const std::string guidB = "11111111-2222-9999-4444-555555555555";
const std::string guidC = "aaaaaaaa-2222-9999-4444-555555555555";

TEST(Table, IdentifiersAreCutAsFarAsAllOfTheTableCanBeToldApart) {
    const RowPrinterOptions options{.prefixes = true, .kinds = identifiers};
    EXPECT_EQ(printedWith(options, "table", {"eid", "parent"}, {{text(guidA), null}, {text(guidC), text(guidA)}}),
              "eid       parent\n"
              "--------  --------\n"
              "11111111  -\n"
              "aaaaaaaa  11111111\n");
    EXPECT_EQ(printedWith(options, "table", {"eid", "parent"}, {{text(guidA), null}, {text(guidC), text(guidB)}}),
              "eid                 parent\n"
              "------------------  ------------------\n"
              "11111111-2222-3333  -\n"
              "aaaaaaaa-2222-9999  11111111-2222-9999\n");
    EXPECT_EQ(printedWith(options, "table", {"title"}, {{text(guidA)}}),
              "title\n" + std::string(36, '-') + "\n" + guidA + "\n");
}

TEST(Table, IdentifiersStayWholeWhereAPrefixCannotTellThem) {
    const RowPrinterOptions options{.header = false, .prefixes = true, .kinds = identifiers};
    std::string last = guidA;
    last.back() = '6';
    EXPECT_EQ(printedWith(options, "table", {"eid"}, {{text(guidA)}, {text(last)}}), guidA + "\n" + last + "\n");
    // Later rows might hold any other, so a table that is printed as its rows come is left as it is.
    const std::string many = printedWith(options, "table", {"eid"}, Rows(10'001, {text(guidA)}));
    EXPECT_TRUE(many.starts_with(guidA + "\n"));
    EXPECT_EQ(printedWith(options, "wide", {"eid"}, {{text(guidA)}}), guidA + "\n");
}

TEST(Table, TimesAreShownInTheFormThatIsAskedFor) {
    const auto shown = [](TimeForm form, std::string_view time) {
        return printedWith(
            {.header = false, .times = form, .now = 1'714'558'500, .kinds = {{"t", QORColumnKind::Time}}}, "table",
            {"t"}, {{text(time)}});
    };
    EXPECT_EQ(shown(TimeForm::Answered, "2024-05-01T10:15:00+0000"), "2024-05-01T10:15:00+0000\n");
    EXPECT_EQ(shown(TimeForm::Relative, "2024-05-01T10:15:00+0000"), "now\n");
    EXPECT_EQ(shown(TimeForm::Relative, "2024-05-01T10:14:01+0000"), "59 s ago\n");
    EXPECT_EQ(shown(TimeForm::Relative, "2024-05-01T10:14:00+0000"), "1 min ago\n");
    EXPECT_EQ(shown(TimeForm::Relative, "2024-05-03T10:14:59+0000"), "in 1 d\n");
    EXPECT_EQ(shown(TimeForm::Relative, "1999-05-01T10:15:00+0000"), "25 y ago\n");
    EXPECT_EQ(shown(TimeForm::Relative, "some day"), "some day\n");
}

TEST(Table, ColoursMarkNamesAndNulls) {
    EXPECT_EQ(printedWith({.colours = true}, "table", {"a", "b"}, {{null, text("x")}}),
              "\x1b[1ma  b\x1b[0m\n-  -\n\x1b[2m-\x1b[0m  x\n");
    EXPECT_EQ(printedWith({.colours = true}, "record", {"a", "bc"}, {{text("1"), text("x")}}),
              "\x1b[1ma\x1b[0m   1\n\x1b[1mbc\x1b[0m  x\n");
}

TEST(Wide, IsATableOfWhichNothingIsCut) {
    const std::string longText(500, 'x');
    EXPECT_EQ(printed("wide", {"a"}, {{text(longText)}}, std::nullopt, 20),
              "a\n" + std::string(500, '-') + "\n" + longText + "\n");
}

TEST(Record, HasAFieldALineAndAnEmptyLineBetweenRows) {
    EXPECT_EQ(printed("record", {"id", "a name"}, {{text("1"), text("x\ny")}, {null, text("")}}, RowCounts{2, 9}, 10),
              "id      1\n"
              "a name  x\\ny\n"
              "\n"
              "id      -\n"
              "a name\n"
              "\n"
              "2 of 9 rows\n");
    EXPECT_EQ(printed("record", {"a"}, {}), "");
}

TEST(Csv, WithoutHeaderBeginsWithTheFirstRow) {
    EXPECT_EQ(printedWith({.header = false}, "csv", {"a"}, {{text("x")}}), "x\r\n");
}

TEST(Tsv, IsALineARowWhateverTheValuesHold) {
    EXPECT_EQ(printed("tsv", {"a", "b\tc"},
                      {{text("x\ty\n\r\\"), null}, {text(""), binary("\xFF")}, {text("\\N"), text("\xC3\xA9")}}),
              "a\tb\\tc\n"
              "x\\ty\\n\\r\\\\\t\\N\n"
              "\t/w==\n"
              "\\\\N\t\xC3\xA9\n");
    EXPECT_EQ(printedWith({.header = false}, "tsv", {"a"}, {{text("x")}}), "x\n");
}

TEST(Csv, IsExact) {
    EXPECT_EQ(printed("csv", {"a", "b,c", "q\"q"},
                      {{text("plain"), text("a,b"), text("say \"hi\"")},
                       {null, text(""), text("two\r\nlines")},
                       {binary(std::string_view("\0\xFF", 2)), binary(""), text(" blank ")},
                       {text("\xC3\xA9"), text("\t"), text("=1+1")}},
                      RowCounts{4, 4}),
              "a,\"b,c\",\"q\"\"q\"\r\n"
              "plain,\"a,b\",\"say \"\"hi\"\"\"\r\n"
              ",\"\",\"two\r\nlines\"\r\n"
              "AP8=,\"\", blank \r\n"
              "\xC3\xA9,\t,=1+1\r\n");
}

TEST(Json, IsExact) {
    const std::vector<std::string> names{"a", "b\"c"};
    const std::string control("\x01\x1f\\/\xE2\x80\xA8", 7);
    EXPECT_EQ(
        printed("json", names, {{text("1"), null}, {text("\"\n\t\r"), binary("\xFF")}, {text(control), text("\xFF")}}),
        "[\n{\"a\":\"1\",\"b\\\"c\":null},\n"
        "{\"a\":\"\\\"\\n\\t\\r\",\"b\\\"c\":{\"base64\":\"/w==\"}},\n"
        "{\"a\":\"\\u0001\\u001f\\\\/\xE2\x80\xA8\",\"b\\\"c\":{\"base64\":\"/w==\"}}\n]\n");
    EXPECT_EQ(printed("json", names, {}), "[]\n");
}

const ColumnKinds numbers{
    {"n", QORColumnKind::Integer}, {"size", QORColumnKind::Integer}, {"d", QORColumnKind::Number}};

TEST(Json, NumbersAreNumbersAsTheyAreSpelled) {
    EXPECT_EQ(printedWith({.kinds = numbers}, "json", {"n", "d", "t"},
                          {{text("9223372036854775807"), text("-0.5e+300"), text("12")},
                           {null, text("0"), text("")},
                           {text("-1"), text("1E5"), null}}),
              "[\n{\"n\":9223372036854775807,\"d\":-0.5e+300,\"t\":\"12\"},\n"
              "{\"n\":null,\"d\":0,\"t\":\"\"},\n"
              "{\"n\":-1,\"d\":1E5,\"t\":null}\n]\n");
}

TEST(Json, WhatIsNoNumberOfJsonIsATextAmongNumbers) {
    for (const std::string value : {"", "-", "NaN", "Infinity", "01", "-01", "1.", ".5", "1e", "1e+", "+1", " 1", "1 ",
                                    "0x10", "1,5", "1.5.5", "--1"})
        EXPECT_EQ(printedWith({.kinds = numbers}, "ndjson", {"d"}, {{text(value)}}), "{\"d\":\"" + value + "\"}\n");
}

TEST(Ndjson, IsAnObjectALine) {
    EXPECT_EQ(printedWith({.kinds = numbers}, "ndjson", {"n", "t"}, {{text("1"), text("a\nb")}, {null, binary("\xFF")}},
                          RowCounts{2, 2}),
              "{\"n\":1,\"t\":\"a\\nb\"}\n"
              "{\"n\":null,\"t\":{\"base64\":\"/w==\"}}\n");
    EXPECT_EQ(printed("ndjson", {"a"}, {}), "");
}

TEST(Yaml, IsAListOfMappings) {
    EXPECT_EQ(printedWith({.kinds = numbers}, "yaml", {"size", "some text"},
                          {{text("1"), text("web-1.example")}, {null, text("a: b")}, {text("NaN"), binary("\xFF")}}),
              "- size: 1\n"
              "  \"some text\": web-1.example\n"
              "- size: null\n"
              "  \"some text\": \"a: b\"\n"
              "- size: \"NaN\"\n"
              "  \"some text\": !!binary \"/w==\"\n");
    EXPECT_EQ(printed("yaml", {"a"}, {}), "[]\n");
}

TEST(Yaml, TextsThatMeanSomethingElseAreQuoted) {
    for (const std::string value :
         {"no",  "Yes",        "NULL", "true", "off", "y",  "~",  "1",  "-1", "1.5", "",    "- a", "#x",
          "a b", "2024-05-01", "0x1f", ".inf", "*a",  "&a", "!a", "%a", "@a", "a:",  "[a]", "{a}"})
        EXPECT_EQ(printed("yaml", {"t"}, {{text(value)}}), "- t: \"" + value + "\"\n");
    EXPECT_EQ(printed("yaml", {"t"}, {{text("a\x7f\xC2\x85\xC2\xA0\n\"")}}), "- t: \"a\\x7F\\x85\xC2\xA0\\n\\\"\"\n");
    EXPECT_EQ(printed("yaml", {"t"}, {{text("\xFF")}}), "- t: !!binary \"/w==\"\n");
}

TEST(Template, IsFilledInForEachRow) {
    const Rows rows{{text("install"), text("tar"), null}, {text("a{b}"), binary("\xFF"), text("2")}};
    const std::vector<std::string> names{"op", "package", "n"};
    EXPECT_EQ(filledIn("{op}\\t{{{package}}}\\\\{n}", names, rows), "install\t{tar}\\\na{b}\t{/w==}\\2\n");
    EXPECT_EQ(filledIn("{op}\\n\\n", names, rows), "install\n\na{b}\n\n");
    EXPECT_EQ(filledIn("", names, rows), "\n\n");
}

TEST(Template, MistakesAreNamed) {
    const auto mistake = [](std::string_view pattern) {
        try {
            return filledIn(pattern, {"op", "n"}, {});
        } catch (const CtlError& error) {
            EXPECT_EQ(error.exit(), CtlExit::BadUsage);
            return std::string(error.what());
        }
    };
    EXPECT_EQ(mistake("{op"), "--template: the } is missing behind {op");
    EXPECT_EQ(mistake("op}"), "--template: a } that ends nothing (}} is a brace)");
    EXPECT_EQ(mistake("\\x"), "--template: \\x means nothing; there are \\n, \\t and \\\\");
    EXPECT_EQ(mistake("{x}"), "--template: the answer has no column \"x\"; it has op, n");
    EXPECT_EQ(mistake("\\"), "--template: a \\ at the end means nothing; there are \\n, \\t and \\\\");
}

TEST(Json, CountsStandBesideTheRows) {
    EXPECT_EQ(printed("json", {"a"}, {{text("x")}}, RowCounts{1, 400}),
              "{\"rows\":[\n{\"a\":\"x\"}\n],\"count\":1,\"total\":400}\n");
}

TEST(Xml, IsTheRowSet) {
    EXPECT_EQ(printed("xml", {"a", "b"}, {{text("1 < 2"), null}, {binary("\xFF"), text("")}}, RowCounts{2, 9}),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<row_set>\n"
              "<name>a</name>\n"
              "<name>b</name>\n"
              "<row><value>1 &lt; 2</value><value/></row>\n"
              "<row><value encoding=\"base64\">/w==</value><value></value></row>\n"
              "<statistics>2</statistics>\n"
              "<total>9</total>\n"
              "</row_set>\n");
}

}  // namespace
}  // namespace QOR
