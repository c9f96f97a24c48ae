/// \file
/// Options that take a number: the one way in which every program here declares them.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "host/QORPlainNumber.h"

namespace QOR {

/// Declares an option that takes a number; its help ends in the range: "(1 to 1024)". Any other value ends parsing with
/// a CLI::ValidationError that names option and range.
/// \param name with its two dashes \param take is given the number
template <class Take>
CLI::Option* addNumber(CLI::App& app, const std::string& name, QORNumberRange range, const std::string& description,
                       Take take) {
    const auto read = [name, range, take](const std::string& text) {
        const std::optional<std::uint64_t> number = readPlainNumber(text, range);
        if (!number) throw CLI::ValidationError(describeBadNumber(name, text, range));
        take(*number);
    };
    const std::string span = " (" + std::to_string(range.least) + " to " + std::to_string(range.most) + ")";
    return app.add_option_function<std::string>(name, read, description + span)->type_name("N");
}

}  // namespace QOR
