#include "filter/FilterCommand.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include "filter/FilterInspector.h"

namespace QOR {
namespace {

constexpr int badUsage = 2;

struct Options {
    std::string text;
    bool lines = false;
};

std::string readAll(std::istream& in) {
    std::string text{std::istreambuf_iterator<char>(in), {}};
    // The line end that a shell or an editor puts at the end is not a part of the filter.
    if (text.ends_with('\n')) text.pop_back();
    return text;
}

int runFilter(const Options& options) {
    if (options.lines) {
        if (!options.text.empty() && options.text != "-") {
            std::cerr << "qorctl filter --lines reads standard input and takes no filter\n";
            return badUsage;
        }
        std::ios::sync_with_stdio(false);
        return runFilterLines(std::cin, std::cout);
    }
    const std::string text = options.text.empty() || options.text == "-" ? readAll(std::cin) : options.text;
    return runFilterPerson(text, std::cout, std::cerr);
}

}  // namespace

void addFilterCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<Options>();
    CLI::App* const command = app.add_subcommand("filter", "Show how a filter of \"rows --where\" is read");
    command->add_option("text", options->text, "the filter; - or nothing reads it from standard input");
    command->add_flag("--lines", options->lines, "answer JSON questions, one a line");
    command->callback([options, &exitCode] { exitCode = runFilter(*options); });
}

}  // namespace QOR
