/// \file
/// An HTTP server in this process, with an application that echoes, for tests that talk to it over its socket.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/http/HttpServer.h"
#include "support/HttpClient.h"
#include "support/TemporaryDirectory.h"
#include "support/TestCertificates.h"
#include "support/TlsWire.h"

namespace QOR::test {

/// Opens once, for everybody who waits.
class Gate {
public:
    void open() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    void pass() {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_waiting;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
        --m_waiting;
    }
    /// Until that many wait.
    void awaitWaiting(int number) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_waiting >= number; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
    int m_waiting = 0;
};

/// Echoes bodies; some paths do more.
class EchoApplication final : public HttpApplication {
public:
    HttpIdentity identify(const HttpPeer&) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_identity;
    }
    HttpPlan plan(const HttpRequest& head, const HttpPeer&) override {
        HttpPlan plan;
        if (head.path == "/now") plan.reply = HttpReply{200, "now"};
        if (head.path == "/no") plan.reply = HttpReply{404, "no"};
        if (head.path.starts_with("/write")) plan.lane = HttpLane::Writing;
        if (head.path.starts_with("/follow")) plan.lane = HttpLane::Following;
        if (head.path.starts_with("/stream")) plan.lane = HttpLane::Streaming;
        return plan;
    }
    std::unique_ptr<HttpClientHandler> connect(const HttpPeer& peer) override {
        if (peer.credentials) lastUid = peer.credentials->uid;
        ++connected;
        return std::make_unique<Handler>(*this);
    }
    HttpReply errorReply(unsigned status, std::string_view message) override {
        return {status, "{\"status\":" + std::to_string(status) + ",\"message\":\"" + std::string(message) + "\"}",
                "application/problem+json"};
    }

    /// Whose the connections are that are accepted from now on.
    void setIdentity(const HttpIdentity& identity) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_identity = identity;
    }

    /// Targets of the requests that handlers were given, in order.
    std::vector<std::string> handled() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_handled;
    }

    void ended(const HttpEnd& end, const HttpPeer&, HttpTrace*) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ends.push_back(end);
        m_changed.notify_all();
    }
    /// What became of the next request; waits for its end.
    HttpEnd nextEnd() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return !m_ends.empty(); });
        const HttpEnd end = m_ends.front();
        m_ends.pop_front();
        return end;
    }
    bool hasNoEnd() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_ends.empty();
    }

    Gate gate;
    std::atomic<int> connected{0};
    std::atomic<int> gone{0};
    std::atomic<uid_t> lastUid{static_cast<uid_t>(-1)};

private:
    class Handler final : public HttpClientHandler {
    public:
        explicit Handler(EchoApplication& application) : m_application(application) {}
        ~Handler() override { ++m_application.gone; }
        HttpReply handle(const HttpRequest& request) override {
            ++m_requests;
            m_application.note(std::string(request.path));
            if (request.path.ends_with("/wait")) m_application.gate.pass();
            if (request.path == "/throw") throw std::runtime_error("thrown");
            if (request.path == "/big") return {200, std::string(std::stoul(std::string(request.body)), 'b')};
            if (request.path == "/number") return {200, std::to_string(m_requests)};
            if (request.path == "/kept") return kept(std::string(request.query));
            if (request.path == "/teapot") return {418, "{}", "text/plain", "POST"};
            return {200, std::string(request.method) + " " + std::string(request.path) + " " +
                             std::string(request.query) + " " + std::string(request.body)};
        }

    private:
        static HttpReply kept(std::string body) {
            HttpReply reply{200, std::move(body)};
            reply.revalidated = true;
            return reply;
        }

        EchoApplication& m_application;
        int m_requests = 0;
    };

    void note(const std::string& path) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_handled.push_back(path);
    }

    std::mutex m_mutex;
    HttpIdentity m_identity{"tester", true};
    std::vector<std::string> m_handled;
    std::deque<HttpEnd> m_ends;
    std::condition_variable m_changed;
};

/// What clients reach the server over: each test holds over all of them, and runs once over each.
enum class Over { Unix, Tcp, Tls };

inline Over testedOver() {
    const char* const set = std::getenv("QOR_TEST_HTTP_OVER");
    const std::string_view name = set == nullptr ? "unix" : set;
    if (name == "unix") return Over::Unix;
    if (name == "tcp") return Over::Tcp;
    if (name == "tls") return Over::Tls;
    throw std::runtime_error("QOR_TEST_HTTP_OVER is unix, tcp or tls");
}

/// A server with an application of the test's, from start() to stop() or the test's end.
template <class Application>
class HttpServing : public testing::Test {
protected:
    HttpServing() {
        options.listen = {over == Over::Unix ? unixAddress(directory / "http.sock")
                                             : QORAgentAddress{scheme(over), {}, "127.0.0.1", 0}};
        // On a busy machine a client may be slow without meaning it. Tests of a time set that one.
        for (std::chrono::milliseconds* time : {&options.handshakeTimeout, &options.headerTimeout, &options.bodyTimeout,
                                                &options.writeTimeout, &options.deadline, &options.bodyWait})
            *time = std::chrono::minutes(10);
        if (over != Over::Tls) return;
        const TestCertificates& files = certificates();
        options.certificates =
            std::make_shared<HttpCertificates>(HttpCertificateFiles{files.certificate("server"), files.key("server")});
    }
    ~HttpServing() override {
        if (server) stop();
    }

    void start() {
        server = std::make_unique<HttpServer>(options, application);
        result = std::async(std::launch::async, [this] { return server->run(); });
    }
    /// \returns whether everything in flight was answered
    bool stop() {
        server->stop();
        const bool answered = result.get();
        server.reset();
        return answered;
    }
    HttpClient connect() const {
        if (over == Over::Unix) return HttpClient(options.listen.front().path);
        const int socket = connectTcp("127.0.0.1", server->addresses().front().port);
        if (over == Over::Tcp) return HttpClient(socket);
        return HttpClient(socket, std::make_unique<TlsWire>(socket, TlsFiles{certificates().certificate("authority")}));
    }
    static QORAgentAddress::Scheme scheme(Over over) {
        return over == Over::Tls ? QORAgentAddress::Scheme::Https : QORAgentAddress::Scheme::Http;
    }
    /// Made once: that takes longer than most tests.
    static const TestCertificates& certificates() {
        static const TestCertificates made;
        return made;
    }

    const Over over = testedOver();

    TemporaryDirectory directory;
    HttpServerOptions options;
    Application application;
    std::unique_ptr<HttpServer> server;
    std::future<bool> result;
};

class HttpServerTest : public HttpServing<EchoApplication> {
protected:
    ~HttpServerTest() override { application.gate.open(); }

    /// A connection that the server has accepted as that identity.
    HttpClient connectAs(const std::string& key, bool reserved = false) {
        application.setIdentity({key, reserved});
        HttpClient client = connect();
        if (client.get("/now").status != 200) throw std::runtime_error(key + " was not let in");
        return client;
    }
};

}  // namespace QOR::test
