#include <dlfcn.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <iterator>
#include <memory>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORText.h"
#include "QORFunctionality/QORCollector.h"
#include "QORFunctionality/QOROpFactory.h"
#include "conformance/CheckReport.h"
#include "conformance/CollectorChecks.h"
#include "conformance/FileChecks.h"
#include "conformance/OperatorChecks.h"
#include "conformance/QORPlugInCheck.h"
#include "host/QORHost.h"
#include "host/QORHostPaths.h"
#include "ingest/QORCollectors.h"
#include "ingest/QORIngest.h"
#include "ingest/QORSampleData.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;

constexpr QORSampleOptions sample{.environments = 40, .operations = 200, .events = 200, .backups = 20, .seed = 1};

std::size_t threadCount() {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()));
}

/// One that was joined is among them until the kernel has removed it.
bool hasNoMoreThreads(std::size_t threads) {
    constexpr auto pause = std::chrono::milliseconds(10);
    constexpr int looks = 200;
    for (int look = 0; look < looks; ++look) {
        if (threadCount() <= threads) return true;
        std::this_thread::sleep_for(pause);
    }
    return false;
}

void fillDatabase() {
    QORSampleData records(sample);
    std::stringstream lines;
    for (std::string line; records.next(line);)
        lines << line << '\n';
    QORIngest().importLines(lines);
}

/// What a plug-in has brought.
struct Brought {
    std::vector<std::string> operators;
    std::vector<QORCollector*> collectors;
};

std::vector<std::string> namesOf(const std::vector<QORCollector*>& collectors) {
    std::vector<std::string> names;
    names.reserve(collectors.size());
    for (const QORCollector* const collector : collectors)
        names.push_back(collector->traits().name);
    return names;
}

bool isOperatorName(const std::string& name) {
    return !name.empty() &&
           std::all_of(name.begin(), name.end(), [](char ch) { return isWordChar(ch) || ch == '-' || ch == '.'; });
}

CheckOutcome checkBrought(const Brought& brought) {
    if (brought.operators.empty() && brought.collectors.empty())
        return CheckOutcome::fault("it brings neither an operator nor a collector",
                                   "make one of its factories or collectors an object of static storage");
    for (const std::string& name : brought.operators)
        if (!isOperatorName(name))
            return CheckOutcome::fault("an operator is called " + quoteText(name),
                                       "call it by letters, digits, '_', '-' and '.'");
    if (std::set<std::string>(brought.operators.begin(), brought.operators.end()).size() < brought.operators.size())
        return CheckOutcome::fault("two operators have one name, of which the first is served alone",
                                   "give each a name of its own");
    for (const QORCollector* const collector : brought.collectors) {
        const QORCollector::Traits& traits = collector->traits();
        if (traits.source.empty())
            return CheckOutcome::fault("collector " + traits.name + " does not say what it reads", "name its source");
        if (traits.every.count() < 1 || traits.deadline.count() < 1)
            return CheckOutcome::fault("collector " + traits.name + " has no time between runs, or none for one",
                                       "give it an interval of a second at least, and a deadline");
    }
    const auto told = [](const std::vector<std::string>& names) { return names.empty() ? "none" : joinTexts(names); };
    return CheckOutcome::fine("operators: " + told(brought.operators) +
                              "; collectors: " + told(namesOf(brought.collectors)));
}

/// The process that uses a plug-in.
class Inside {
public:
    Inside(CheckReport& report, const std::string& file, fs::path folder, fs::path root)
        : m_report(report), m_file(fs::canonical(file)), m_folder(std::move(folder)), m_root(std::move(root)) {}

    void runAll() {
        bool lacksSymbols = false;
        m_report.run("symbols", [&] {
            CheckOutcome outcome = checkSymbols(m_file);
            lacksSymbols = outcome.level == QORPlugInFinding::Level::Fault;
            return outcome;
        });
        if (lacksSymbols) return;
        registerCollectors();
        m_hostCollectors = QORCollectorRegistry::instance().all();
        const std::size_t threads = threadCount();
        if (!useIt()) return;
        m_report.run("unloading", [&] { return checkUnloaded(threads); });
        m_report.run("beside others", [this] { return besideOthers(); });
    }

private:
    fs::path linked(const std::string& folder, const std::vector<fs::path>& files) const {
        fs::path place = m_folder / folder;
        fs::create_directories(place);
        for (const fs::path& file : files)
            fs::create_symlink(file, place / nameFor(file));
        return place;
    }
    /// A name that hosts do not pass over.
    static std::string nameFor(const fs::path& file) {
        const std::string name = file.filename().string();
        return name.starts_with("lib") && name.ends_with(".so") ? name : "lib" + name + ".so";
    }

    std::unique_ptr<QORHost> makeHost(const fs::path& plugIns, const char* database) const {
        QORHostOptions options;
        options.database.connectionString = sqliteConnectionString(m_folder / database);
        options.plugInDirectory = plugIns;
        return std::make_unique<QORHost>(std::move(options));
    }

    Brought brought() const {
        Brought result{QOROpFactoryRegistry::instance().names(), {}};
        for (QORCollector* const collector : QORCollectorRegistry::instance().all())
            if (std::find(m_hostCollectors.begin(), m_hostCollectors.end(), collector) == m_hostCollectors.end())
                result.collectors.push_back(collector);
        return result;
    }

    /// A refusal names the file, which people know.
    std::string reasonOf(const QORPlugInLoader::Refusal& refusal) const {
        const std::string& text = refusal.reason;
        const std::string begin = "cannot load plug-in " + refusal.file.string() + ": ";
        return text.starts_with(begin) ? text.substr(begin.size()) : text;
    }

    /// \returns whether it could be loaded
    bool useIt() {
        std::unique_ptr<QORHost> host;
        std::string refused;
        const auto load = [&] {
            host = makeHost(linked("plugins", {m_file}), "check.db");
            if (!host->refusedPlugIns().empty()) refused = reasonOf(host->refusedPlugIns().front());
            return refused.empty() ? CheckOutcome::fine("loaded")
                                   : CheckOutcome::fault(refused, "it would be left out by an agent");
        };
        m_report.run("loading", load);
        if (!host) load();  // in an earlier process it went well
        if (!refused.empty()) return false;
        fillDatabase();
        const Brought all = brought();
        m_report.run("brings", [&] { return checkBrought(all); });
        checkOperators(m_report, *host, all.operators);
        checkCollectors(m_report, all.collectors, m_root, m_folder / "collectors");
        return true;
    }

    CheckOutcome checkUnloaded(std::size_t threads) const {
        const Brought left = brought();
        if (!left.operators.empty() || !left.collectors.empty())
            return CheckOutcome::fault(
                "what it brought is still there: " + joinTexts(left.operators) + joinTexts(namesOf(left.collectors)),
                "make factories and collectors objects of static storage, not of the heap");
        if (!hasNoMoreThreads(threads))
            return CheckOutcome::fault("threads that it started go on when its code is gone",
                                       "end and join them in finiQORPlugIn()");
        if (void* const library = ::dlopen(m_file.c_str(), RTLD_NOW | RTLD_NOLOAD)) {
            ::dlclose(library);
            return CheckOutcome::advice("it stays in memory", "make it by qor_add_plugin() of find_package(QOR)");
        }
        return CheckOutcome::fine("nothing of it is left");
    }

    /// Loaded anew, with the plug-ins that this installation has.
    CheckOutcome besideOthers() const {
        std::vector<fs::path> files;
        std::error_code missing;
        for (const auto& entry : fs::directory_iterator(defaultPlugInDirectory(), missing))
            if (entry.path().extension() == ".so" && nameFor(entry.path()) != nameFor(m_file))
                files.push_back(fs::canonical(entry.path()));
        const std::size_t others = files.size();
        files.push_back(m_file);
        const std::unique_ptr<QORHost> host = makeHost(linked("beside", files), "beside.db");
        if (!host->refusedPlugIns().empty()) return CheckOutcome::fault(reasonOf(host->refusedPlugIns().front()), "");
        const std::vector<std::string> names = QOROpFactoryRegistry::instance().names();
        for (std::size_t index = 0; index < names.size(); ++index)
            if (std::find(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(index), names[index]) !=
                names.begin() + static_cast<std::ptrdiff_t>(index))
                return CheckOutcome::fault("another plug-in serves operator " + names[index] + " too",
                                           "give it a name of its own");
        return CheckOutcome::fine("loaded again, with " + std::to_string(others) + " more");
    }

    CheckReport& m_report;
    const fs::path m_file;
    const fs::path m_folder;
    const fs::path m_root;
    std::vector<QORCollector*> m_hostCollectors;
};

}  // namespace

int checkPlugInInside(const std::vector<std::string>& arguments) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    // A program that the plug-in starts would hold it open, and nobody would see that this process ends.
    ::fcntl(reportDescriptor, F_SETFD, FD_CLOEXEC);
    constexpr rlimit noCore{0, 0};  // nobody asked for one
    ::setrlimit(RLIMIT_CORE, &noCore);
    if (arguments.size() < 3) return 1;
    CheckReport report(reportDescriptor, doneChecksOf(std::span(arguments).subspan(3)));
    Inside(report, arguments[0], arguments[1], arguments[2]).runAll();
    return 0;
}

}  // namespace QOR
