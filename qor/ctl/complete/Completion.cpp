#include "complete/Completion.h"

#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <set>
#include <string_view>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORDBSchema/QORViewDescriptions.h"
#include "QORPager/QORSources.h"
#include "backend/Contexts.h"
#include "commands/ShortCommands.h"
#include "complete/CompletionPlace.h"
#include "complete/LiveNames.h"
#include "complete/ShellWords.h"
#include "help/CommandMistakes.h"
#include "host/QORHostPaths.h"
#include "host/QORPlainNumber.h"
#include "output/Output.h"

namespace QOR {
namespace {

/// Milliseconds that somebody waits for what a key is to bring, where he has not said.
constexpr std::uint64_t patience = 300;
constexpr std::uint64_t mostPatience = 600'000;

enum class Values { Files, Contexts, Identities, Views, Subjects, Columns, Condition, Fields, Filter };

/// What an option takes that its type does not tell, of one command or ("") of all others.
struct OptionValues {
    std::string_view command;
    std::string_view option;
    Values values;
};

constexpr OptionValues optionValues[] = {
    {"select", "--view", Values::Views},
    {"views", "view", Values::Views},
    {"explain", "about", Values::Subjects},
    {"rows", "--field", Values::Fields},
    {"rows", "--sort", Values::Fields},
    {"rows", "--where", Values::Filter},
    {"fields", "prefix", Values::Fields},
    {"filter", "filter", Values::Filter},
    {"", "--field", Values::Columns},
    {"", "--sort", Values::Columns},
    {"", "--where", Values::Condition},
    {"", "--context", Values::Contexts},
    {"context use", "name", Values::Contexts},
    {"context remove", "name", Values::Contexts},
    {"context show", "name", Values::Contexts},
    {"identity show", "name", Values::Identities},
    {"identity remove", "name", Values::Identities},
    {"token create", "name", Values::Identities},
    {"token list", "name", Values::Identities},
    {"token revoke", "name", Values::Identities},
};

const OptionValues* findValues(std::string_view command, std::string_view option) {
    const OptionValues* found = nullptr;
    for (const OptionValues& each : optionValues)
        if (each.option == option && (each.command == command || (each.command.empty() && found == nullptr)))
            found = &each;
    return found;
}

/// Help names what lies on the disk by these words.
bool takesFiles(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    return type == "FILE" || type == "FOLDER" || type == "PATH" || type == "DATABASE";
}

bool isPartOfName(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '.';
}

/// The name at the end of a text; empty where the text ends otherwise.
std::string_view lastName(std::string_view text) {
    std::size_t begin = text.size();
    while (begin > 0 && isPartOfName(text[begin - 1]))
        --begin;
    return text.substr(begin);
}

void endWhenItTakesTooLong() {
    struct sigaction action {};
    action.sa_handler = [](int) { ::_exit(0); };
    ::sigaction(SIGALRM, &action, nullptr);
    const char* const given = std::getenv("QOR_COMPLETION_WAIT");
    const std::uint64_t wait = readPlainNumber(given == nullptr ? "" : given, {1, mostPatience}).value_or(patience);
    const itimerval when{.it_interval = {},
                         .it_value = {.tv_sec = static_cast<time_t>(wait / 1000),
                                      .tv_usec = static_cast<suseconds_t>(wait % 1000 * 1000)}};
    ::setitimer(ITIMER_REAL, &when, nullptr);
}

/// The words there are for one place, and printing those that go on as it begins.
class Completion {
public:
    Completion(CLI::App& app, const std::vector<std::string>& words, std::string kept)
        : m_place(findCompletionPlace(app, words)),
          m_kept(std::move(kept)),
          m_live(connection(), endWhenItTakesTooLong),
          m_out(STDOUT_FILENO) {}

    void print() {
        if (m_place.option == nullptr) {
            printNames();
        } else if (const std::vector<std::string> words = wordsOf(*m_place.option); !words.empty()) {
            for (const std::string& word : words)
                offer({word, {}});
        } else if (const OptionValues* const values = findValues(m_place.name, valueName(*m_place.option))) {
            printValues(values->values);
        } else if (takesFiles(*m_place.option)) {
            printValues(Values::Files);
        }
        m_out.flush();
    }

private:
    ConnectionOptions connection() const {
        ConnectionOptions options;
        options.socket = m_place.valueOf("--socket");
        options.agent = m_place.valueOf("--agent");
        options.tokenFile = m_place.valueOf("--token-file");
        options.ca = m_place.valueOf("--ca");
        options.certificate = m_place.valueOf("--certificate");
        options.key = m_place.valueOf("--key");
        options.config = m_place.valueOf("--config");
        options.context = m_place.valueOf("--context");
        options.standalone = m_place.given.count("--standalone") > 0;
        options.readOnly = options.standalone;
        if (const std::string database = m_place.valueOf("--database"); !database.empty())
            options.database = connectionStringOf(database);
        return options;
    }

    /// A word that goes on as its place begins.
    void offer(const NamedThing& thing) {
        if (!thing.name.starts_with(m_place.beginning)) return;
        const std::string word = m_place.front + thing.name;
        if (!word.starts_with(m_kept)) return;
        if (std::exchange(m_isOpen, false)) m_out << ":open\n";
        m_out << word.substr(m_kept.size()) << "\t" << thing.meaning << "\n";
    }

    void offerAll(const std::vector<NamedThing>& things) {
        for (const NamedThing& thing : things)
            offer(thing);
    }

    /// What is being written is the end of a longer text.
    void keepInFront(std::size_t size) {
        m_place.front += m_place.beginning.substr(0, size);
        m_place.beginning.erase(0, size);
        m_isOpen = true;
    }

    void printNames() {
        if (!m_place.beginning.starts_with("-")) {
            for (const CLI::App* const each : m_place.command->get_subcommands([](const CLI::App*) { return true; }))
                offer({each->get_name(), each->get_description()});
            return;
        }
        for (const CLI::Option* const option : m_place.command->get_options())
            for (const std::string& name : option->get_lnames())
                offer({"--" + name, option->get_description()});
    }

    void printValues(Values values) {
        switch (values) {
            case Values::Files:
                m_out << ":files\n";
                return;
            case Values::Contexts:
                for (const auto& [name, context] : readContexts().all)
                    offer({name, context.agent.empty() ? context.database : context.agent});
                return;
            case Values::Identities:
                offerAll(m_live.identities());
                return;
            case Values::Views:
                offerAll(m_live.views());
                return;
            case Values::Subjects:
                for (const QORSource& source : pagerSources())
                    offer({std::string(source.records), std::string(source.title)});
                m_out.flush();
                offerAll(m_live.views());
                return;
            case Values::Columns:
                printListed(columns());
                return;
            case Values::Fields:
                printListed(fields());
                return;
            case Values::Condition:
                printCondition(columns());
                return;
            case Values::Filter:
                printCondition(fields());
                return;
        }
    }

    /// The view whose columns may stand here; empty where none is known.
    std::string view() const {
        for (const ShortCommand& each : shortCommands())
            if (each.name == m_place.name) return std::string(each.view);
        return m_place.valueOf(m_place.name == "explain" ? "about" : "--view");
    }

    std::vector<NamedThing> columns() { return view().empty() ? std::vector<NamedThing>() : m_live.columns(view()); }

    std::vector<NamedThing> fields() {
        std::vector<NamedThing> all = m_live.fields();
        if (const std::string records = m_place.valueOf("records"); !records.empty()) {
            const std::vector<NamedThing> brief = m_live.shortFields(records);
            all.insert(all.begin(), brief.begin(), brief.end());
        }
        return all;
    }

    /// Names with commas between them, those to sort by behind '-', aggregates over one.
    void printListed(const std::vector<NamedThing>& names) {
        const std::string& text = m_place.beginning;
        const std::size_t comma = text.rfind(',');
        std::size_t begin = comma == std::string::npos ? 0 : comma + 1;
        if (begin < text.size() && text[begin] == '-') ++begin;
        const std::size_t bracket = text.find('(', begin);
        keepInFront(bracket == std::string::npos ? begin : bracket + 1);
        for (const NamedThing& name : names)
            offer({name.name + (bracket == std::string::npos ? "" : ")"), name.meaning});
    }

    /// The name that a condition ends with, or the words that a column is known to hold.
    void printCondition(const std::vector<NamedThing>& names) {
        const std::string_view text = m_place.beginning;
        const std::size_t quote = text.rfind('\'');
        const bool isQuoted = std::count(text.begin(), text.end(), '\'') % 2 == 1;
        if (isQuoted) {
            const std::string column(comparedColumn(text.substr(0, quote)));
            keepInFront(quote);
            for (const std::string& value : viewColumnValues(view(), column))
                offer({"'" + value + "'", {}});
            return;
        }
        keepInFront(text.size() - lastName(text).size());
        offerAll(names);
    }

    /// "op" of "... and op = ".
    static std::string_view comparedColumn(std::string_view text) {
        while (!text.empty() && !isPartOfName(text.back()))
            text.remove_suffix(1);
        std::string_view name = lastName(text);
        // In a list, the word in front is a value; it is enough to complete the first.
        for (const std::string_view word : {"in", "like", "not"}) {
            if (!isSameWord(name, word)) continue;
            text.remove_suffix(name.size());
            while (!text.empty() && text.back() == ' ')
                text.remove_suffix(1);
            name = lastName(text);
        }
        return name;
    }

    CompletionPlace m_place;
    std::string m_kept;  ///< of the word, what the shell leaves alone
    LiveNames m_live;
    FileOutput m_out;
    bool m_isOpen = false;  ///< to be told with the first word
};

}  // namespace

void completeCommandLine(CLI::App& app, const std::vector<std::string>& asked) {
    if (asked.size() < 2) return;
    try {
        if (asked.front() != "bash") {
            Completion(app, {asked.begin() + 1, asked.end()}, "").print();
            return;
        }
        ShellLine line = readShellLine(asked[1]);
        line.words.erase(line.words.begin());
        if (!line.words.empty()) Completion(app, line.words, line.kept).print();
    } catch (const std::exception&) {
        // Who is writing is told when he asks.
    }
}

}  // namespace QOR
