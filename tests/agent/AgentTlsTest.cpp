// The agent and a server that it reaches over TCP and TLS, with a password.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>

#include "ctl/CtlProcess.h"
#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/PostgresServer.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr const char* password = "s3cret word";

std::string contentsOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void append(const std::filesystem::path& file, const std::string& text) {
    std::ofstream(file, std::ios::app) << text;
}

/// A port of the loopback that nobody is given while the object lives. A server that asks for it by number may listen
/// there, as servers that are started again do.
class ReservedPort {
public:
    ReservedPort() : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const int reuse = 1;
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (::setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0 ||
            ::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
            ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            throw std::runtime_error("there is no free port");
        m_number = ntohs(address.sin_port);
    }
    ~ReservedPort() { ::close(m_socket); }
    ReservedPort(const ReservedPort&) = delete;
    ReservedPort& operator=(const ReservedPort&) = delete;

    int number() const noexcept { return m_number; }

private:
    int m_socket;
    int m_number = 0;
};

/// Authorities, and a server's certificate for "localhost" from one of them.
class Certificates {
public:
    Certificates() {
        // A server that reads from another one looks for the authority too.
        std::filesystem::permissions(m_folder.path(),
                                     std::filesystem::perms::group_exec | std::filesystem::perms::others_exec,
                                     std::filesystem::perm_options::add);
        makeAuthority("authority");
        makeAuthority("other");
        run({"openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
             path("server.key"), "-out", path("server.csr"), "-subj", "/CN=localhost"});
        append(path("names"), "subjectAltName=DNS:localhost\n");
        run({"openssl", "x509", "-req", "-in", path("server.csr"), "-CA", path("authority.crt"), "-CAkey",
             path("authority.key"), "-CAcreateserial", "-days", "2", "-extfile", path("names"), "-out",
             path("server.crt")});
    }
    std::string path(const std::string& name) const { return (m_folder / name).string(); }

private:
    void makeAuthority(const std::string& name) const {
        run({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
             path(name + ".key"), "-out", path(name + ".crt"), "-days", "2", "-subj", "/CN=" + name});
    }
    static void run(const Words& command) {
        const auto [status, output] = runProgram(command);
        if (status != 0) throw std::runtime_error(output);
    }

    TemporaryDirectory m_folder;
};

/// A server that takes passwords over TLS on the loopback.
class TlsServer {
public:
    TlsServer() : m_server(m_port.number()) {
        PostgresConnection own(m_server.conninfo("postgres"));
        own.run("CREATE ROLE agent LOGIN PASSWORD '" + std::string(password) + "'");
        own.run("CREATE DATABASE records OWNER agent");
        const std::filesystem::path data = std::filesystem::path(m_server.folder()) / "data";
        struct stat folder {};
        ::stat(data.c_str(), &folder);
        for (const char* name : {"server.key", "server.crt"}) {
            std::filesystem::copy_file(m_certificates.path(name), data / name);
            ::chmod((data / name).c_str(), 0600);
            if (::chown((data / name).c_str(), folder.st_uid, folder.st_gid) != 0)
                throw std::runtime_error("cannot give a file away");
        }
        append(data / "postgresql.conf", "listen_addresses = '127.0.0.1'\nssl = on\n");
        std::ofstream(data / "pg_hba.conf")
            << "local all qor trust\nlocal all all peer\nhostssl all all 127.0.0.1/32 scram-sha-256\n";
        m_server.crash();
        m_server.start();
    }

    PostgresServer& server() { return m_server; }
    /// \param authority whose certificate is trusted
    std::string connection(const std::string& more, const std::string& authority = "authority",
                           const std::string& host = "localhost") const {
        return "Driver=PostgreSQL Unicode;UID=agent;" + wayTo("records", authority, host) + more;
    }
    std::string wayTo(const std::string& database, const std::string& authority = "authority",
                      const std::string& host = "localhost") const {
        return "Server=" + host + ";Port=" + std::to_string(port()) + ";Database=" + database +
               ";SSLmode=verify-full;pqopt={sslrootcert=" + m_certificates.path(authority + ".crt") + "}";
    }
    std::string withPassword() const { return connection(";PWD=" + std::string(password)); }
    int port() const { return m_port.number(); }

private:
    Certificates m_certificates;
    ReservedPort m_port;
    PostgresServer m_server;
};

/// One server for all tests: certificates take their time.
TlsServer& server() {
    static TlsServer made;
    return made;
}

/// Starts an agent that is expected not to listen. \returns what it says, whose status has to be 1
std::string refusalOf(const std::string& database) {
    const TemporaryDirectory folder;
    const auto [status, output] =
        runProgram({(programDirectory() / "qor-agent").string(), "--socket", (folder / "agent.sock").string(),
                    "--log-file", (folder / "agent.log").string(), "--log-level", "5", "--database", database});
    EXPECT_EQ(status, 1);
    return output + contentsOf(folder / "agent.log");
}

/// A variable of the environment for a time.
class Variable {
public:
    Variable(const char* name, const std::string& value) : m_name(name) { ::setenv(name, value.c_str(), 1); }
    ~Variable() { ::unsetenv(m_name); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

private:
    const char* m_name;
};

TEST(AgentOverTls, KeepsItsRecordsOnAServerThatProvesWhoItIs) {
    AgentSettings settings;
    settings.database = server().withPassword();
    const AgentProcess agent(settings);
    const Words where{"--socket", agent.socketPath()};
    ASSERT_EQ(runCtl({"sample", "--operations", "20", where[0], where[1]}).status, 0);
    const CtlResult selected =
        runCtl({"select", "--view", "vOpLog", "-f", "count(id)", "-o", "csv", where[0], where[1]});
    EXPECT_EQ(selected.out, "count(id)\r\n20\r\n") << selected.err;
    PostgresConnection own(server().server().conninfo("records"));
    EXPECT_EQ(own.cell("SELECT bool_and(s.ssl) AND count(*) > 0 FROM pg_stat_ssl s JOIN pg_stat_activity a USING (pid) "
                       "WHERE a.usename = 'agent'"),
              "t");
}

TEST(AgentOverTls, IsRefusedByItselfWhereAnotherAuthoritySignedForTheServer) {
    const std::string said = refusalOf(server().connection(";PWD=" + std::string(password), "other"));
    EXPECT_THAT(said,
                AllOf(HasSubstr("certificate verify failed"),
                      HasSubstr("name the file with the certificate of the authority that has signed the server's"),
                      HasSubstr("sslrootcert"), Not(HasSubstr(password))));
}

TEST(AgentOverTls, IsRefusedByItselfWhereTheServerHasAnotherName) {
    const std::string said = refusalOf(server().connection(";PWD=" + std::string(password), "authority", "127.0.0.1"));
    EXPECT_THAT(said, AllOf(HasSubstr("Server has to be one of the names in the server's certificate"),
                            Not(HasSubstr(password))));
}

TEST(AgentOverTls, IsEncryptedWhereTheServerOffersItAndNothingWasSaid) {
    const std::string whole = server().withPassword();
    const std::string database = whole.substr(0, whole.find(";SSLmode=")) + whole.substr(whole.find(";PWD="));
    AgentSettings settings;
    settings.database = database;
    const AgentProcess agent(settings);
    EXPECT_EQ(runCtl({"status", "--socket", agent.socketPath()}).status, 0) << "it lets nobody in without";
}

TEST(AgentOverTls, SaysWhichFileWithAuthoritiesIsMissing) {
    EXPECT_THAT(refusalOf(server().connection({}, "missing")),
                AllOf(HasSubstr("missing.crt"), HasSubstr("name the file with the certificate of the authority")));
}

TEST(AgentsPassword, IsTakenFromTheFileThatHoldsPasswords) {
    const TemporaryDirectory folder;
    const std::string file = (folder / "passwords").string();
    append(file, "localhost:" + std::to_string(server().port()) + ":records:agent:" + password + "\n");
    ::chmod(file.c_str(), 0600);
    const Variable passwords("PGPASSFILE", file);
    AgentSettings settings;
    settings.database = server().connection({});
    AgentProcess agent(settings);
    EXPECT_EQ(runCtl({"status", "--socket", agent.socketPath()}).status, 0);
}

TEST(AgentsPassword, ThatIsMissingOrWrongIsSaidAndNotShown) {
    const Variable passwords("PGPASSFILE", "/nowhere");
    EXPECT_THAT(refusalOf(server().connection({})),
                HasSubstr("put it into ~/.pgpass or the file that PGPASSFILE names"));
    EXPECT_THAT(refusalOf(server().connection(";PWD=wr0ng")),
                AllOf(HasSubstr("password authentication failed for user \"agent\": PWD, or the line of ~/.pgpass"),
                      Not(HasSubstr("wr0ng"))));
    EXPECT_THAT(refusalOf(server().connection(";Password={wr0ng};A1=1")),
                AllOf(HasSubstr("abbreviates"), Not(HasSubstr("wr0ng"))));
}

TEST(AgentsPassword, IsShownNowhere) {
    AgentSettings settings;
    settings.database = server().withPassword();
    settings.more = {"--log-level", "5"};
    AgentProcess agent(settings);
    const CtlResult status = runCtl({"status", "-o", "json", "--socket", agent.socketPath()});
    ASSERT_EQ(status.status, 0);
    const std::string arguments = contentsOf("/proc/" + std::to_string(agent.pid()) + "/cmdline");
    EXPECT_THAT(arguments, AllOf(HasSubstr("PWD=*"), HasSubstr("UID=agent"), Not(HasSubstr(password))));
    for (const std::string& text : {status.out, status.err, agent.output(), agent.log()})
        EXPECT_THAT(text, Not(HasSubstr(password)));
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_THAT(agent.log(), Not(HasSubstr(password)));
}

/// Records spread over two databases of a server that lets nobody in but over TLS with a password.
class ServersOverTls : public testing::Test {
protected:
    static constexpr const char* readersPassword = "r3ader's w0rd";

    void SetUp() override {
        PostgresConnection own(server().server().conninfo("postgres"));
        own.run("CREATE ROLE reader LOGIN PASSWORD 'r3ader''s w0rd'");
        for (const char* const name : {"home", "one", "two"})
            own.run("CREATE DATABASE " + std::string(name) + " OWNER agent");
        PostgresConnection(server().server().conninfo("home"))
            .run("CREATE EXTENSION postgres_fdw; GRANT USAGE ON FOREIGN DATA WRAPPER postgres_fdw TO agent");
    }
    void TearDown() override {
        PostgresConnection own(server().server().conninfo("postgres"));
        for (const char* const name : {"home", "one", "two"})
            own.run("DROP DATABASE IF EXISTS " + std::string(name) + " WITH (FORCE)");
        own.run("DROP ROLE reader");
    }

    static std::string home() {
        return "Driver=PostgreSQL Unicode;UID=agent;" + server().wayTo("home") + ";PWD=" + password;
    }
    /// The first server has a reader of its own.
    CtlResult shard(const std::string& readers, const Words& more = {}) const {
        const auto file = m_folder / "servers";
        std::ofstream(file) << "s1 " << server().wayTo("one") << ";Reader=reader;ReaderPWD={" << readers << "}\ns2 "
                            << server().wayTo("two") << '\n';
        Words words{"database", "shard", "--database", home(), "--servers", file.string()};
        words.insert(words.end(), more.begin(), more.end());
        return runCtl(words);
    }
    static void expectNoPasswords(const std::string& text) {
        EXPECT_THAT(text, AllOf(Not(HasSubstr(password)), Not(HasSubstr("r3ader"))));
    }
    static std::string serversLog() { return contentsOf(server().server().folder() + "/log"); }

    TemporaryDirectory m_folder;
};

TEST_F(ServersOverTls, AreSetUpAndUsedAndNoPasswordIsShown) {
    const CtlResult made = shard(readersPassword);
    EXPECT_EQ(made.out, "spread over 2 servers\nchecked: 2 servers, sound\n") << made.err;
    expectNoPasswords(made.out + made.err);
    AgentProcess agent({.database = home(), .more = {"--log-level", "5"}});
    const Words where{"--socket", agent.socketPath()};
    ASSERT_EQ(runCtl({"sample", "--environments", "30", "--operations", "50", where[0], where[1]}).status, 0);
    const CtlResult selected =
        runCtl({"select", "--view", "vOpLog", "-f", "count(id)", "-o", "csv", where[0], where[1]});
    EXPECT_EQ(selected.out, "count(id)\r\n50\r\n") << selected.err;
    for (const char* const name : {"one", "two"})
        EXPECT_NE(PostgresConnection(server().server().conninfo(name)).cell("SELECT count(*) FROM qor_operation"), "0");
    PostgresConnection stored(server().server().conninfo("home"));
    expectNoPasswords(stored.cell("SELECT string_agg(s::text, ' ') FROM qor_server s") +
                      stored.cell("SELECT string_agg(srvoptions::text, ' ') FROM pg_foreign_server"));
    expectNoPasswords(runCtl({"status", "-o", "json", where[0], where[1]}).out);
    expectNoPasswords(contentsOf("/proc/" + std::to_string(agent.pid()) + "/cmdline"));
    EXPECT_EQ(agent.stop(), 0);
    expectNoPasswords(agent.output() + agent.log());
    expectNoPasswords(serversLog());
}

TEST_F(ServersOverTls, AWrongPasswordIsSaidAndNotShown) {
    const CtlResult made = shard("wr0ng");
    EXPECT_EQ(made.status, 1);
    EXPECT_THAT(made.out, HasSubstr("home cannot read qor_at_s1.qor_operation: home: could not connect"));
    EXPECT_THAT(made.out + made.err + serversLog(), AllOf(Not(HasSubstr("wr0ng")), Not(HasSubstr(password))));
}

TEST_F(ServersOverTls, PasswordsArePrintedOnlyWhenAskedFor) {
    ASSERT_EQ(runCtl({"import", "--standalone", "--database", home()}).status, 0);
    const CtlResult printed = shard(readersPassword, {"--print"});
    EXPECT_THAT(printed.out, HasSubstr("password '***'"));
    expectNoPasswords(printed.out + printed.err);
    const CtlResult whole = shard(readersPassword, {"--print", "--with-passwords"});
    EXPECT_THAT(whole.out, AllOf(HasSubstr("password 'r3ader''s w0rd'"), HasSubstr("password 's3cret word'")));
}

TEST(AgentsPassword, IsNotShownWhereTheCommandLineIsNotUnderstood) {
    const std::string database = "Driver=x;PWD=" + std::string(password) + ";Server=y";
    const auto refusal = [](Words words) {
        words[0] = (programDirectory() / words[0]).string();
        const auto [status, output] = runProgram(words);
        EXPECT_EQ(status, 2);
        EXPECT_THAT(output, Not(HasSubstr(password))) << words[0] << ' ' << words[1];
        return output;
    };
    for (const Words& shown : {Words{"qor-agent", database}, Words{"qor-agent", "--databas=" + database},
                               Words{"qorctl", database}, Words{"qorctl", "status", database}})
        EXPECT_THAT(refusal(shown), HasSubstr("PWD=***")) << shown[0] << ' ' << shown[1];
    EXPECT_THAT(refusal({"qorctl", "status", "--databas", database}), HasSubstr("--database"));
    refusal({"qorctl", "status", "--databas=" + database});
}

TEST(AgentWithoutItsServer, EndsAndSaysWhatToDo) {
    const ReservedPort port;  // at which nobody listens
    EXPECT_THAT(refusalOf("Driver=PostgreSQL Unicode;Server=127.0.0.1;Port=" + std::to_string(port.number()) +
                          ";Database=records;UID=agent;PWD=" + password),
                AllOf(HasSubstr("Connection refused"), HasSubstr("start the server, or correct Server and Port"),
                      Not(HasSubstr(password))));
}

TEST(AgentWhoseServerCrashed, SaysWhenToComeAgainUntilItIsBack) {
    AgentSettings settings;
    settings.database = server().withPassword();
    const AgentProcess agent(settings);
    HttpClient client(agent.socketPath());
    EXPECT_EQ(client.get("/v1/views/vOpLog/rows").status, 200);
    server().server().crash();
    for (const char* target : {"/v1/views/vOpLog/rows", "/v1/rows?fields=pager.op_log.id", "/v1/timeline"}) {
        const HttpAnswer away = client.get(target);
        EXPECT_EQ(away.status, 503) << target << away.body;
        EXPECT_THAT(away.body, HasSubstr(R"("code":"database_away")")) << target;
        EXPECT_EQ(away.headers.count("retry-after"), 1U) << target;
    }
    server().server().start();
    while (client.get("/v1/views/vOpLog/rows").status != 200)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

}  // namespace
}  // namespace QOR::test
