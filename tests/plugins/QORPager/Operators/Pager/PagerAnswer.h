/// \file
/// Requests of operator "pager" and its answers, in the terms of tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"

namespace QOR::test {

/// A request in parts, so that tests say only what matters to them.
struct Ask {
    std::vector<std::string> fields;
    std::optional<std::string> where = {};
    std::string more = {};  ///< further elements, each with a comma before it

    std::string body() const {
        std::string text = "[1740,[";
        for (std::size_t i = 0; i < fields.size(); ++i) {
            if (i > 0) text += ',';
            text += "[1741," + quoted(fields[i]) + "]";
        }
        if (where) text += (fields.empty() ? "" : ",") + ("[1742," + quoted(*where)) + "]";
        return text + more + "]]";
    }
    static std::string quoted(const std::string& text) {
        std::string json = "\"";
        for (const char ch : text) {
            if (ch == '"' || ch == '\\') json += '\\';
            json += ch;
        }
        return json + '"';
    }
};

constexpr const char* counts = R"(,[1259,"1"])";
inline std::string limit(int size, int offset) {
    return ",[1377,[[1024,\"" + std::to_string(size) + "\"],[1087,\"" + std::to_string(offset) + "\"]]]";
}

/// What an answer says: rows of cells, a list of values as "a|b"; then, if there are any, the counts.
struct Answer {
    std::vector<std::vector<std::string>> rows;
    std::optional<std::pair<std::int64_t, std::int64_t>> counts;
    std::string error;

    friend bool operator==(const Answer&, const Answer&) = default;
};

inline Answer readAnswer(std::string_view text) {
    QORResponse response = readResponse(text);
    Answer answer;
    if (response.error) answer.error = std::to_string(response.error->code) + " " + response.error->message;
    QORBinaryIterator it = response.response.root();
    if (it.firstChild(tag::rowSet) != 0) return answer;
    std::int64_t written = 0;
    std::int64_t total = 0;
    if (it.getValue(written, tag::statistics) == 0 && it.getValue(total, tag::total) == 0) {
        answer.counts = {written, total};
    }
    if (it.firstChild(tag::row) != 0) return answer;
    do {
        auto& row = answer.rows.emplace_back();
        QORBinaryIterator cell = it;
        if (cell.firstChild(tag::cell) != 0) continue;
        do {
            std::string value;
            if (cell.getValue(value, tag::value) != 0) {
                QORBinaryIterator nested = cell;
                for (int found = nested.firstChild(tag::cell); found == 0; found = nested.nextSibling(tag::cell)) {
                    std::string one;
                    nested.getValue(one, tag::value);
                    value += (value.empty() ? "" : "|") + one;
                }
            }
            row.push_back(value);
        } while (cell.nextSibling(tag::cell) == 0);
    } while (it.nextSibling(tag::row) == 0);
    return answer;
}

/// The first cell of every row, joined by blanks.
inline std::string firstCells(const Answer& answer) {
    std::string text;
    for (const auto& row : answer.rows)
        text += (text.empty() ? "" : " ") + row.front();
    return text;
}

}  // namespace QOR::test
