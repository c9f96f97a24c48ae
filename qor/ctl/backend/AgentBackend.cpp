// The only unit that knows of Beast.
#include "backend/AgentBackend.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <limits>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

#include "QORCommon/QORException.h"
#include "QORCommon/QORGuid.h"
#include "QORMessage/QORNotation.h"
#include "backend/AgentReplies.h"
#include "host/QORHostPaths.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using Protocol = asio::local::stream_protocol;

constexpr std::size_t sendBlock = 64 * 1024;
/// An agent that is started again is waited for: 12 seconds in all.
constexpr auto firstPause = std::chrono::milliseconds(100);
constexpr auto lastPause = std::chrono::milliseconds(6400);
/// Answers may be of any size. Not boost::none, which this version of Beast takes for less than any announced length.
constexpr std::uint64_t anySize = std::numeric_limits<std::uint64_t>::max();

/// A request's line and headers; the body follows.
/// \param fields further ones, each with its line's end
std::string requestHead(std::string_view method, std::string_view target, std::size_t size,
                        std::string_view fields = {}) {
    std::string head;
    head.append(method).append(" ").append(target).append(" HTTP/1.1\r\nHost: localhost\r\n").append(fields);
    if (method == "POST")
        head.append("Content-Type: application/json\r\nContent-Length: ").append(std::to_string(size)).append("\r\n");
    return head += "\r\n";
}

std::string describe(const boost::system::error_code& error) {
    return error == http::error::end_of_stream || error == http::error::partial_message || error == asio::error::eof
               ? "it closed the connection"
               : error.message();
}

bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t") == std::string_view::npos;
}

}  // namespace

/// The socket and what has been read ahead from it. One thread may send while another receives.
class AgentBackend::Connection {
public:
    explicit Connection(const std::string& path) : m_path(path), m_socket(m_context) {
        boost::system::error_code error;
        // An address that is too long for a socket is no error code but an exception.
        try {
            m_socket.connect(Protocol::endpoint(path), error);
        } catch (const boost::system::system_error& failure) {
            error = failure.code();
        }
        if (!error) return;
        std::string advice =
            "start it (qor-agent), name its socket (--socket), or work without one (--standalone "
            "--database CONNECTION-STRING)";
        if (error == boost::system::errc::permission_denied) advice = "ask to be let into the socket's group";
        throw CtlError::noConnection("no agent answers at " + path + ": " + error.message() + "; " + advice);
    }

    void send(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(m_socket.native_handle(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent >= 0)
                bytes.remove_prefix(static_cast<std::size_t>(sent));
            else if (errno != EINTR)
                lost(std::generic_category().message(errno));
        }
    }

    /// Sends a request. An agent that refuses it while it is still being sent has its answer read all the same.
    void sendRequest(std::string_view method, std::string_view target, std::string_view body,
                     std::string_view fields = {}) {
        try {
            send(requestHead(method, target, body.size(), fields));
            send(body);
        } catch (const CtlError&) {
            m_sendFailed = true;
        }
    }

    /// The next answer's body.
    std::string receive() {
        http::response_parser<http::string_body> parser;
        parser.body_limit(anySize);
        boost::system::error_code error;
        http::read(m_socket, m_ahead, parser, error);
        if (error) lost(describe(error));
        m_closing = !parser.get().keep_alive();
        return std::move(parser.get().body());
    }

    template <class Parser>
    void readHeader(Parser& parser) {
        parser.body_limit(anySize);
        boost::system::error_code error;
        http::read_header(m_socket, m_ahead, parser, error);
        if (error) lost(describe(error));
    }
    /// A part of an answer that has begun: without its end it is an error, not a shorter answer.
    template <class Parser>
    void readSome(Parser& parser) {
        boost::system::error_code error;
        http::read(m_socket, m_ahead, parser, error);
        if (!error || error == http::error::need_buffer) return;
        throw CtlError(CtlExit::AnsweredError,
                       "the answer of the agent at " + m_path + " broke off: " + describe(error));
    }

    /// True when the agent said that it answers nothing more on this connection.
    bool isClosing() const noexcept { return m_closing; }
    /// Wakes whoever sends or receives.
    void abandon() {
        boost::system::error_code ignored;
        m_socket.shutdown(Protocol::socket::shutdown_both, ignored);
    }

    [[noreturn]] void lost(const std::string& reason) const {
        throw CtlError::noConnection("lost the agent at " + m_path + ": " + reason +
                                     (m_sendFailed ? " while it was being asked" : ""));
    }

private:
    std::string m_path;
    asio::io_context m_context{1};
    Protocol::socket m_socket;
    boost::beast::flat_buffer m_ahead;
    bool m_closing = false;
    bool m_sendFailed = false;
};

/// An answer's body as it arrives.
class AgentBackend::Source final : public AnswerSource {
public:
    explicit Source(Connection& connection) : m_connection(connection) { m_connection.readHeader(m_parser); }

    std::string_view read() override {
        while (!m_parser.is_done()) {
            auto& body = m_parser.get().body();
            body.data = m_block.data();
            body.size = m_block.size();
            m_connection.readSome(m_parser);
            const std::size_t got = m_block.size() - body.size;
            if (got > 0) return {m_block.data(), got};
        }
        return {};
    }

private:
    Connection& m_connection;
    http::response_parser<http::buffer_body> m_parser;
    std::string m_block = std::string(sendBlock, '\0');
};

/// Lines on their way: one thread reads and sends them, the other receives the answers in the same order.
class AgentBackend::Pipeline {
public:
    Pipeline(Connection& connection, int input)
        : m_connection(connection),
          m_stop(::eventfd(0, EFD_CLOEXEC)),
          m_lines(input, m_stop, requestLimit),
          m_sender([this] { sendAll(); }) {}

    ~Pipeline() {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(m_stop, &one, sizeof one);
        if (!m_finished) m_connection.abandon();
        m_sender.join();
        ::close(m_stop);
    }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    void receiveAll(const TakeAnswer& take) {
        while (const std::optional<std::string> answer = nextAnswer())
            take(*answer, isIdle());
        m_finished = true;
    }

private:
    /// What stands for a request in the order of the answers: nothing when the agent answers it.
    using Expected = std::optional<std::string>;

    void expect(Expected expected) {
        const std::lock_guard lock(m_mutex);
        m_expected.push_back(std::move(expected));
        m_changed.notify_one();
    }

    void sendAll() {
        std::string block;
        try {
            while (m_lines.next() == LineInput::Got::Line) {
                addRequest(block);
                if (block.size() >= sendBlock || !m_lines.isReady()) {
                    m_connection.send(block);
                    block.clear();
                }
            }
        } catch (...) {
            m_failure = std::current_exception();
        }
        const std::lock_guard lock(m_mutex);
        m_ended = true;
        m_changed.notify_one();
    }

    void addRequest(std::string& block) {
        const std::string_view line = m_lines.line();
        if (isBlank(line)) return;
        if (m_lines.isCut()) {
            std::string answer;
            writeErrorResponse(errBadRequest, "the line is longer than a request may be", answer);
            return expect(std::move(answer));
        }
        block += requestHead("POST", "/v1/messages", line.size());
        block += line;
        expect(std::nullopt);
    }

    /// Empty at the end of the input.
    std::optional<std::string> nextAnswer() {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return !m_expected.empty() || m_ended; });
        if (m_expected.empty()) {
            if (m_failure) std::rethrow_exception(m_failure);
            return std::nullopt;
        }
        const Expected expected = std::move(m_expected.front());
        m_expected.pop_front();
        lock.unlock();
        if (expected) return expected;
        if (m_connection.isClosing()) m_connection.lost("it answers no more requests");
        return m_connection.receive();
    }

    bool isIdle() {
        const std::lock_guard lock(m_mutex);
        return m_expected.empty();
    }

    Connection& m_connection;
    const int m_stop;
    LineInput m_lines;  // the sender's alone
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Expected> m_expected;  // guarded by m_mutex
    bool m_ended = false;             // guarded by m_mutex
    std::exception_ptr m_failure;     // written before m_ended
    bool m_finished = false;
    std::thread m_sender;
};

AgentBackend::AgentBackend(const std::string& socket)
    : m_socket(socket.empty() ? defaultClientSocketPath().string() : socket),
      m_connection(std::make_unique<Connection>(m_socket)) {}

AgentBackend::~AgentBackend() = default;

/// Root has full access everywhere and need not ask.
bool AgentBackend::seesEnvironments() {
    if (::geteuid() == 0) return true;
    m_connection->sendRequest("GET", "/v1/health", "");
    return readAccess(m_connection->receive());
}

std::unique_ptr<AnswerSource> AgentBackend::ask(std::string_view request) {
    m_connection->sendRequest("POST", "/v1/messages?stream=true", request);
    return std::make_unique<Source>(*m_connection);
}

void AgentBackend::answerLines(int input, const TakeAnswer& take) {
    Pipeline pipeline(*m_connection, input);
    pipeline.receiveAll(take);
}

/// A batch whose answer is lost may have been stored, and may be sent again: under its key the agent stores it once.
QORIngestResult AgentBackend::importBatch(std::string_view lines, std::uint64_t firstLine) {
    const std::string target = "/v1/records?first-line=" + std::to_string(firstLine);
    const std::string key = "Idempotency-Key: " + QORGUIDBase::random().toString() + "\r\n";
    for (auto pause = firstPause;; pause *= 2) {
        try {
            if (!m_connection) m_connection = std::make_unique<Connection>(m_socket);
            m_connection->sendRequest("POST", target, lines, key);
            return readIngestReply(m_connection->receive());
        } catch (const CtlError& error) {
            if (error.exit() != CtlExit::NoConnection || pause > lastPause) throw;
        }
        m_connection.reset();
        std::this_thread::sleep_for(pause);
    }
}

/// The agent collects to the end, whether somebody waits or not.
QORCollectResult AgentBackend::collect(const std::stop_token&) {
    m_connection->sendRequest("POST", "/v1/collect", "");
    return readCollectReply(m_connection->receive());
}

std::vector<QORViewColumn> AgentBackend::views() {
    m_connection->sendRequest("GET", "/v1/views", "");
    return readViewsReply(m_connection->receive());
}

BackendStatus AgentBackend::status() {
    m_connection->sendRequest("GET", "/v1/status", "");
    const QORDatabaseStatus database = readStatusReply(m_connection->receive());
    m_connection->sendRequest("GET", "/v1/health", "");
    return {readHealthReply(m_connection->receive()), database};
}

std::vector<QORCheckFinding> AgentBackend::check(const std::string& part, bool mend) {
    m_connection->sendRequest("POST", "/v1/check?part=" + part + (mend ? "&mend=1" : ""), "");
    return readCheckReply(m_connection->receive());
}

Backend::Pruned AgentBackend::prune(const std::string& kind, std::int64_t before) {
    m_connection->sendRequest("POST", "/v1/prune?what=" + kind + "&before=" + std::to_string(before), "");
    return readPruneReply(m_connection->receive());
}

QORPtr<const QORVocMap> AgentBackend::vocabulary() {
    m_connection->sendRequest("GET", "/v1/vocabulary", "");
    return readVocabularyReply(m_connection->receive());
}

}  // namespace QOR
