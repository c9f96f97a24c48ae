#include "agent/http/HttpServer.h"

#include <algorithm>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <unordered_set>

#include "QORCommon/QORLogger.h"
#include "agent/http/HttpConnection.h"
#include "agent/http/LocalListener.h"

namespace QOR {
namespace {

constexpr const char* module = "QORAgent";
constexpr const char* sourcePath = "qor/agent/http/HttpServer";
/// How long to wait when a connection cannot be accepted, usually for want of file descriptors.
constexpr auto acceptPause = std::chrono::milliseconds(100);

}  // namespace

HttpClientHandler::~HttpClientHandler() = default;
HttpApplication::~HttpApplication() = default;

class HttpServer::Impl final : public HttpConnectionOwner {
public:
    Impl(const HttpServerOptions& options, HttpApplication& application)
        : m_options(options),
          m_application(application),
          m_listener(options.socketPath),
          m_workers(std::max<std::size_t>(options.threads, 1)),
          m_acceptor(m_io, net::local::stream_protocol(), m_listener.releaseSocket()),
          m_graceTimer(m_io),
          m_acceptTimer(m_io),
          m_work(m_io.get_executor()) {}

    bool run() {
        accept();
        for (bool ended = false; !ended;) {
            try {
                m_io.run();
                ended = true;
            } catch (const std::exception& exception) {
                logMessage(0, module, sourcePath, "run", "%s", exception.what());
            }
        }
        if (!m_abandoned) m_workers.join();
        m_listener.removeNames();
        return !m_abandoned;
    }

    void stop() {
        net::post(m_io, [this] { beginStop(); });
    }

    std::size_t connections() const noexcept { return m_count.load(std::memory_order_relaxed); }

    // ---- HttpConnectionOwner
    const HttpServerOptions& options() const override { return m_options; }
    HttpApplication& application() override { return m_application; }
    net::thread_pool& workers() override { return m_workers; }
    bool isStopping() const override { return m_stopping; }
    void requestBegan() override { ++m_inFlight; }
    void requestEnded() override {
        --m_inFlight;
        if (m_stopping) finishWhenIdle();
    }
    void connectionClosed(HttpConnection& connection) override {
        m_connections.erase(&connection);
        m_count.store(m_connections.size(), std::memory_order_relaxed);
        if (std::exchange(m_acceptPaused, false) && !m_stopping) accept();
    }

private:
    void accept() {
        m_acceptor.async_accept([this](beast::error_code error, HttpConnection::Socket socket) {
            if (m_stopping) return;
            if (error) {
                acceptLater(error);
                return;
            }
            const auto connection = std::make_shared<HttpConnection>(std::move(socket), *this);
            m_connections.insert(connection.get());
            m_count.store(m_connections.size(), std::memory_order_relaxed);
            connection->start();
            m_acceptPaused = m_connections.size() >= m_options.maxConnections;
            if (!m_acceptPaused) accept();
        });
    }

    void acceptLater(beast::error_code error) {
        logMessage(1, module, sourcePath, "accept", "cannot accept a connection: %s", error.message().c_str());
        m_acceptTimer.expires_after(acceptPause);
        m_acceptTimer.async_wait([this](beast::error_code cancelled) {
            if (!cancelled && !m_stopping) accept();
        });
    }

    void beginStop() {
        if (m_stopping) {
            abandon();
            return;
        }
        m_stopping = true;
        beast::error_code ignored;
        m_acceptor.close(ignored);
        m_acceptTimer.cancel();
        m_graceTimer.expires_after(m_options.grace);
        m_graceTimer.async_wait([this](beast::error_code cancelled) {
            if (!cancelled) abandon();
        });
        logMessage(2, module, sourcePath, "stop", "stopping; %zu requests are in flight", m_inFlight);
        finishWhenIdle();
    }

    void finishWhenIdle() {
        if (m_inFlight == 0) finish();
    }

    void finish() {
        if (m_finishing) return;
        m_finishing = true;
        // Not from within the connection that has just ended its request.
        net::post(m_io, [this] {
            m_graceTimer.cancel();
            while (!m_connections.empty())
                (*m_connections.begin())->close();
            m_work.reset();
        });
    }

    /// Waits no longer. Replies that their clients do not take can be dropped; requests that run cannot be ended.
    void abandon() {
        if (m_finishing) return;
        logMessage(0, module, sourcePath, "stop", "%zu requests are given up", m_inFlight);
        if (std::none_of(m_connections.begin(), m_connections.end(), [](auto* each) { return each->isWorking(); })) {
            finish();
            return;
        }
        m_abandoned = true;
        m_io.stop();
    }

    const HttpServerOptions m_options;
    HttpApplication& m_application;
    LocalListener m_listener;
    // The workers go first: what they still hold of a connection posts to m_io.
    net::io_context m_io{1};
    net::thread_pool m_workers;
    net::local::stream_protocol::acceptor m_acceptor;
    net::steady_timer m_graceTimer;
    net::steady_timer m_acceptTimer;
    net::executor_work_guard<net::io_context::executor_type> m_work;
    std::unordered_set<HttpConnection*> m_connections;  // each keeps itself alive
    std::atomic<std::size_t> m_count{0};
    std::size_t m_inFlight = 0;
    bool m_acceptPaused = false;
    bool m_stopping = false;
    bool m_finishing = false;
    bool m_abandoned = false;
};

HttpServer::HttpServer(const HttpServerOptions& options, HttpApplication& application)
    : m_impl(std::make_unique<Impl>(options, application)) {}

HttpServer::~HttpServer() = default;

bool HttpServer::run() {
    return m_impl->run();
}

void HttpServer::stop() {
    m_impl->stop();
}

std::size_t HttpServer::connections() const noexcept {
    return m_impl->connections();
}

}  // namespace QOR
