#include <memory>
#include <string>

#include "QORCommon/QORTime.h"
#include "backend/AgentTarget.h"
#include "commands/Commands.h"
#include "commands/Printing.h"

namespace QOR {

void runTimeline(const ConnectionOptions& connection, const TimelineOptions& options, const PrintOptions& print) {
    if (connection.standalone)
        throw CtlError::usage(
            "the timeline needs an agent; without one, qorctl log, events and backups show its parts");
    const std::int64_t now = currentTime();
    const auto bound = [now](const char* option, const std::optional<std::string>& written) {
        const auto time = secondsOf(option, written, now);
        return time ? time2str(*time) : std::string();
    };
    const std::string target = AgentTarget("/v1/timeline")
                                   .with("from", bound("--since", options.bounds.since))
                                   .with("to", bound("--until", options.bounds.until))
                                   .with("env", options.environment)
                                   .with("limit", std::to_string(options.limit))
                                   .with("format", "notation")
                                   .text();
    const auto backend = makeBackend(connection, BackendUse::Ask);
    AnswerForm form;
    form.kinds = {{"time", QORColumnKind::Time}, {"env", QORColumnKind::Identifier}};
    form.columns = {"time", "source", "environment", "text"};
    if (!print.form->isForPeople || print.pattern || print.form == findRowForm("wide"))
        form.columns = {"time", "source", "env", "environment", "id", "text"};
    form.namesEnvironments = false;
    printRows([&] { return backend->get(target); }, *backend, print, std::move(form));
}

}  // namespace QOR
