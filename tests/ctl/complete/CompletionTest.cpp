// Command lines that are completed, by the shells themselves where it is theirs.
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "ctl/CtlProcess.h"

namespace QOR::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

Words linesOf(const std::string& text) {
    Words lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

/// A database to ask, the same for all.
const std::string& database() {
    static const TemporaryDirectory folder;
    static const std::string file = [] {
        const std::string made = (folder.path() / "a.db").string();
        EXPECT_EQ(runCtl({"sample", "--standalone", "--database", made, "--operations", "3", "-q"}).status, 0);
        return made;
    }();
    return file;
}

/// What a shell hears that asks.
CtlResult ask(Words words, const char* wait = "120000") {
    words.insert(words.begin(),
                 {"env", std::string("QOR_COMPLETION_WAIT=") + wait, ctlProgram(), "__complete", "words"});
    return CtlProcess(words).finish();
}

/// What may stand at the end of these words, without meanings.
Words after(const Words& words) {
    const CtlResult result = ask(words);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    Words found = linesOf(result.out);
    for (std::string& line : found)
        line = line.substr(0, line.find('\t'));
    return found;
}

Words afterAsking(Words words) {
    words.insert(words.begin(), {"--standalone", "--database", database()});
    return after(words);
}

TEST(Completion, CommandsAndOptionsAreThoseThereAre) {
    EXPECT_THAT(after({""}), AllOf(Contains("select"), Contains("timeline"), Contains("completion")));
    EXPECT_THAT(after({"se"}), ElementsAre("select", "self-check"));
    EXPECT_THAT(after({"identity", "re"}), ElementsAre("remove"));
    EXPECT_THAT(after({"log", "--fo"}), ElementsAre("--follow"));
    EXPECT_THAT(after({"--q"}), ElementsAre("--quiet"));
    EXPECT_THAT(after({"nonsense", "--limit", "zz"}), IsEmpty());
}

TEST(Completion, OptionsThatTakeOneOfSomeWordsHaveThem) {
    EXPECT_THAT(after({"log", "-o", "n"}), ElementsAre("ndjson"));
    EXPECT_THAT(after({"log", "--output=j"}), ElementsAre("--output=json"));
    EXPECT_THAT(after({"explain", "vOpLog", "-o", ""}), ElementsAre("text", "json"));
    EXPECT_THAT(after({"rows", "b"}), ElementsAre("backups"));
    EXPECT_THAT(after({"completion", ""}), ElementsAre("bash", "fish", "zsh"));
}

TEST(Completion, FilesAreTheShellsWork) {
    EXPECT_THAT(after({"import", "x"}), ElementsAre(":files"));
    EXPECT_THAT(after({"--token-file", ""}), ElementsAre(":files"));
    EXPECT_THAT(after({"--certificate", ""}), ElementsAre(":files"));
    EXPECT_THAT(after({"log", "--key", ""}), ElementsAre(":files"));
    EXPECT_THAT(after({"sample", "--output", ""}), ElementsAre(":files"));
    EXPECT_THAT(after({"request", ""}), ElementsAre(":files"));
    EXPECT_THAT(after({"select", "--plugins", ""}), ElementsAre(":files"));
    EXPECT_THAT(after({"context", "set", "--database", ""}), ElementsAre(":files"));
    EXPECT_THAT(after({"--socket", ""}), ElementsAre(":files"));
}

TEST(Completion, NamesComeFromWhoIsAsked) {
    EXPECT_THAT(afterAsking({"select", "vO"}), ElementsAre("vOpLog"));
    EXPECT_THAT(afterAsking({"views", "vE"}), ElementsAre("vEnvironment", "vEventLog"));
    EXPECT_THAT(afterAsking({"select", "vOpLog", "-f", "time,st"}), ElementsAre(":open", "time,status"));
    EXPECT_THAT(afterAsking({"log", "--sort", "-st"}), ElementsAre(":open", "-status"));
    EXPECT_THAT(afterAsking({"log", "-f", "op,count(st"}), ElementsAre(":open", "op,count(status)"));
    EXPECT_THAT(afterAsking({"rows", "operations", "-f", "sta"}), ElementsAre(":open", "status"));
    EXPECT_THAT(afterAsking({"select", "vNothing", "-f", "st"}), IsEmpty());
}

TEST(Completion, ConditionsGoOnWithColumnsAndTheWordsThatTheyHold) {
    EXPECT_THAT(afterAsking({"log", "--where", "op = 'a' and sta"}), ElementsAre(":open", "op = 'a' and status"));
    EXPECT_THAT(afterAsking({"log", "--where", "op = 'ins"}), ElementsAre(":open", "op = 'install'"));
    EXPECT_THAT(afterAsking({"log", "--where", "op not in ('ins"}), ElementsAre(":open", "op not in ('install'"));
}

TEST(Completion, ContextsAreThoseOfTheFile) {
    const TemporaryDirectory home;
    std::filesystem::create_directories(home.path() / "qor");
    const auto ctl = [&](Words words) {
        words.insert(words.begin(), {"env", "XDG_CONFIG_HOME=" + home.path().string(), ctlProgram()});
        return CtlProcess(words).finish();
    };
    ASSERT_EQ(ctl({"context", "set", "fleet", "--agent", "https://fleet.example:7480"}).status, 0);
    EXPECT_EQ(ctl({"__complete", "words", "context", "use", "f"}).out, "fleet\thttps://fleet.example:7480\n");
    EXPECT_EQ(ctl({"__complete", "words", "--context", ""}).out, "fleet\thttps://fleet.example:7480\n");
}

TEST(Completion, NobodyWhoAnswersIsSilence) {
    const CtlResult result = ask({"--socket", "/nowhere/agent.sock", "select", "v"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(runCtl({"__complete"}).status, 0);
}

TEST(Completion, WhoDoesNotAnswerIsNotWaitedFor) {
    // A listener that takes connections and says nothing.
    const TemporaryDirectory folder;
    const std::string path = (folder.path() / "s").string();
    CtlProcess silent({"python3", "-c",
                       "import socket, sys\n"
                       "s = socket.socket(socket.AF_UNIX)\n"
                       "s.bind(sys.argv[1])\n"
                       "s.listen()\n"
                       "print('ready', flush=True)\n"
                       "sys.stdin.read()",
                       path});
    ASSERT_EQ(silent.readLine(), "ready");
    const CtlResult result = ask({"--socket", path, "explain", ""}, "3000");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(linesOf(result.out), Contains(testing::StartsWith("operations\t")));  // known without asking
    EXPECT_EQ(result.err, "");
}

/// The folder of qorctl.
std::string programs() {
    return std::filesystem::path(ctlProgram()).parent_path().string();
}

/// What a shell's script says that asks qorctl.
Words inShell(const Words& shell, const std::string& script) {
    Words command = shell;
    command.insert(command.begin(),
                   {"env", "QOR_COMPLETION_WAIT=120000", "PATH=" + programs() + ":" + std::getenv("PATH")});
    command.push_back(script);
    CtlProcess process(command);
    const CtlResult result = process.finish();
    EXPECT_EQ(result.err, "");
    return linesOf(result.out);
}

/// What bash makes of a line, given in quotes, when the key is pressed at its end.
Words inBash(const std::string& line) {
    return inShell({"bash", "--norc", "-c"},
                   "source <(qorctl completion bash)\n"
                   "compopt() { :; }\n"  // means something only while a key is answered
                   "COMP_WORDS=(qorctl) COMP_LINE=" +
                       line +
                       " COMP_POINT=${#COMP_LINE}\n"
                       "_qorctl\n"
                       "printf '%s\\n' \"${COMPREPLY[@]}\"");
}

TEST(Completion, BashCompletesWithinQuotesAndBehindItsBreaks) {
    EXPECT_THAT(inBash("'qorctl se'"), ElementsAre("select", "self-check"));
    EXPECT_THAT(inBash("'qorctl log --output=nd'"), ElementsAre("ndjson"));
    EXPECT_THAT(inBash("\"qorctl log --standalone --database " + database() + " --where 'status <> 0 and o\""),
                ElementsAre("status <> 0 and op"));
    EXPECT_THAT(inBash("\"qorctl log --standalone --database " + database() + " -f time,\\\"st\""),
                ElementsAre("status"));
}

TEST(Completion, FishCompletesItsWords) {
    Words found = inShell({"fish", "--no-config", "-c"},
                          "qorctl completion fish | source\n"
                          "complete -C 'qorctl se'\n"
                          "complete -C \"qorctl log --standalone --database " +
                              database() + " --where 'op = \\\\'ins\"");
    for (std::string& line : found)
        line = line.substr(0, line.find('\t'));
    EXPECT_THAT(found, ElementsAre("select", "self-check", "op = 'install'"));
}

TEST(Completion, ZshCompletesItsWords) {
    // The inner shell says that it is ready when its editor takes keys.
    CtlProcess shell({"env", "QOR_COMPLETION_WAIT=120000", "zsh", "-f", "-c",
                      "zmodload zsh/zpty\n"
                      "zpty z 'PATH=" +
                          programs() +
                          ":$PATH zsh -f -i'\n"
                          "zpty -w z 'autoload -Uz compinit; compinit -u -D; source <(qorctl completion zsh); "
                          "zle-line-init() { echo RE''ADY; }; zle -N zle-line-init'\n"
                          "zpty -r -m z out '*READY*'\n"
                          "zpty -w -n z $'qorctl log -o nd\\t'\n"
                          "zpty -r -m z out '*ndjson*' && echo completed"});
    EXPECT_EQ(shell.finish().out, "completed\n");
}

}  // namespace
}  // namespace QOR::test
