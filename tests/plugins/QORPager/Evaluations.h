/// \file
/// The ways to evaluate a filter, and what comes of each.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

#include "QORPager/QORExpressionEvaluation.h"

namespace QOR::test {

/// What an evaluation left: its text, its error code, or that it threw.
struct Outcome {
    std::string text;
    int code = 0;
    bool threw = false;
    friend bool operator==(const Outcome&, const Outcome&) = default;
    friend std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
        if (outcome.threw) return out << "out of range";
        return out << '"' << outcome.text << "\", code " << outcome.code;
    }
};

using Evaluation = void (TExpressionEvaluation::*)();

inline Outcome outcomeOf(TExpressionEvaluation& evaluator, Evaluation evaluation) {
    try {
        (evaluator.*evaluation)();
    } catch (const std::out_of_range&) {
        return {"", evaluator.getErrorCode(), true};
    }
    return {evaluator.doToString(), evaluator.getErrorCode(), false};
}

inline Outcome value(std::string text) {
    return {std::move(text), etNoErrors, false};
}
inline Outcome failure(TErrorType code) {
    return {"Error", code, false};
}

/// An evaluator with names of every type: a = 1, b = 2, s = "abc", t = "", flag = true, and the special ones sp = 1,
/// sq = "abc", sb = true, pager.env.eid and its placeholder "".
inline void bindNames(TExpressionEvaluation& evaluator) {
    evaluator.setIdentifier("a", 1, false);
    evaluator.setIdentifier("b", 2, false);
    evaluator.setIdentifier("s", "abc", false);
    evaluator.setIdentifier("t", "", false);
    evaluator.setIdentifier("flag", true, false);
    evaluator.setIdentifier("sp", 1, true);
    evaluator.setIdentifier("sq", "abc", true);
    evaluator.setIdentifier("sb", true, true);
    evaluator.setIdentifier("pager.env.eid", "", true);
    evaluator.setIdentifier("pager.env.eid.InPlaceholder", "", true);
}

inline std::unique_ptr<TExpressionEvaluation> makeEvaluator(std::string_view text) {
    auto evaluator = std::make_unique<TExpressionEvaluation>(text);
    bindNames(*evaluator);
    return evaluator;
}

}  // namespace QOR::test
