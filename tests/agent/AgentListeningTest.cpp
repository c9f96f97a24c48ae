// A real agent at several addresses at once, and qorctl that finds it there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "ctl/CtlProcess.h"
#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/TestCertificates.h"
#include "support/TlsWire.h"

namespace QOR::test {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string ctlProgram() {
    return (programDirectory() / "qorctl").string();
}

/// Where an agent says that it listens.
int portOf(const AgentProcess& agent, const std::string& scheme) {
    const std::string text = "qor-agent listening on " + scheme + "://127.0.0.1:";
    const std::string output = agent.output();
    const std::size_t at = output.find(text);
    if (at == std::string::npos) throw std::runtime_error("it does not listen there: " + output);
    return std::stoi(output.substr(at + text.size()));
}

class AgentListeningTest : public testing::Test {
protected:
    AgentListeningTest() {
        for (const char* name : {"server.crt", "server.key"})
            use(name, name);
    }
    /// Makes a file of the agent's what one of the certificates' is.
    void use(const std::string& name, const std::string& made) const {
        std::filesystem::copy_file(certificates.path(made), directory / name,
                                   std::filesystem::copy_options::overwrite_existing);
    }
    Words secure() const {
        return {"--listen",          "https://127.0.0.1:0",
                "--tls-certificate", (directory / "server.crt").string(),
                "--tls-key",         (directory / "server.key").string()};
    }
    Words everywhere() const {
        Words all = secure();
        all.insert(all.end(), {"--listen", "http://127.0.0.1:0"});
        return all;
    }
    /// What an agent says that does not start.
    std::string refusalOf(Words more) const {
        Words command{(programDirectory() / "qor-agent").string(), "--database",
                      "Driver=SQLite3;Database=" + (directory / "refused.db").string()};
        command.insert(command.end(), more.begin(), more.end());
        ChildProcess child(command);
        EXPECT_EQ(child.wait(), 1) << child.output();
        return child.output();
    }
    CtlResult ask(const std::string& agent, Words more = {}) const {
        Words words{ctlProgram(), "views", "--agent", agent};
        words.insert(words.end(), more.begin(), more.end());
        return CtlProcess(words).finish();
    }

    TemporaryDirectory directory;
    TestCertificates certificates;
};

TEST_F(AgentListeningTest, OverTcpNothingButItsLifeIsToldToWhoeverAsks) {
    const AgentProcess agent({.more = everywhere()});
    // Each from an address of its own: who comes again after a refusal waits longer each time.
    const auto plain = [&] {
        return HttpClient(connectTcp("127.0.0.1", portOf(agent, "http"), unusedLoopbackAddress()));
    };
    const auto secure = [&] {
        const int socket = connectTcp("127.0.0.1", portOf(agent, "https"), unusedLoopbackAddress());
        return HttpClient(socket, std::make_unique<TlsWire>(socket, TlsFiles{certificates.certificate("authority")}));
    };
    for (const std::function<HttpClient()>& connect :
         {std::function<HttpClient()>(plain), std::function<HttpClient()>(secure)}) {
        for (const char* target : {"/v1/views", "/v1/health", "/health/ready", "/v1/status", "/nothing"}) {
            HttpClient client = connect();
            EXPECT_EQ(client.get("/health/live").status, 200);
            const HttpAnswer answer = client.get(target);
            EXPECT_EQ(answer.status, 401) << target;
            EXPECT_EQ(answer.headers.at("www-authenticate"), "Bearer realm=\"qor-agent\"") << target;
            EXPECT_EQ(client.request("HEAD", "/health/live").status, 200);
        }
        EXPECT_EQ(connect().post("/v1/messages", "{}").status, 401);
    }
}

TEST_F(AgentListeningTest, TheSocketIsThereToo) {
    const AgentProcess agent({.more = everywhere()});
    HttpClient client(agent.socketPath());
    EXPECT_EQ(client.get("/v1/views").status, 200);
    EXPECT_EQ(client.get("/health/live").body, R"({"status":"live"})");
    const HttpAnswer ready = client.get("/health/ready");
    EXPECT_EQ(ready.status, 200);
    EXPECT_EQ(ready.body, R"({"status":"ok"})");
    EXPECT_THAT(agent.output(), HasSubstr("qor-agent listening on " + agent.socketPath() + "\n"));
}

TEST_F(AgentListeningTest, WhatIsWrongWithAnAddressIsSaidAtTheStart) {
    EXPECT_THAT(refusalOf({"--listen", "http://0.0.0.0:0"}),
                HasSubstr("cannot listen at http://0.0.0.0:0: plain http is for this machine's own programs"));
    EXPECT_THAT(refusalOf({"--listen", "127.0.0.1:7481"}),
                HasSubstr("one is written unix:PATH, http://HOST:PORT or https://HOST:PORT"));
    EXPECT_THAT(refusalOf({"--listen", "https://127.0.0.1:0"}),
                HasSubstr("--listen https://... needs --tls-certificate and --tls-key"));
    EXPECT_THAT(refusalOf({"--listen", "http://127.0.0.1:0", "--tls-key", "k"}),
                HasSubstr("--tls-certificate, --tls-key and --tls-client-ca are for --listen https://..."));
    use("server.key", "other.key");
    EXPECT_THAT(refusalOf(secure()), HasSubstr("does not belong to the certificate"));
    EXPECT_FALSE(std::filesystem::exists(directory / "refused.db"));
}

TEST_F(AgentListeningTest, HupReadsCertificatesAnewAllOrNothing) {
    const AgentProcess agent({.more = secure()});
    const std::string where = "https://127.0.0.1:" + std::to_string(portOf(agent, "https"));
    const auto hupUntil = [&](const std::string& text) {
        agent.signal(SIGHUP);
        while (agent.log().find(text) == std::string::npos)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    };
    const Words first{"--ca", certificates.certificate("authority")};
    const Words second{"--ca", certificates.certificate("other")};
    certificates.issue("later", "other", "IP:127.0.0.1");
    use("server.crt", "later.crt");
    hupUntil("the certificates stay as they were");
    EXPECT_THAT(ask(where, first).err, HasSubstr("error 401"));
    use("server.key", "later.key");
    hupUntil("the certificates have been read anew");
    EXPECT_THAT(ask(where, first).err, HasSubstr("its certificate is not trusted"));
    EXPECT_THAT(ask(where, second).err, HasSubstr("error 401"));
}

TEST_F(AgentListeningTest, QorctlSaysWhyItFindsNoAgent) {
    const AgentProcess agent({.more = everywhere()});
    const std::string secure = "127.0.0.1:" + std::to_string(portOf(agent, "https"));
    const std::string plain = "127.0.0.1:" + std::to_string(portOf(agent, "http"));
    const Words ca{"--ca", certificates.certificate("authority")};

    const CtlResult nobody = ask("http://127.0.0.1:1");
    EXPECT_EQ(nobody.status, 3);
    EXPECT_THAT(nobody.err, HasSubstr("no agent answers at http://127.0.0.1:1: Connection refused; an agent is told to "
                                      "listen there by --listen http://127.0.0.1:1"));
    EXPECT_THAT(ask("https://" + secure).err,
                HasSubstr("its certificate is not trusted: unable to get local issuer certificate; name its "
                          "authority's certificate with --ca FILE"));
    EXPECT_THAT(ask("https://" + secure, {"--ca", certificates.certificate("other")}).err,
                HasSubstr("is all that is believed (--ca)"));
    EXPECT_THAT(ask("https://" + plain, ca).err, HasSubstr("it ended the connection; does it speak https there?"));
    EXPECT_THAT(ask("http://" + secure).err, HasSubstr("https is spoken here, not http"));
    EXPECT_THAT(ask("https://" + secure, {"--ca", "/dev/null"}).err,
                HasSubstr("no certificate can be read from /dev/null"));
    EXPECT_EQ(ask("https://" + secure, ca).status, 1);
    EXPECT_THAT(ask("https://" + secure, ca).err, HasSubstr("error 401: over TCP everybody has to say who he is"));
}

TEST_F(AgentListeningTest, QorctlWantsTheHostThatItNamed) {
    certificates.issue("elsewhere", "authority", "DNS:db.example.org,IP:192.0.2.1");
    use("server.crt", "elsewhere.crt");
    use("server.key", "elsewhere.key");
    const AgentProcess agent({.more = secure()});
    const std::string port = std::to_string(portOf(agent, "https"));
    for (const char* host : {"127.0.0.1", "localhost"}) {
        EXPECT_THAT(
            ask("https://" + std::string(host) + ":" + port, {"--ca", certificates.certificate("authority")}).err,
            HasSubstr("its certificate is for db.example.org, 192.0.2.1; name the host as its certificate does, "
                      "in place of " +
                      std::string(host)));
    }
}

TEST_F(AgentListeningTest, QorctlIsWhoItsCertificateSays) {
    certificates.issue("reporter", "authority", "");
    certificates.issue("stranger", "other", "");
    for (const char* name : {"reporter", "stranger"})
        ::chmod(certificates.key(name).c_str(), 0600);
    Words more = secure();
    more.insert(more.end(), {"--tls-client-ca", certificates.certificate("authority")});
    const AgentProcess agent({.more = more});
    ASSERT_EQ(HttpClient(agent.socketPath())
                  .post("/v1/identities/add",
                        R"({"name":"reports","kind":"certificate","subject":"reporter","access":"full"})")
                  .status,
              200);
    const auto as = [&](const std::string& certificate, const std::string& key) {
        Words words{"--ca", certificates.certificate("authority"), "--certificate", certificate};
        if (!key.empty()) words.insert(words.end(), {"--key", key});
        return ask("https://127.0.0.1:" + std::to_string(portOf(agent, "https")), words);
    };
    const std::string own = certificates.certificate("reporter");
    const CtlResult known = as(own, certificates.key("reporter"));
    EXPECT_EQ(known.status, 0) << known.err;
    EXPECT_THAT(known.out, HasSubstr("vOpLog"));
    EXPECT_THAT(known.err, Not(HasSubstr("note: ")));

    // Both in one file, as some authorities hand them out.
    const std::string both = (directory / "both.pem").string();
    std::ofstream(both) << std::ifstream(own).rdbuf() << std::ifstream(certificates.key("reporter")).rdbuf();
    EXPECT_EQ(as(both, "").status, 0);
    ::chmod(certificates.key("reporter").c_str(), 0644);
    EXPECT_THAT(as(own, certificates.key("reporter")).err,
                HasSubstr("note: " + certificates.key("reporter") + " holds a key and may be read by others"));

    const CtlResult foreign = as(certificates.certificate("stranger"), certificates.key("stranger"));
    EXPECT_EQ(foreign.status, 3) << foreign.err;
    EXPECT_THAT(foreign.err, HasSubstr("it refuses " + certificates.certificate("stranger") + ": "));
    const CtlResult other = as(own, certificates.key("stranger"));
    EXPECT_EQ(other.status, 2);
    EXPECT_THAT(other.err, HasSubstr("--key: none for " + own + " can be read from "));
    EXPECT_THAT(as(own, "").err, HasSubstr("--key: none for "));
    EXPECT_THAT(as("/dev/null", own).err, HasSubstr("--certificate: none can be read from /dev/null"));
}

TEST_F(AgentListeningTest, OptionsOfQorctlThatContradictEachOtherAreRefused) {
    EXPECT_THAT(ask("http://127.0.0.1:1", {"--certificate", "x"}).err,
                HasSubstr("--certificate needs --agent https://HOST:PORT"));
    EXPECT_THAT(ask("https://127.0.0.1:1", {"--key", "x"}).err, HasSubstr("--key needs --certificate"));
    EXPECT_EQ(ask("ftp://127.0.0.1:1").status, 2);
    EXPECT_EQ(ask("http://127.0.0.1:1", {"--ca", "x"}).status, 2);
    EXPECT_EQ(ask("http://127.0.0.1:1", {"--socket", "x"}).status, 2);
    EXPECT_THAT(ask("http://127.0.0.1:1", {"--standalone", "--database", "x"}).err,
                HasSubstr("--agent and --standalone exclude each other"));
}

}  // namespace
}  // namespace QOR::test
