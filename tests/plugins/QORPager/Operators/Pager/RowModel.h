/// \file
/// Rows as a person would compute them: every row's values known beforehand, filters asked of each, sorted, cut. It
/// shares nothing with the operator but the meaning of its requests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace QOR::test {

enum class ModelType { Text, Number, Time };

struct ModelField {
    std::string name;
    ModelType type = ModelType::Text;
};

struct ModelRow {
    /// By field; none: missing. Times are their seconds.
    std::map<std::string, std::vector<std::string>> values;
    std::int64_t number = 0;  ///< orders rows that are equal, ...
    std::string key;          ///< ... behind the numbers
};

/// The values that a combination has picked, by field.
using ModelPick = std::map<std::string, std::string>;
using ModelTest = std::function<bool(const ModelPick&)>;

struct ModelFilter {
    std::string text;
    ModelTest test;
    std::vector<std::string> fields;
};

struct ModelSort {
    ModelField field;
    bool descending = false;
};

inline std::vector<std::string> valuesOf(const ModelRow& row, const std::string& field) {
    const auto found = row.values.find(field);
    return found == row.values.end() || found->second.empty() ? std::vector<std::string>{""} : found->second;
}

inline bool holdsFor(const ModelRow& row, const ModelFilter& filter, std::size_t at, ModelPick& pick) {
    if (at == filter.fields.size()) return filter.test(pick);
    for (const std::string& value : valuesOf(row, filter.fields[at])) {
        pick[filter.fields[at]] = value;
        if (holdsFor(row, filter, at + 1, pick)) return true;
    }
    return false;
}

inline bool holdsFor(const ModelRow& row, const ModelFilter& filter) {
    ModelPick pick;
    return holdsFor(row, filter, 0, pick);
}

/// Below 0, 0, above 0; missing ones first.
inline int compareValues(const ModelField& field, const std::string& left, const std::string& right) {
    if (left.empty() || right.empty()) return static_cast<int>(!left.empty()) - static_cast<int>(!right.empty());
    if (field.type == ModelType::Text) return left < right ? -1 : static_cast<int>(left > right);
    const long long a = std::stoll(left);
    const long long b = std::stoll(right);
    return a < b ? -1 : static_cast<int>(a > b);
}

/// \param rows in the order that they have without a key
inline std::vector<ModelRow> select(const std::vector<ModelRow>& rows, const ModelFilter* filter,
                                    const std::vector<ModelSort>& sort) {
    std::vector<ModelRow> found;
    for (const ModelRow& row : rows) {
        if (filter == nullptr || holdsFor(row, *filter)) found.push_back(row);
    }
    if (sort.empty()) return found;
    std::stable_sort(found.begin(), found.end(), [&](const ModelRow& a, const ModelRow& b) {
        for (const ModelSort& key : sort) {
            const int order =
                compareValues(key.field, valuesOf(a, key.field.name).front(), valuesOf(b, key.field.name).front());
            if (order != 0) return key.descending ? order > 0 : order < 0;
        }
        const auto left = std::pair(a.number, a.key);
        const auto right = std::pair(b.number, b.key);
        return sort.back().descending ? left > right : left < right;
    });
    return found;
}

/// Makes filters over fields, of values that rows have and of others.
class FilterMaker {
public:
    /// \param timeText how a request spells a time
    FilterMaker(std::vector<ModelField> fields, const std::vector<ModelRow>& rows, unsigned seed,
                std::function<std::string(const std::string&)> timeText)
        : m_fields(std::move(fields)), m_rows(rows), m_random(seed), m_timeText(std::move(timeText)) {}

    std::size_t number(std::size_t below) { return m_random() % below; }

    ModelFilter filter(int depth = 3) {
        const std::size_t kind = depth == 0 ? 9 : number(10);
        if (kind >= 6) return comparison();
        if (kind == 5) {
            ModelFilter inner = filter(depth - 1);
            return {"not (" + inner.text + ")", [test = inner.test](const ModelPick& pick) { return !test(pick); },
                    inner.fields};
        }
        const bool both = kind < 3;
        ModelFilter left = filter(depth - 1);
        ModelFilter right = filter(depth - 1);
        for (const std::string& field : right.fields) {
            if (std::find(left.fields.begin(), left.fields.end(), field) == left.fields.end())
                left.fields.push_back(field);
        }
        return {"(" + left.text + (both ? " and " : " or ") + right.text + ")",
                [both, a = left.test, b = right.test](const ModelPick& pick) {
                    return both ? a(pick) && b(pick) : a(pick) || b(pick);
                },
                left.fields};
    }

    std::vector<ModelSort> sort() {
        std::vector<ModelSort> keys;
        for (std::size_t left = number(4); left > 0; --left)
            keys.push_back({m_fields[number(m_fields.size())], number(2) == 0});
        return keys;
    }

private:
    ModelFilter comparison() {
        const ModelField field = m_fields[number(m_fields.size())];
        const std::vector<std::string> values = valuesOf(m_rows[number(m_rows.size())], field.name);
        std::string value = values[number(values.size())];
        if (field.type == ModelType::Text) return number(3) == 0 ? like(field, value) : ordered(field, value);
        if (value.empty()) value = "0";
        return ordered(field, std::to_string(std::stoll(value) + static_cast<long long>(number(3)) - 1));
    }

    ModelFilter ordered(const ModelField& field, const std::string& value) {
        static constexpr const char* operators[] = {"=", "<>", "<", "<=", ">", ">="};
        static constexpr const char* exchanged[] = {"=", "<>", ">", ">=", "<", "<="};
        const std::size_t which = number(6);
        std::string literal = "'" + value + "'";
        if (field.type == ModelType::Number) literal = value;
        if (field.type == ModelType::Time) literal = m_timeText(value);
        const bool turned = number(5) == 0 && field.type != ModelType::Number;
        const std::string text = turned ? "1=1 and " + literal + " " + exchanged[which] + " " + field.name
                                        : field.name + " " + operators[which] + " " + literal;
        const auto test = [field, value, which](const ModelPick& pick) {
            const std::string& own = pick.at(field.name);
            const bool asNumber = field.type != ModelType::Text;
            const int order = asNumber ? compareValues(field, own.empty() ? "0" : own, value)
                                       : (own < value ? -1 : static_cast<int>(own > value));
            constexpr bool (*tests[])(int) = {[](int o) { return o == 0; }, [](int o) { return o != 0; },
                                              [](int o) { return o < 0; },  [](int o) { return o <= 0; },
                                              [](int o) { return o > 0; },  [](int o) { return o >= 0; }};
            return tests[which](order);
        };
        return {"(" + text + ")", test, {field.name}};
    }

    ModelFilter like(const ModelField& field, const std::string& value) {
        const std::string part = value.substr(0, 1 + number(value.size() + 1));
        const std::string tail = value.substr(value.size() - std::min(value.size(), number(6)));
        switch (number(3)) {
            case 0:
                return {field.name + " like '" + part + "%'",
                        [=](const ModelPick& pick) { return pick.at(field.name).starts_with(part); },
                        {field.name}};
            case 1:
                return {field.name + " like '%" + tail + "'",
                        [=](const ModelPick& pick) { return pick.at(field.name).ends_with(tail); },
                        {field.name}};
            default:
                return {field.name + " like '%" + tail + "%'",
                        [=](const ModelPick& pick) { return pick.at(field.name).find(tail) != std::string::npos; },
                        {field.name}};
        }
    }

    std::vector<ModelField> m_fields;
    const std::vector<ModelRow>& m_rows;
    std::mt19937 m_random;
    std::function<std::string(const std::string&)> m_timeText;
};

}  // namespace QOR::test
