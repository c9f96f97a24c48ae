#include "process/TiedValues.h"

#include <algorithm>
#include <string_view>

#include "output/RowPrinter.h"

namespace QOR {
namespace {

constexpr std::string_view ownValue[] = {"--sort", "--where", "--client", "--since", "--until"};
constexpr std::string_view shortOptions[] = {"-f", "-o", "-h"};

template <std::size_t N>
bool isOneOf(std::string_view word, const std::string_view (&words)[N]) {
    return std::find(std::begin(words), std::end(words), word) != std::end(words);
}

bool isSortKey(std::string_view word) {
    const bool tellsForm = word.starts_with("-o") && findRowForm(word.substr(2)) != nullptr;
    return !word.starts_with("--") && !isOneOf(word, shortOptions) && !tellsForm;
}

}  // namespace

std::vector<std::string> tieValues(const std::vector<std::string>& arguments) {
    std::vector<std::string> tied;
    for (std::size_t at = 0; at < arguments.size(); ++at) {
        const std::string& option = arguments[at];
        const bool ties = isOneOf(option, ownValue) && at + 1 < arguments.size();
        // An empty value would be lost behind "="; a blank means the same to a condition.
        if (ties) tied.push_back(option + "=" + (arguments[at + 1].empty() ? " " : arguments[at + 1]));
        if (!ties) tied.push_back(option);
        if (!ties) continue;
        ++at;
        if (option != "--sort") continue;
        while (at + 1 < arguments.size() && isSortKey(arguments[at + 1]))
            tied.push_back("--sort=" + arguments[++at]);
    }
    return tied;
}

}  // namespace QOR
