#include "filter/FilterCommand.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include "filter/FilterInspector.h"
#include "filter/FilterNames.h"
#include "host/QORVocabularyFiles.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

constexpr int badUsage = 2;

struct Options {
    std::string text;
    std::string config;
    bool lines = false;
};

std::string readAll(std::istream& in) {
    std::string text{std::istreambuf_iterator<char>(in), {}};
    // The line end that a shell or an editor puts at the end is not a part of the filter.
    if (text.ends_with('\n')) text.pop_back();
    return text;
}

/// Those that an agent with the vocabulary knows. \param config of the agent, besides the shipped one; empty for none
FilterNames namesOf(const std::string& config) {
    const QORVocabularyFiles files = readVocabularyFiles(config, {});
    for (const QORVocMistake& mistake : files.mistakes)
        if (mistake.fatal) throw CtlError::usage(mistake.text());
    return FilterNames(files.read.empty() ? nullptr : files.vocabulary);
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
    return runFilterPerson(text, namesOf(options.config), std::cout, std::cerr);
}

}  // namespace

void addFilterCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<Options>();
    CLI::App* const command = app.add_subcommand("filter", "Show how a filter of \"rows --where\" is read");
    command->add_option("text", options->text, "the filter; - or nothing reads it from standard input");
    command->add_option("--config", options->config, "the agent's vocabulary, for the names that it declares")
        ->type_name("FILE");
    command->add_flag("--lines", options->lines, "answer JSON questions, one a line");
    command->callback([options, &exitCode] { exitCode = runFilter(*options); });
}

}  // namespace QOR
