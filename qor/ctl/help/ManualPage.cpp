#include "help/ManualPage.h"

#include <sstream>
#include <vector>

#include "host/QORManualOptions.h"

namespace QOR {
namespace {

constexpr std::string_view environment = R"(.TP
.B QOR_AGENT
The agent that is asked: the path of its socket, or its address.
.TP
.B QOR_TOKEN
The token that is shown to it.
.TP
.B QOR_PAGER, PAGER
What long tables are shown with on a terminal.
.TP
.B NO_COLOR
With any value, tables have no colours.
.TP
.B QOR_COMPLETION_WAIT
Milliseconds that a shell waits for names when it completes a line, 300 by default.
.SH FILES
.TP
.I ~/.config/qor/config.toml
Agents and databases by names, see
.BR "qorctl context" .
.SH SEE ALSO
.BR qor\-agent (8),
.BR agent.toml (5)
)";

constexpr const char* connectionGroup = "Connection";

std::string optionsOf(const CLI::App& app) {
    return manualOptions(app, [](const std::string& group) { return group != connectionGroup; });
}

/// What stands below the options in the help, its examples and other lines as they are.
void writeFooter(std::ostream& out, const CLI::App& app, std::string_view exitNote) {
    std::string footer = app.get_footer();
    if (footer.ends_with(exitNote)) footer.resize(footer.size() - exitNote.size());
    while (!footer.empty() && footer.back() == '\n')
        footer.pop_back();
    if (!footer.empty()) out << ".PP\n.nf\n" << manualText(footer) << "\n.fi\n";
}

void writeCommand(std::ostream& out, CLI::App& app, const std::string& name, const std::string& exitNote) {
    const std::vector<CLI::App*> parts = app.get_subcommands([](CLI::App*) { return true; });
    if (parts.empty()) {
        out << ".SS " << manualText(name) << "\n" << manualText(app.get_description()) << ".\n";
        out << optionsOf(app);
        writeFooter(out, app, exitNote);
    }
    for (CLI::App* const part : parts)
        writeCommand(out, *part, name.empty() ? part->get_name() : name + " " + part->get_name(), exitNote);
}

}  // namespace

std::string manualPage(CLI::App& app, std::string_view version) {
    std::ostringstream out;
    out << ".TH QORCTL 1 \"\" \"qorctl " << version << "\" \"QORPager\"\n"
        << ".SH NAME\nqorctl \\- asks the agent of this machine, or a database directly\n"
        << ".SH SYNOPSIS\n.B qorctl\n[\\fIOPTIONS\\fR] \\fICOMMAND\\fR [\\fIARGUMENTS\\fR]\n"
        << ".SH OPTIONS\n";
    out << optionsOf(app);
    out << ".SS Whom to ask\nThey may stand in front of the command or behind it.\n";
    out << manualOptions(app, [](const std::string& group) { return group == connectionGroup; });
    out << ".SH COMMANDS\n";
    writeCommand(out, app, "", app.get_footer());
    out << ".SH EXIT STATUS\n" << manualText(app.get_footer()) << "\n.SH ENVIRONMENT\n" << environment;
    return out.str();
}

}  // namespace QOR
