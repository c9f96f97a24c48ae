#include "complete/CompletionPlace.h"

namespace QOR {
namespace {

/// Reads the words in front of the one being written.
class Walk {
public:
    explicit Walk(CLI::App& app) { m_place.command = &app; }

    void take(const std::string& word) {
        if (m_place.option != nullptr) {
            m_place.given[valueName(*m_place.option)] = word;
            m_place.option = nullptr;
        } else if (!m_onlyValues && word == "--") {
            m_onlyValues = true;
        } else if (!m_onlyValues && word.size() > 1 && word.front() == '-') {
            takeOption(word);
        } else if (CLI::App* const command = commandOf(word); command != nullptr) {
            m_place.command = command;
            m_place.name += (m_place.name.empty() ? "" : " ") + word;
        } else if (const CLI::Option* const value = nextValue(); value != nullptr) {
            m_place.given[valueName(*value)] = word;
            ++m_values;
        }
    }

    CompletionPlace end(const std::string& word) {
        const std::size_t equals = word.find('=');
        if (m_place.option != nullptr) {
            m_place.beginning = word;
        } else if (!m_onlyValues && word.starts_with("--") && equals != std::string::npos) {
            m_place.option = optionOf(word.substr(0, equals));
            m_place.front = word.substr(0, equals + 1);
            m_place.beginning = word.substr(equals + 1);
        } else {
            m_place.beginning = word;
            if (m_onlyValues || !word.starts_with("-")) m_place.option = nextValue();
        }
        return std::move(m_place);
    }

private:
    void takeOption(const std::string& word) {
        const std::size_t equals = word.find('=');
        CLI::Option* const option = optionOf(word.substr(0, equals));
        if (option == nullptr) return;
        if (equals != std::string::npos)
            m_place.given[valueName(*option)] = word.substr(equals + 1);
        else if (option->get_items_expected_max() > 0)
            m_place.option = option;
        else
            m_place.given[valueName(*option)] = "true";
    }

    CLI::Option* optionOf(const std::string& name) const { return m_place.command->get_option_no_throw(name); }

    CLI::App* commandOf(const std::string& word) const {
        if (m_onlyValues) return nullptr;
        for (CLI::App* const each : m_place.command->get_subcommands([](CLI::App*) { return true; }))
            if (each->get_name() == word) return each;
        return nullptr;
    }

    /// That which the next word without a name would be; null where there is none.
    CLI::Option* nextValue() const {
        std::size_t place = 0;
        for (CLI::Option* const option : m_place.command->get_options()) {
            if (!option->get_positional()) continue;
            const bool isLast = place == m_values || option->get_items_expected_max() > 1;
            // What was given by its name is not expected at its place any more.
            if (isLast && (m_place.given.count(valueName(*option)) == 0 || option->get_items_expected_max() > 1))
                return option;
            ++place;
        }
        return nullptr;
    }

    CompletionPlace m_place;
    std::size_t m_values = 0;
    bool m_onlyValues = false;
};

}  // namespace

std::string CompletionPlace::valueOf(const std::string& givenName) const {
    const auto found = given.find(givenName);
    return found == given.end() ? std::string() : found->second;
}

std::string valueName(const CLI::Option& option) {
    return option.get_lnames().empty() ? option.get_name(true) : "--" + option.get_lnames().front();
}

CompletionPlace findCompletionPlace(CLI::App& app, const std::vector<std::string>& words) {
    Walk walk(app);
    for (std::size_t i = 0; i + 1 < words.size(); ++i)
        walk.take(words[i]);
    return walk.end(words.empty() ? std::string() : words.back());
}

}  // namespace QOR
