#include "CommandHelp.h"

#include <algorithm>
#include <array>

#include "output/TextWidth.h"

namespace QOR {
namespace {

struct Examples {
    std::string_view command;  ///< of a group with its name in front
    std::array<std::string_view, 3> lines;
};

constexpr Examples examples[] = {
    {"select",
     {"select vOpLog --since -7d --where \"status <> 0\"", "select vOpLog -f 'op,count(id)' --sort '-count(id)'",
      "select vEnvironment -f hostname,memory --sort=-memory --limit 10 --count"}},
    {"rows",
     {"rows operations -f time,op,package.name --limit 20", "rows events --since yesterday -o ndjson",
      "rows operations --where \"package.name like 'lib%'\""}},
    {"log", {"log --since -7d --where \"status <> 0\"", "log --follow", "log -f 'op,count(id)' --sort '-count(id)'"}},
    {"events",
     {"events --since yesterday", "events --follow --where \"category = 'resource_alert'\"",
      "events -o csv --limit 0"}},
    {"backups", {"backups --until -30d", "backups --sort=-size --limit 10", "backups --where \"hostname like 'db%'\""}},
    {"envs",
     {"envs", "envs --where \"os_name like 'Debian%'\" --count", "envs -f 'os_name,count(eid)' --sort os_name"}},
    {"timeline",
     {"timeline --since yesterday", "timeline --since -1d --until -12h --limit 200", "timeline --watch 5s --limit 20"}},
    {"explain",
     {"explain vOpLog --where \"status <> 0\" --sort=-time --limit 20",
      "explain operations -f pager.op_log.id --where \"pager.op_log.status != 0\"",
      "explain vEnvironment -f hostname -o json"}},
    {"request", {"request question.json", "request --lines < questions.ndjson", "request - < question.json"}},
    {"views", {"views", "views vOpLog", "views -o json"}},
    {"fields", {"fields", "fields pager.op_log.", "fields -o csv"}},
    {"status", {"status", "status -o json", "status --context fleet"}},
    {"doctor", {"doctor", "doctor -o json", "doctor --context fleet"}},
    {"check", {"check", "check --mend", "check --standalone --database ./agent.db"}},
    {"prune", {"prune --before 90d", "prune --before 2024-01-01 --events", "prune --before 30d --compact"}},
    {"import", {"import records.ndjson", "import - < records.ndjson", "import --verbose records.ndjson"}},
    {"export",
     {"export -o records.ndjson", "export -o records.ndjson --resume",
      "export --kinds environments,operations --since -7d"}},
    {"sample",
     {"sample --environments 100 --operations 5000", "sample --events 1000 --seed 7",
      "sample --operations 10 --output -"}},
    {"collect", {"collect", "collect --context fleet", "collect --standalone --database ./own.db"}},
    {"copy",
     {"copy --from ./agent.db --to ./copy.db", "copy --from ./agent.db --to 'Driver=PostgreSQL;Database=qor'",
      "copy --from ./agent.db --to ./copy.db --progress"}},
    {"completion",
     {"completion bash > ~/.local/share/bash-completion/completions/qorctl",
      "completion fish > ~/.config/fish/completions/qorctl.fish", "completion zsh > ~/.zfunc/_qorctl"}},
    {"plugin check",
     {"plugin check build/libCensus.so", "plugin check build/libBoots.so --root tests/tree",
      "plugin check build/libCensus.so -o json"}},
    {"filter", {"filter \"pager.op_log.status != 0\"", "filter - < filter.txt", "filter --lines < questions.ndjson"}},
    {"identity add",
     {"identity add alice --kind user --full", "identity add reports --kind token --environment EID",
      "identity add web --kind certificate --below EID"}},
    {"token create", {"token create reports", "token create reports --expires 90d", "token create reports -q > token"}},
    {"identity list", {"identity list", "identity list -o json", "identity list --context fleet"}},
    {"identity show", {"identity show alice", "identity show reports -o json", "identity show web --context fleet"}},
    {"identity remove",
     {"identity remove alice", "identity remove reports --context fleet",
      "identity remove web --standalone --database ./own.db"}},
    {"token list", {"token list", "token list reports", "token list -o json"}},
    {"token revoke",
     {"token revoke reports", "token revoke reports --id 1a2b3c4d", "token revoke reports --context fleet"}},
    {"database shard",
     {"database shard --database DSN=qor --servers servers.txt --print",
      "database shard --database DSN=qor --servers servers.txt",
      "database shard --database DSN=qor --servers servers.txt --split first"}},
    {"self-check security",
     {"self-check security --standalone --database ./agent.db",
      "self-check security --requests 1000 --seed 7 --standalone --database ./agent.db",
      "self-check security --requests 1000000 --standalone --database ./agent.db"}},
    {"context use", {"context use fleet", "context use here", "context use copy"}},
    {"context list", {"context list", "context list -o json", "context list --no-header"}},
    {"context show", {"context show", "context show fleet", "context show -o json"}},
    {"context remove", {"context remove fleet", "context remove here", "context remove copy"}},
    {"context set",
     {"context set fleet --agent https://fleet.example:7480 --token-file ~/.fleet-token",
      "context set here --socket /run/qor/agent.sock", "context set copy --database ./copy.db"}},
};

void addTo(CLI::App& command, const std::string& name) {
    const auto* const found = std::find_if(std::begin(examples), std::end(examples),
                                           [&](const Examples& each) { return each.command == name; });
    if (found != std::end(examples)) {
        std::string text = "Examples:\n";
        for (const std::string_view line : found->lines)
            text.append("  qorctl ").append(line).append("\n");
        command.footer(text + "\n" + command.get_footer());
    }
    for (CLI::App* const part : command.get_subcommands({}))
        addTo(*part, name.empty() ? part->get_name() : name + " " + part->get_name());
}

/// Where what a line says of an option or a command begins; 0 for a line of running text.
std::size_t describedAt(std::string_view line) {
    if (!line.starts_with("  ")) return 0;
    const std::size_t word = line.find_first_not_of(' ');
    const std::size_t gap = word == std::string_view::npos ? word : line.find("  ", word);
    if (gap != std::string_view::npos) return line.find_first_not_of(' ', gap);
    return word;
}

}  // namespace

void addExamples(CLI::App& app) {
    addTo(app, "");
}

std::string wrapHelp(std::string_view text, std::size_t width) {
    std::string out;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        const std::size_t indent = describedAt(line);
        std::size_t begin = 0;  // columns that stand in front of the rest
        while (width > 0 && indent + 20 < width && begin + textWidth(line) > width) {
            const std::size_t space = line.rfind(' ', width - begin);
            if (space == std::string_view::npos || space + begin <= indent) break;
            out.append(begin, ' ').append(line.substr(0, space)).append("\n");
            line.remove_prefix(space + 1);
            begin = indent;
        }
        out.append(line.empty() ? 0 : begin, ' ').append(line).append("\n");
    }
    return out;
}

std::vector<std::string> helpAsOption(std::vector<std::string> arguments) {
    if (arguments.empty() || arguments.front() != "help") return arguments;
    arguments.erase(arguments.begin());
    arguments.emplace_back("--help");
    return arguments;
}

}  // namespace QOR
