#include <unistd.h>

#include "commands/Commands.h"
#include "commands/MovingErrors.h"
#include "commands/RecordProgress.h"
#include "output/Output.h"
#include "process/Interrupt.h"
#include "shard/QORShard.h"

namespace QOR {
namespace {

constexpr const char* moveGoesOn = "what was moved stays, and the same command goes on where it stood";

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
    shard.servers = endingWell(moveGoesOn, [&] { return readShardFile(options.servers); });
    shard.split = options.split;
    shard.showPasswords = options.passwords;
    if (options.print) return print(endingWell(moveGoesOn, [&] { return QORShard::script(shard); }));
    shard.progress = [&](const QORShardProgress& now) {
        progress.tell(now.to.empty() ? "moving to the servers" : "moving to " + now.to, now.records, now.of,
                      now.resumed);
    };
    shard.stop = [&] { return interrupt.isRequested(); };
    const std::size_t servers = shard.servers.size();
    const QORShardReport report = endingWell(moveGoesOn, [&] { return QORShard(std::move(shard)).run(); });
    progress.clear();
    print(report.done);
    if (report.stopped) throw CtlError(CtlExit::Interrupted, std::string("stopped; ") + moveGoesOn);
    if (report.faults.empty()) return print({"checked: " + std::to_string(servers) + " servers, sound"});
    print(report.faults);
    throw CtlError(CtlExit::AnsweredError, std::to_string(report.faults.size()) + " faults");
}

}  // namespace QOR
