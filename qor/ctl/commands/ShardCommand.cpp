#include <unistd.h>

#include "QORCommon/QORException.h"
#include "commands/Commands.h"
#include "commands/RecordProgress.h"
#include "output/Output.h"
#include "process/Interrupt.h"
#include "rdbmspp/engine/AException.h"
#include "shard/QORShard.h"

namespace QOR {
namespace {

constexpr const char* goesOn = "what was moved stays, and the same command goes on where it stood";

/// Errors as they end the command.
template <class Work>
auto ended(Work work) {
    try {
        return work();
    } catch (const AException& error) {
        const bool isAway = error.failure() == ASFailure::Unreachable || error.failure() == ASFailure::Undecided;
        throw CtlError(isAway ? CtlExit::NoConnection : CtlExit::AnsweredError, error.text() + "; " + goesOn);
    } catch (const QORException& error) {
        throw CtlError(CtlExit::AnsweredError, error.message());
    }
}

void print(const std::vector<std::string>& lines) {
    FileOutput out(STDOUT_FILENO);
    for (const std::string& line : lines)
        out << line + "\n";
    out.flush();
}

}  // namespace

void runShard(const ShardCommandOptions& options) {
    const Interrupt interrupt;
    RecordProgress progress(options.progress);
    QORShardOptions shard;
    shard.home = options.home;
    shard.servers = ended([&] { return readShardFile(options.servers); });
    shard.split = options.split;
    if (options.print) return print(ended([&] { return QORShard::script(shard); }));
    shard.progress = [&](const QORShardProgress& now) {
        progress.tell(now.to.empty() ? "moving to the servers" : "moving to " + now.to, now.records, now.of,
                      now.resumed);
    };
    shard.stop = [&] { return interrupt.isRequested(); };
    const std::size_t servers = shard.servers.size();
    const QORShardReport report = ended([&] { return QORShard(std::move(shard)).run(); });
    progress.clear();
    print(report.done);
    if (report.stopped) throw CtlError(CtlExit::AnsweredError, std::string("stopped; ") + goesOn);
    if (report.faults.empty()) return print({"checked: " + std::to_string(servers) + " servers, sound"});
    print(report.faults);
    throw CtlError(CtlExit::AnsweredError, std::to_string(report.faults.size()) + " faults");
}

}  // namespace QOR
