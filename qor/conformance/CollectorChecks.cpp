#include "conformance/CollectorChecks.h"

#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>

#include "QORCommon/QORText.h"
#include "QORFunctionality/QORCollector.h"
#include "conformance/DamagedTree.h"
#include "ingest/CollectorPosition.h"
#include "ingest/QORCollectors.h"
#include "ingest/QORMachine.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* sameIdentifiers =
    "give records identifiers that are the same whenever they are read, such as QORGUIDBase::fromName()";

/// The checks of one collector.
class CollectorChecks {
public:
    CollectorChecks(CheckReport& report, QORCollector& collector, fs::path folder)
        : m_report(report),
          m_collector(collector),
          m_prefix("collector " + collector.traits().name + ": "),
          m_folder(std::move(folder)) {
        fs::create_directories(m_folder / "empty");
    }

    void runAll(const fs::path& root) {
        check("no source", [this] { return withoutSource(); });
        check("told to end", [&] { return toldToEnd(root.empty() ? m_folder / "empty" : root); });
        const fs::path tree = root.empty() ? treeOfSource() : root;
        if (!tree.empty()) check("damaged source", [&] { return damagedSource(tree); });
        check("source", [&] { return root.empty() ? notLookedAt() : wholeSource(root); });
        if (root.empty()) return;
        check("read again", [&] { return readAgain(root); });
        check("position lost", [&] { return withPosition(root, ""); });
        check("position of others", [&] { return withPosition(root, "a position that it never gave"); });
    }

private:
    void check(const char* name, const std::function<CheckOutcome()>& body) { m_report.run(m_prefix + name, body); }

    QORCollectResult run(const fs::path& root, const std::stop_token& stop = {}) const {
        QORCollectOptions options;
        options.root = root;
        return runCollector(m_collector, options, stop);
    }
    void setPosition(const fs::path& root, const std::string& position) const {
        QORRdbms::instance().write([&](ASSession& session) {
            storeCollectorPosition(session, describeMachine(root).eid, m_collector.traits().name, position);
        });
    }
    QORCollectResult runFromTheBeginning(const fs::path& root) const {
        setPosition(root, "");
        return run(root);
    }

    /// Of the source that people are told of, where that is a file; empty where it is not.
    fs::path treeOfSource() const {
        const fs::path source = m_collector.traits().source;
        if (!source.is_absolute() || !source.has_filename()) return {};
        fs::path tree = m_folder / "named";
        const fs::path file = tree / source.relative_path();
        fs::create_directories(file.parent_path());
        std::ofstream(file) << "one line\n";
        return tree;
    }

    CheckOutcome withoutSource() const {
        const QORCollectResult result = runFromTheBeginning(m_folder / "empty");
        if (result.stored.accepted() > 0)
            return CheckOutcome::fault("brings records though there is nothing below root()",
                                       "read nothing but what is below QORCollection::root()");
        if (result.outcome == QORCollectOutcome::Failed)
            return CheckOutcome::fault("fails where its source is not there: " + result.text,
                                       "return false from collect(): machines without it are no failure");
        return CheckOutcome::fine("is no failure");
    }

    CheckOutcome toldToEnd(const fs::path& root) const {
        std::stop_source stop;
        stop.request_stop();
        setPosition(root, "");
        run(root, stop.get_token());
        return CheckOutcome::fine("returns");
    }

    CheckOutcome damagedSource(const fs::path& tree) const {
        std::size_t number = 0;
        bool isWhole = true;
        const auto look = [&](const fs::path& root, std::string_view what) {
            m_report.at(what);
            const QORCollectResult result = runFromTheBeginning(root);
            if (result.stored.refused == 0) return CheckOutcome::fine("");
            return CheckOutcome::fault(
                "brings records that are refused, of " + std::string(what) + ": " + result.text,
                "look at what is read before it becomes a record; toUtf8() and appendJsonString() make texts fit");
        };
        for (const Damage& damage : damages()) {
            const fs::path root = m_folder / ("damaged" + std::to_string(++number));
            isWhole &= copyTree(tree, root, &damage);
            CheckOutcome outcome = look(root, damage.name);
            fs::remove_all(root);  // together they would be several times the tree
            if (outcome.level != QORPlugInFinding::Level::Fine) return outcome;
        }
        const fs::path root = m_folder / "folders";
        isWhole &= copyTree(tree, root, nullptr);
        putFoldersForFiles(root);
        CheckOutcome outcome = look(root, foldersForFiles);
        if (outcome.level != QORPlugInFinding::Level::Fine) return outcome;
        const std::string harmless = std::to_string(number + 1) + " kinds of damage do no harm";
        if (isWhole) return CheckOutcome::fine(harmless);
        return CheckOutcome::advice(harmless + " to a part of the tree, which is too large to be looked at whole",
                                    "name a tree of at most " + std::to_string(mostFiles) + " files, " +
                                        std::to_string(mostOfFile >> 20) + " MiB each and " +
                                        std::to_string(mostOfTree >> 20) + " MiB together with its damage");
    }

    CheckOutcome notLookedAt() const {
        return CheckOutcome::advice("was not looked at", "name a tree that has " + m_collector.traits().source +
                                                             " as a machine has it: --root FOLDER");
    }

    CheckOutcome wholeSource(const fs::path& root) const {
        const Clock::time_point begin = Clock::now();
        const QORCollectResult result = runFromTheBeginning(root);
        const auto took = Clock::now() - begin;
        if (result.outcome == QORCollectOutcome::None)
            return CheckOutcome::fault("it finds no source below " + root.string(),
                                       "have " + m_collector.traits().source + " there as a machine has it");
        if (result.outcome == QORCollectOutcome::Failed) return CheckOutcome::fault(result.text, "");
        if (took > m_collector.traits().deadline)
            return CheckOutcome::fault("a run takes longer than its deadline",
                                       "read less at a time, and go on from there in the next run");
        const std::uint64_t records = result.stored.accepted();
        if (records == 0) return CheckOutcome::advice("it brings no record", "have something to bring in the tree");
        const std::string senseless =
            result.malformed > 0 ? ", lines that make no sense: " + std::to_string(result.malformed) : "";
        return CheckOutcome::fine("records: " + std::to_string(records) + senseless);
    }

    /// Of a run on what has been read before.
    static CheckOutcome nothingNew(const QORCollectResult& result, const std::string& fine, const char* todo) {
        if (result.outcome == QORCollectOutcome::Failed) return CheckOutcome::fault("fails: " + result.text, todo);
        const std::uint64_t added = result.stored.total().added;
        if (added == 0) return CheckOutcome::fine(fine);
        return CheckOutcome::fault("stores records twice: " + std::to_string(added), todo);
    }

    CheckOutcome readAgain(const fs::path& root) const {
        runFromTheBeginning(root);
        return nothingNew(run(root), "stores nothing twice", sameIdentifiers);
    }

    CheckOutcome withPosition(const fs::path& root, const std::string& position) const {
        runFromTheBeginning(root);
        setPosition(root, position);
        return nothingNew(run(root), "stores nothing twice",
                          position.empty() ? sameIdentifiers
                                           : "begin anew with a position that collect() cannot read, and give "
                                             "records identifiers that are the same whenever they are read");
    }

    CheckReport& m_report;
    QORCollector& m_collector;
    const std::string m_prefix;
    const fs::path m_folder;
};

}  // namespace

void checkCollectors(CheckReport& report, const std::vector<QORCollector*>& collectors, const fs::path& root,
                     const fs::path& folder) {
    for (QORCollector* const collector : collectors)
        CollectorChecks(report, *collector, folder / collector->traits().name).runAll(root);
}

}  // namespace QOR
