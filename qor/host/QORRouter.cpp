#include "host/QORRouter.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <optional>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORText.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"
#include "host/QORAnswerText.h"
#include "host/QORClientSession.h"
#include "host/QORRequestNotes.h"

namespace QOR {
namespace {

/// The deadline that a request names for itself: its child 2404 of the request's element, milliseconds as text.
/// \throws QORException 400 for a text that is no such number
void limitByRequest(const QORBinaryIterator& element) {
    QORRequestControl* const control = QORRequestControl::current();
    std::string text;
    if (control == nullptr || element.seekPresence(tag::deadline) != 0) return;
    static_cast<void>(element.getValue(text, tag::deadline));
    const auto milliseconds = parseInt64(text);
    if (!milliseconds || *milliseconds < 1) {
        throw QORException(errBadRequest, "deadline: " + quoteText(text) + " is no number of milliseconds above 0");
    }
    control->limitTo(std::chrono::milliseconds(*milliseconds));
}

/// The control of the request that the thread serves; one of its own where nobody has bounded it.
std::shared_ptr<QORRequestControl> controlOfRequest() {
    auto control = QORRequestControl::shareCurrent();
    return control ? control : std::make_shared<QORRequestControl>();
}

/// What is left to say when there is no memory to say more.
constexpr const char* outOfMemory = R"({"response":[],"error":{"code":1,"message":"out of memory"}})";

/// Has the operator write its answer into the message. \returns the error of a request that reached no operator, or
/// left it as an exception
std::optional<QORAnswerError> runOperator(QORClientSession& session, const QORClientContextPtr& identity,
                                          QORRequestEnvelope& request, QORMessage& message) {
    QORBinaryIterator in = request.body.root();
    in.firstChild();
    QORBinaryIterator response = message.root();
    try {
        limitByRequest(in);
        if (QORRequestNotes* const notes = QORRequestNotes::current()) notes->asked(request.operatorName, in);
        switch (session.run(identity, request.operatorName, request.requestName, in, response)) {
            case QORClientSession::Outcome::Done:
                return std::nullopt;
            case QORClientSession::Outcome::UnknownOperator:
                return QORAnswerError{errBadRequest, "unknown operator " + quoteText(request.operatorName)};
            case QORClientSession::Outcome::UnknownRequest:
                return QORAnswerError{errBadRequest, "unknown request " + quoteText(request.requestName) +
                                                         " of operator " + quoteText(request.operatorName)};
        }
    } catch (const QORException& exception) {
        return QORAnswerError{exception.code(), exception.message()};
    } catch (const std::bad_alloc&) {
        return QORAnswerError{errFailure, "out of memory"};
    } catch (const std::exception& exception) {
        return QORAnswerError{errFailure, exception.what()};
    } catch (...) {
        return QORAnswerError{errFailure, "unknown failure"};
    }
    return std::nullopt;
}

void noteAnswer(const QORMessage& message, const std::optional<QORAnswerError>& error, std::int64_t rows) {
    QORRequestNotes* const notes = QORRequestNotes::current();
    if (notes == nullptr) return;
    notes->rows += rows;
    QORAnswerError entry{};
    if (error) {
        notes->error = error->code;
    } else if (findError(message, entry)) {
        notes->error = entry.code;
    }
}

}  // namespace

class QORRouter::Destination {
public:
    virtual ~Destination() = default;
    /// The format that the answer's rows are given to while an operator writes them.
    virtual QORAnswerFormat& begin() = 0;
    /// After each row. \returns whether more rows are wanted
    virtual bool goesOn(std::int64_t rows) = 0;
    /// The operator has written its answer, or an error ends it.
    virtual void end(QORAnswerWriter& writer, const QORMessage& message, const QORAnswerError* error) = 0;
    /// The answer is this error alone, so far as nothing has left.
    virtual void fail(int code, std::string_view message, bool readable) = 0;
};

/// An answer that is kept until it is whole.
class QORRouter::Whole final : public Destination {
public:
    explicit Whole(const QORAnswerLimits& limits) : m_limits(limits), m_text(limits.bytes) {}

    QORAnswerFormat& begin() override {
        m_format = makeNotationAnswer([this](std::string_view block) { return take(block); });
        return *m_format;
    }
    bool goesOn(std::int64_t rows) override {
        if (rows > m_limits.rows) m_excess = "the answer has more than " + std::to_string(m_limits.rows) + " rows";
        return m_excess.empty();
    }
    void end(QORAnswerWriter& writer, const QORMessage& message, const QORAnswerError* error) override {
        if (m_excess.empty() && error != nullptr) return fail(error->code, error->message, true);
        if (m_excess.empty()) writer.finish();
        if (!m_excess.empty()) return fail(errFailure, m_excess + elsewhere, true);
        m_answer.text = m_text.takeText();
        m_answer.memory = m_text.takeMemory();
        if (!writer.isTakenBack()) return;
        m_answer.text.clear();
        writeResponse(message, m_answer.text);
    }
    void fail(int code, std::string_view message, bool readable) override {
        m_answer = {};
        writeErrorResponse(code, message, m_answer.text);
        m_answer.readable = readable;
    }
    Answer takeAnswer() { return std::move(m_answer); }

private:
    static constexpr const char* elsewhere =
        ": ask for it in parts (limit with size and offset), or as a stream (stream=true)";

    bool take(std::string_view block) {
        if (m_text.add(block)) return true;
        m_excess = "the answer is larger than " + describeBytes(m_limits.bytes);
        return false;
    }

    const QORAnswerLimits m_limits;
    QORAnswerText m_text;
    Answer m_answer;
    std::unique_ptr<QORAnswerFormat> m_format;
    std::string m_excess;
};

/// An answer that leaves while it is made.
class QORRouter::Stream final : public Destination {
public:
    explicit Stream(const QORAnswerOutput& output) : m_output(output) {}

    QORAnswerFormat& begin() override {
        m_format = makeNotationAnswer([this](std::string_view block) { return take(block); });
        return *m_format;
    }
    bool goesOn(std::int64_t rows) override {
        if (m_pace.isDue(rows)) m_format->flush();
        return !m_refused;
    }
    void end(QORAnswerWriter& writer, const QORMessage&, const QORAnswerError* error) override {
        writer.finish(error);
        m_ended = true;
    }
    void fail(int code, std::string_view message, bool readable) override {
        if (m_begun) return;
        m_answer = {};
        writeErrorResponse(code, message, m_answer.text);
        m_answer.readable = readable;
    }
    Streamed takeStreamed() {
        const bool whole = !m_begun || (m_ended && !m_refused);
        return {std::move(m_answer), whole};
    }

private:
    bool take(std::string_view block) {
        m_begun = true;
        m_refused = m_refused || !m_output(block);
        if (m_refused) return false;
        if (QORRequestControl* const control = QORRequestControl::current()) control->renew();
        m_pace.left();
        return true;
    }

    const QORAnswerOutput& m_output;
    Answer m_answer;
    std::unique_ptr<QORAnswerFormat> m_format;
    QORStreamPace m_pace;
    bool m_begun = false;
    bool m_refused = false;
    bool m_ended = false;
};

/// An answer in a format of somebody else's.
class QORRouter::Direct final : public Destination {
public:
    Direct(QORAnswerFormat& format, const QORAnswerWriter::AfterRow& afterRow)
        : m_format(format), m_afterRow(afterRow) {}

    QORAnswerFormat& begin() override { return m_format; }
    bool goesOn(std::int64_t rows) override { return m_afterRow(rows); }
    void end(QORAnswerWriter& writer, const QORMessage&, const QORAnswerError* error) override { writer.finish(error); }
    void fail(int code, std::string_view message, bool) override { throw QORException(code, std::string(message)); }

private:
    QORAnswerFormat& m_format;
    const QORAnswerWriter::AfterRow& m_afterRow;
};

QORRouter::QORRouter(const std::vector<std::string>& primed, const QORMessageLimits& limits,
                     const QORAnswerLimits& answers)
    : m_limits(limits), m_answerRows(answers.rows), m_answerBytes(answers.bytes) {
    for (const std::string& operatorName : primed)
        m_priming.push_back(std::make_unique<QORPriming>(operatorName));
}

QORRouter::~QORRouter() = default;

void QORRouter::setAnswerLimits(const QORAnswerLimits& limits) noexcept {
    m_answerRows.store(limits.rows, std::memory_order_relaxed);
    m_answerBytes.store(limits.bytes, std::memory_order_relaxed);
}

QORAnswerLimits QORRouter::answerLimits() const noexcept {
    return {m_answerRows.load(std::memory_order_relaxed), m_answerBytes.load(std::memory_order_relaxed)};
}

QORRouter::Answer QORRouter::answer(QORClientSession& session, std::string_view json) {
    Whole whole(answerLimits());
    try {
        serve(session, json, whole);
        return whole.takeAnswer();
    } catch (...) {
        return {outOfMemory, true, {}};
    }
}

QORRouter::Streamed QORRouter::stream(QORClientSession& session, std::string_view json, const QORAnswerOutput& output) {
    Stream stream(output);
    try {
        serve(session, json, stream);
    } catch (...) {
        stream.fail(errFailure, "out of memory", true);
    }
    return stream.takeStreamed();
}

void QORRouter::ask(QORClientSession& session, QORRequestEnvelope& request, QORAnswerFormat& format,
                    const QORAnswerWriter::AfterRow& afterRow) {
    Direct direct(format, afterRow);
    run(session, request, direct);
}

/// Every failure becomes one of the destination; what it throws then is for want of memory.
void QORRouter::serve(QORClientSession& session, std::string_view json, Destination& destination) {
    try {
        QORRequestEnvelope request;
        try {
            request = readRequest(json, m_limits);
        } catch (const QORException& exception) {
            destination.fail(exception.code(), exception.message(), false);
            return;
        }
        run(session, request, destination);
    } catch (const std::bad_alloc&) {
        destination.fail(errFailure, "out of memory", true);
    } catch (const QORException& exception) {
        destination.fail(exception.code(), exception.message(), true);
    } catch (const std::exception& exception) {
        destination.fail(errFailure, exception.what(), true);
    } catch (...) {
        destination.fail(errFailure, "unknown failure", true);
    }
}

void QORRouter::run(QORClientSession& session, QORRequestEnvelope& request, Destination& destination) {
    const QORRequestScope scope(controlOfRequest());
    const QORClientContextPtr identity = session.contextFor(request.client);
    for (const auto& priming : m_priming) {
        if (priming->operatorName() != request.operatorName) continue;
        if (const auto error = priming->ensure()) throw QORException(error->code, error->message);
    }
    session.withMessage([&](QORMessage& message) {
        QORAnswerWriter writer(message, destination.begin(),
                               [&](std::int64_t rows) { return destination.goesOn(rows); });
        std::optional<QORAnswerError> error = runOperator(session, identity, request, message);
        noteAnswer(message, error, writer.isTakenBack() ? 0 : writer.rows());
        if (!message.refusal().empty()) error = QORAnswerError{errFailure, message.refusal()};
        destination.end(writer, message, error ? &*error : nullptr);
    });
}

std::vector<std::string> QORRouter::prime() {
    std::vector<std::string> failures;
    for (const auto& priming : m_priming) {
        const auto error = priming->ensure();
        if (error) failures.push_back("operator \"" + priming->operatorName() + "\": " + error->message);
    }
    return failures;
}

bool QORRouter::isPrimed() const {
    return std::none_of(m_priming.begin(), m_priming.end(), [](const auto& priming) { return priming->isPending(); });
}

}  // namespace QOR
