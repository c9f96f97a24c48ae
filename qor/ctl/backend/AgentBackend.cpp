// The only unit that knows of Beast.
#include "backend/AgentBackend.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <limits>
#include <mutex>
#include <optional>
#include <span>
#include <system_error>
#include <thread>

#include "QORCommon/QORGuid.h"
#include "QORCommon/QORTime.h"
#include "backend/AgentPauses.h"
#include "backend/AgentReplies.h"
#include "backend/AgentTarget.h"
#include "host/QORPlainNumber.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;

constexpr std::size_t sendBlock = 64 * 1024;
/// How often a request is asked again that was turned down, and the longest that is waited for it.
constexpr unsigned mostRepeats = 5;
constexpr std::uint64_t longestWait = 60;  // seconds
/// Bytes of requests that were sent and have no answer yet.
constexpr std::size_t mostAhead = std::size_t{16} << 20;
/// Answers may be of any size. Not boost::none, which this version of Beast takes for less than any announced length.
constexpr std::uint64_t anySize = std::numeric_limits<std::uint64_t>::max();

/// A request's line and headers; the body follows.
/// \param fields further ones, each with its line's end
std::string requestHead(std::string_view host, std::string_view method, std::string_view target, std::size_t size,
                        std::string_view fields = {}) {
    std::string head;
    head.append(method).append(" ").append(target).append(" HTTP/1.1\r\nHost: ").append(host).append("\r\n");
    head.append(fields);
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

/// A channel as the HTTP library reads from one.
class ReadStream {
public:
    explicit ReadStream(AgentChannel& channel) : m_channel(channel) {}

    template <class Buffers>
    std::size_t read_some(const Buffers& buffers, boost::system::error_code& error) {
        const asio::mutable_buffer room = *asio::buffer_sequence_begin(buffers);
        try {
            const std::size_t got = m_channel.receive({static_cast<char*>(room.data()), room.size()});
            error = got == 0 ? asio::error::eof : boost::system::error_code();
            return got;
        } catch (const std::system_error& failure) {
            error.assign(failure.code().value(), boost::system::generic_category());
            return 0;
        }
    }
    template <class Buffers>
    std::size_t read_some(const Buffers& buffers) {
        boost::system::error_code error;
        const std::size_t got = read_some(buffers, error);
        if (error) throw boost::system::system_error(error);
        return got;
    }

private:
    AgentChannel& m_channel;
};

/// How patient somebody is who is told to come again later.
class Patience {
public:
    /// Waits as long as was asked. \returns false when nothing was asked, or no more is waited
    bool wait(const std::optional<std::uint64_t>& seconds) {
        if (!seconds || *seconds > longestWait || m_left == 0) return false;
        --m_left;
        std::this_thread::sleep_for(std::chrono::seconds(*seconds));
        return true;
    }

private:
    unsigned m_left = mostRepeats;
};

}  // namespace

struct AgentBackend::Request {
    std::string_view method;
    std::string target;
    std::string_view body{};
    std::string fields{};  ///< further ones, each with its line's end
    /// It changes nothing, or is stored once however often it comes.
    bool repeatable = true;
};

/// A channel and what has been read ahead from it. One thread may send while another receives.
class AgentBackend::Connection {
public:
    explicit Connection(const AgentPlace& place)
        : m_name(place.name()),
          m_host((place.address.isUnix() ? "localhost" : place.address.authority()) +
                 (place.token.empty() ? "" : "\r\nAuthorization: Bearer " + place.token)),
          m_channel(place) {}

    void send(std::string_view bytes) {
        try {
            m_channel.send(bytes);
        } catch (const std::system_error& failure) {
            lost(failure.code().message());
        }
    }

    std::string headOf(const Request& request) const {
        return requestHead(m_host, request.method, request.target, request.body.size(), request.fields);
    }

    /// Sends a request. An agent that refuses it while it is still being sent has its answer read all the same.
    void sendRequest(const Request& request) {
        try {
            send(headOf(request));
            send(request.body);
        } catch (const CtlError&) {
            m_sendFailed = true;
        }
    }

    template <class Parser>
    void readHeader(Parser& parser) {
        parser.body_limit(anySize);
        boost::system::error_code error;
        http::read_header(m_stream, m_ahead, parser, error);
        if (error) lost(describe(error));
        m_closing = !parser.get().keep_alive();
    }
    /// What is there of an answer that has begun: without its end it is an error, not a shorter answer.
    template <class Parser>
    void readSome(Parser& parser) {
        boost::system::error_code error;
        http::read_some(m_stream, m_ahead, parser, error);
        if (!error || error == http::error::need_buffer) return;
        throw CtlError(CtlExit::AnsweredError,
                       "the answer of the agent at " + m_name + " broke off: " + describe(error));
    }

    /// True when the agent said that it answers nothing more on this connection.
    bool isClosing() const noexcept { return m_closing; }
    /// Room for what is read of an answer.
    std::string& block() noexcept { return m_block; }
    /// Wakes whoever sends or receives.
    void abandon() { m_channel.abandon(); }

    [[noreturn]] void lost(const std::string& reason) const {
        throw CtlError::noConnection("lost the agent at " + m_name + ": " + reason +
                                     (m_sendFailed ? " while it was being asked" : ""));
    }

private:
    const std::string m_name;
    const std::string m_host;  ///< and what else is the same in each request's head
    AgentChannel m_channel;
    ReadStream m_stream{m_channel};
    boost::beast::flat_buffer m_ahead;
    std::string m_block = std::string(sendBlock, '\0');
    bool m_closing = false;
    bool m_sendFailed = false;
};

/// An answer's body as it arrives; of a problem, the answer that stands in its place.
class AgentBackend::Source final : public AnswerSource {
public:
    explicit Source(Connection& connection) : m_connection(connection) {
        m_connection.readHeader(m_parser);
        const auto type = m_parser.get()[http::field::content_type];
        if (type == "application/problem+json") m_problem.emplace(notationOfProblem(bodyText()));
    }

    /// The seconds after which the agent, which did nothing for this request, wants to be asked again.
    std::optional<std::uint64_t> retryAfter() const {
        const auto& head = m_parser.get();
        if (head.result() != http::status::service_unavailable && head.result() != http::status::too_many_requests)
            return std::nullopt;
        const auto seconds = head[http::field::retry_after];
        return readPlainNumber({seconds.data(), seconds.size()}, {0, std::numeric_limits<std::uint32_t>::max()});
    }

    bool isProblem() const noexcept { return m_problem.has_value(); }

    std::string_view read() override { return m_problem ? m_problem->read() : body(); }

    std::string readAll() { return m_problem ? std::string(m_problem->read()) : bodyText(); }

private:
    std::string_view body() {
        while (!m_parser.is_done()) {
            auto& body = m_parser.get().body();
            std::string& block = m_connection.block();
            body.data = block.data();
            body.size = block.size();
            m_connection.readSome(m_parser);
            const std::size_t got = block.size() - body.size;
            if (got > 0) return {block.data(), got};
        }
        return {};
    }

    std::string bodyText() {
        std::string text;
        for (std::string_view piece = body(); !piece.empty(); piece = body())
            text += piece;
        return text;
    }

    Connection& m_connection;
    http::response_parser<http::buffer_body> m_parser;
    std::optional<TextSource> m_problem;
};

/// Lines on their way: one thread reads and sends them, the other receives the answers in the same order. What the
/// agent turns down meanwhile is asked again on another connection, in its turn.
class AgentBackend::Pipeline {
public:
    Pipeline(AgentBackend& backend, int input)
        : m_backend(backend),
          m_connection(*backend.m_connection),
          m_stop(::eventfd(0, EFD_CLOEXEC)),
          m_lines(input, m_stop, requestLimit),
          m_sender([this] { sendAll(); }) {}

    ~Pipeline() {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(m_stop, &one, sizeof one);
        if (!m_finished) m_connection.abandon();
        {
            const std::lock_guard lock(m_mutex);
            m_givenUp = true;
            m_changed.notify_all();
        }
        m_sender.join();
        ::close(m_stop);
    }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    void receiveAll(LineAnswers& answers) {
        while (const std::optional<Line> line = nextLine()) {
            if (line->refused) {
                answers.piece(refusalOfLongLine());
            } else {
                const auto source = answerTo(line->request);
                for (std::string_view piece = source->read(); !piece.empty(); piece = source->read())
                    answers.piece(piece);
            }
            answers.end(isIdle());
        }
        m_finished = true;
    }

private:
    /// A line that has been read, and was sent unless it was refused here.
    struct Line {
        std::string request{};
        bool refused = false;
    };

    static Request requestOf(std::string_view line) { return {"POST", "/v1/messages?stream=true", line}; }

    /// Waits while too much is on its way. \returns false when nobody wants it any more
    bool expect(Line line) {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_givenUp || m_ahead <= mostAhead; });
        m_ahead += line.request.size();
        m_expected.push_back(std::move(line));
        m_changed.notify_all();
        return !m_givenUp;
    }

    void sendAll() {
        std::string block;
        try {
            while (m_lines.next() == LineInput::Got::Line && addRequest(block)) {
                if (block.size() >= sendBlock || !m_lines.isReady()) {
                    send(block);
                    block.clear();
                }
            }
        } catch (...) {
            m_failure = std::current_exception();
        }
        const std::lock_guard lock(m_mutex);
        m_ended = true;
        m_changed.notify_all();
    }

    /// Why the agent takes no more is told by its answers.
    void send(std::string_view block) {
        if (m_sendFailed) return;
        try {
            m_connection.send(block);
        } catch (const CtlError&) {
            m_sendFailed = true;
        }
    }

    bool addRequest(std::string& block) {
        const std::string_view line = m_lines.line();
        if (isBlank(line)) return true;
        if (m_lines.isCut()) return expect({{}, true});
        const Request request = requestOf(line);
        block += m_connection.headOf(request);
        block += line;
        return expect({std::string(line)});
    }

    /// Empty at the end of the input.
    std::optional<Line> nextLine() {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return !m_expected.empty() || m_ended; });
        if (m_expected.empty()) {
            if (m_failure) std::rethrow_exception(m_failure);
            return std::nullopt;
        }
        Line line = std::move(m_expected.front());
        m_expected.pop_front();
        m_ahead -= line.request.size();
        m_changed.notify_all();
        return line;
    }

    std::unique_ptr<Source> answerTo(const std::string& request) {
        if (!m_connection.isClosing()) {
            auto source = std::make_unique<Source>(m_connection);
            if (!source->retryAfter()) return source;
            source->readAll();
            m_turnedDown = true;
        }
        if (!m_turnedDown) m_connection.lost("it answers no more requests");
        if (!m_again) m_again = std::make_unique<AgentBackend>(m_backend.m_place);
        return m_again->open(requestOf(request));
    }

    bool isIdle() {
        const std::lock_guard lock(m_mutex);
        return m_expected.empty();
    }

    AgentBackend& m_backend;
    Connection& m_connection;
    const int m_stop;
    LineInput m_lines;          // the sender's alone
    bool m_sendFailed = false;  // the sender's alone
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Line> m_expected;   // guarded by m_mutex
    std::size_t m_ahead = 0;       // guarded by m_mutex; bytes of m_expected
    bool m_ended = false;          // guarded by m_mutex
    bool m_givenUp = false;        // guarded by m_mutex
    std::exception_ptr m_failure;  // written before m_ended
    bool m_turnedDown = false;
    std::unique_ptr<AgentBackend> m_again;  // for what was turned down
    bool m_finished = false;
    std::thread m_sender;
};

AgentBackend::AgentBackend(AgentPlace place)
    : m_place(std::move(place)), m_connection(std::make_unique<Connection>(m_place)) {}

AgentBackend::~AgentBackend() = default;

std::unique_ptr<AgentBackend::Source> AgentBackend::open(const Request& request) {
    Patience patience;
    for (;;) {
        if (!m_connection) m_connection = std::make_unique<Connection>(m_place);
        m_connection->sendRequest(request);
        auto source = std::make_unique<Source>(*m_connection);
        if (!request.repeatable || !patience.wait(source->retryAfter())) return source;
        source->readAll();
        if (m_connection->isClosing()) m_connection.reset();
    }
}

std::string AgentBackend::exchange(const Request& request) {
    return open(request)->readAll();
}

/// Root has full access on every socket of its machine and need not ask.
bool AgentBackend::seesEnvironments() {
    return (m_place.address.isUnix() && m_place.token.empty() && ::geteuid() == 0) ||
           readAccess(exchange({"GET", "/v1/health"}));
}

/// Messages only ask.
std::unique_ptr<AnswerSource> AgentBackend::ask(std::string_view request) {
    return open({"POST", "/v1/messages?stream=true", request});
}

std::unique_ptr<AnswerSource> AgentBackend::get(const std::string& target) {
    auto source = open({"GET", target});
    if (source->isProblem()) throwAnsweredError(source->readAll());
    return source;
}

void AgentBackend::answerLines(int input, LineAnswers& answers) {
    Pipeline pipeline(*this, input);
    pipeline.receiveAll(answers);
}

std::unique_ptr<AnswerSource> AgentBackend::exportRecords(const QORExportPosition& position) {
    AgentTarget target("/v1/records");
    if (position.begun) return get(target.with("after", position.text()).text());
    const QORExportQuestion& question = position.question;
    std::string kinds;
    for (const QORRecordKind kind : question.kinds)
        kinds += (kinds.empty() ? "" : ",") + recordKindPlural(kind);
    return get(target.with("source", kinds)
                   .with("from", question.from ? time2str(*question.from) : "")
                   .with("to", question.to ? time2str(*question.to) : "")
                   .with("env", question.environment.isValid() ? question.environment.toString() : "")
                   .text());
}

/// A batch whose answer is lost may have been stored, and may be sent again: under its key the agent stores it once.
QORIngestResult AgentBackend::importBatch(std::string_view lines, std::uint64_t firstLine) {
    const Request batch{"POST", "/v1/records?first-line=" + std::to_string(firstLine), lines,
                        "Idempotency-Key: " + QORGUIDBase::random().toString() + "\r\n"};
    for (auto pause = firstPause;; pause *= 2) {
        try {
            return readIngestReply(exchange(batch));
        } catch (const CtlError& error) {
            if (error.exit() != CtlExit::NoConnection || pause > lastPause) throw;
        }
        m_connection.reset();
        std::this_thread::sleep_for(pause);
    }
}

/// The agent collects to the end, whether somebody waits or not.
QORCollectResult AgentBackend::collect(const std::stop_token&) {
    return readCollectReply(exchange({.method = "POST", .target = "/v1/collect", .repeatable = false}));
}

std::vector<QORViewColumn> AgentBackend::views() {
    return readViewsReply(exchange({"GET", "/v1/views"}));
}

BackendStatus AgentBackend::status() {
    const std::string status = exchange({"GET", "/v1/status"});
    return {readHealthReply(exchange({"GET", "/v1/health"})),
            readForwardingReply(status),
            readStatusReply(status),
            readSettingsReply(status),
            readCollectedReply(status),
            readCollectorsReply(status),
            readMetLimits(exchange({"GET", "/metrics"}))};
}

std::vector<QORCheckFinding> AgentBackend::check(const std::string& part, bool mend) {
    return readCheckReply(exchange(
        {.method = "POST", .target = "/v1/check?part=" + part + (mend ? "&mend=1" : ""), .repeatable = !mend}));
}

Backend::Pruned AgentBackend::prune(const std::string& kind, std::int64_t before, bool unsent) {
    return readPruneReply(exchange(
        {.method = "POST",
         .target = "/v1/prune?what=" + kind + "&before=" + std::to_string(before) + (unsent ? "&unsent=1" : ""),
         .repeatable = false}));
}

QORIdentityList AgentBackend::identities() {
    return readIdentitiesReply(exchange({"GET", "/v1/identities"}));
}

std::string AgentBackend::change(const std::string& target, const std::string& body) {
    return exchange({.method = "POST", .target = target, .body = body, .repeatable = false});
}

void AgentBackend::addIdentity(const QORIdentity& identity) {
    readChangeReply(change("/v1/identities/add", writeIdentity(identity)), "added");
}

void AgentBackend::removeIdentity(const std::string& name) {
    readChangeReply(change("/v1/identities/remove", writeTokenRequest({name})), "removed");
}

std::string AgentBackend::createToken(const QORTokenRequest& request) {
    return readTokenReply(change("/v1/tokens/create", writeTokenRequest(request)));
}

std::uint64_t AgentBackend::revokeTokens(const QORTokenRequest& request) {
    return readRevokedReply(change("/v1/tokens/revoke", writeTokenRequest(request)));
}

QORPtr<const QORVocMap> AgentBackend::vocabulary() {
    return readVocabularyReply(exchange({"GET", "/v1/vocabulary"}));
}

}  // namespace QOR
