#include "agent/settings/SettingsManual.h"

#include "agent/settings/SettingTable.h"
#include "agent/settings/SettingsCommandLine.h"
#include "agent/settings/SettingsText.h"
#include "host/QORManualText.h"

namespace QOR {
namespace {

constexpr std::string_view agentBegin = R"(.SH NAME
qor\-agent \- hosts the plug\-ins of this machine and answers its clients
.SH SYNOPSIS
.B qor\-agent
[\fIOPTIONS\fR]
.SH DESCRIPTION
Without options it makes its folders and its database, loads the plug\-ins beside it, listens on its socket and says
.B qor\-agent listening on
on standard output, a line for each address, when clients may come.
.PP
Settings stand in files, see
.BR agent.toml (5).
Each is an option as well, which goes before files.
.SH OPTIONS
)";

constexpr std::string_view agentEnd = R"(.TP
.B NOTIFY_SOCKET, WATCHDOG_USEC, LISTEN_FDS
What the service manager says: where it is told how the agent is, how often, and how many sockets it has opened.
.SH SIGNALS
.TP
.B TERM, INT, QUIT
Stop: requests in flight are answered. A second signal ends the time that they are given, a third waits for nothing.
.TP
.B HUP
Logs are opened anew, settings and certificates are read anew. What is wrong with one of them leaves all as they were.
.SH EXIT STATUS
.TP
.B 0
Stopped in order.
.TP
.B 1
The agent cannot start, or requests did not end in time.
.TP
.B 2
Options or settings are wrong.
.SH FILES
Of another user than root they are in the folders that XDG_CONFIG_HOME, XDG_STATE_HOME and XDG_RUNTIME_DIR name.
.TP
.I /etc/qor/agent.toml, /etc/qor/conf.d/*.toml
Settings.
.TP
.I /var/lib/qor
The database.
.TP
.I /run/qor/agent.sock
The socket that clients connect to.
.SH SEE ALSO
.BR agent.toml (5),
.BR qorctl (1)
)";

constexpr std::string_view settingsBegin = R"(.SH NAME
agent.toml \- settings of qor\-agent
.SH SYNOPSIS
.nf
.I /etc/qor/agent.toml
.I /etc/qor/conf.d/*.toml
.fi
.SH DESCRIPTION
A file in TOML, a line
.IR "NAME" " = " "VALUE"
for each setting. Texts stand in quotes, several of them in brackets.
.PP
Files are read in this order:
.I /etc/qor/agent.toml
(for other users than root
.IR ~/.config/qor/agent.toml ),
or the one that
.B qor\-agent \-\-settings
names, then
.I conf.d/*.toml
beside it in the order of their names. Variables of the environment go before files, the command line goes before both.
Whatever comes later replaces the value, of a list all of it. Files that everybody may write are refused.
.PP
.B qor\-agent \-\-print\-settings
prints such a file with all settings as they are,
.B qor\-agent \-\-check\-config
says what is wrong with it. With
.B systemctl reload qor\-agent
a running agent reads the files anew, and takes up all that it can, or nothing where a file is wrong.
.SH SETTINGS
)";

constexpr std::string_view settingsEnd = R"(.SH EXAMPLE
.nf
listen = ["unix:/run/qor/agent.sock", "https://0.0.0.0:7480"]
tls\-certificate = "/etc/qor/agent.pem"
tls\-key = "/etc/qor/agent.key"
keep\-age = "90d"
.fi
.SH SEE ALSO
.BR qor\-agent (8),
.BR qorctl (1)
)";

std::string titleLine(std::string_view title, std::string_view version) {
    return ".TH " + std::string(title) + " \"\" \"qor-agent " + std::string(version) + "\" \"QORPager\"\n";
}

/// `requests that are answered at once. Values: 1 to 1024. Default: 16.`
std::string meaningWithValues(const Setting& setting) {
    std::string text(setting.meaning);
    text += ". Values: " + valuesOf(setting) + ".";
    const std::string fallback = defaultOf(setting, Defaults::InWords);
    if (!fallback.empty()) text += " Default: " + fallback + ".";
    if (!setting.variable.empty()) text += " Variable: " + std::string(setting.variable) + ".";
    if (!setting.changes) text += " A change needs a restart.";
    return text;
}

std::string variableEntries() {
    std::string text;
    for (const Setting& setting : settingTable())
        if (!setting.variable.empty())
            text += manualEntry(setting.variable, "As --" + std::string(setting.name) + ", which goes before it.");
    return text;
}

}  // namespace

std::string agentManual(std::string_view version) {
    std::string text = titleLine("QOR-AGENT 8", version);
    text += agentBegin;
    text += commandLineManual();
    text += ".SH ENVIRONMENT\n";
    text += variableEntries();
    text += agentEnd;
    return text;
}

std::string settingsManual(std::string_view version) {
    std::string text = titleLine("AGENT.TOML 5", version);
    text += settingsBegin;
    std::string_view group;
    for (const Setting& setting : settingTable()) {
        if (setting.group != group) text += ".SS " + manualText(setting.group) + "\n";
        group = setting.group;
        text += manualEntry(setting.name, meaningWithValues(setting));
    }
    text += settingsEnd;
    return text;
}

}  // namespace QOR
