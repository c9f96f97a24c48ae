/// \file
/// The options of a command line, for its manual page: the one way in which every program here writes them.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "host/QORManualText.h"

namespace QOR {

/// How an option is written: "-o, --output FORMAT".
inline std::string formOfOption(const CLI::Option& option) {
    std::string form;
    for (const std::string& name : option.get_snames())
        form += (form.empty() ? "-" : ", -") + name;
    for (const std::string& name : option.get_lnames())
        form += (form.empty() ? "--" : ", --") + name;
    if (form.empty()) form = option.get_name(true);
    if (option.get_items_expected_max() > 0 && !option.get_positional() && !option.get_type_name().empty())
        form += " " + option.get_type_name();
    return form;
}

/// Entries of man(7) for those whose group is taken, but for hidden ones.
/// \param takes is given the group's name
template <class Takes>
std::string manualOptions(const CLI::App& app, Takes takes) {
    std::string text;
    for (const CLI::Option* const option : app.get_options()) {
        const std::string& group = option->get_group();
        if (!group.empty() && takes(group)) text += manualEntry(formOfOption(*option), option->get_description());
    }
    return text;
}

}  // namespace QOR
