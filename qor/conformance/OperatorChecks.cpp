#include "conformance/OperatorChecks.h"

#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string_view>
#include <thread>

#include "QORCommon/QORException.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORText.h"
#include "QORFunctionality/QOROpFactory.h"
#include "QORMessage/QORAnswer.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"
#include "conformance/OddRequests.h"
#include "host/QORClientSession.h"
#include "host/QORHost.h"
#include "rdbmspp/engine/AException.h"

namespace QOR {
namespace {

/// What no operator has.
constexpr const char* unknownName = "no such request";
/// A request is given this long before it is told to end.
constexpr auto requestTime = std::chrono::seconds(20);
constexpr std::size_t shownOfRequest = 200;
constexpr int clientThreads = 8;
constexpr int clientRounds = 12;

std::string requestOf(const std::string& operatorName, const std::string& request, const std::string& element) {
    std::string text = R"({"operator":)";
    appendJsonString(operatorName, text);
    text += R"(,"request":)";
    appendJsonString(request, text);
    return text + R"(,"body":)" + element + "}";
}

/// Beginning is enough to make it again: those that are long are made of one thing.
std::string shown(const std::string& text) {
    return text.size() <= shownOfRequest ? text : text.substr(0, shownOfRequest) + "...";
}

/// \returns what is wrong with the way in which the request is answered; empty: nothing
std::string faultOfAnswer(QORClientSession& session, const std::string& json) {
    QORRequestEnvelope request = readRequest(json);
    QORBinaryIterator in = request.body.root();
    in.firstChild();
    QORMessage message;
    QORBinaryIterator out = message.root();
    const QORRequestScope scope(std::make_shared<QORRequestControl>(requestTime));
    try {
        const auto outcome = session.run(session.context(), request.operatorName, request.requestName, in, out);
        if (outcome != QORClientSession::Outcome::Done) return "is said to be no request, which its table has";
    } catch (const QORException& exception) {
        return exception.message().empty() ? "throws an exception without a text" : "";
    } catch (const AException&) {
        return "";
    } catch (const std::bad_alloc&) {
        return "runs out of memory";
    } catch (const std::exception& exception) {
        return std::string("throws what is no QORException: ") + exception.what();
    } catch (...) {
        return "throws what is no exception";
    }
    QORAnswerError error{};
    return findError(message, error) && error.message.empty() ? "answers with an error that has no text" : "";
}

CheckOutcome checkRequest(CheckReport& report, const QORHost& host, const std::string& name,
                          const std::string& request) {
    std::size_t asked = 0;
    for (const QORClientContextPtr& context : {fullAccessContext(), noAccessContext()}) {
        const std::unique_ptr<QORClientSession> session = host.newSession(context);
        for (const std::string& element : oddElements()) {
            const std::string json = requestOf(name, request, element);
            report.at(shown(json));
            const std::string fault = faultOfAnswer(*session, json);
            if (!fault.empty())
                return CheckOutcome::fault(fault + ", asked " + shown(json),
                                           "answer with addError(), or throw a QORException that says what is wrong");
            ++asked;
        }
    }
    return CheckOutcome::fine("answers " + std::to_string(asked) + " odd requests");
}

CheckOutcome checkUnknown(const QORHost& host, const std::string& name) {
    const std::unique_ptr<QORClientSession> session = host.newSession(fullAccessContext());
    QORRequestEnvelope request = readRequest(requestOf(name, unknownName, "[1026]"));
    QORBinaryIterator in = request.body.root();
    in.firstChild();
    QORMessage message;
    QORBinaryIterator out = message.root();
    const auto outcome = session->run(session->context(), name, unknownName, in, out);
    if (outcome == QORClientSession::Outcome::UnknownRequest) return CheckOutcome::fine("is refused");
    return CheckOutcome::fault("a request of any name is served",
                               "have call() return other than 0 for names that the operator does not have");
}

/// Clients that come and go, and one that asks from several threads at once.
CheckOutcome checkClients(const QORHost& host, const std::string& name, const std::vector<std::string>& requests) {
    std::mutex mutex;
    std::string fault;  // guarded by mutex
    const std::unique_ptr<QORClientSession> shared = host.newSession(fullAccessContext());
    const auto ask = [&](int thread) {
        for (int round = 0; round < clientRounds; ++round) {
            const std::unique_ptr<QORClientSession> own =
                host.newSession(round % 2 == 0 ? fullAccessContext() : noAccessContext());
            for (std::size_t index = 0; index < requests.size(); ++index) {
                const auto at = static_cast<std::size_t>(thread * clientRounds + round) + index;
                const std::string& element = oddElements()[at % oddElements().size()];
                const std::string json = requestOf(name, requests[index], element);
                const QORRequestScope scope(std::make_shared<QORRequestControl>(requestTime));
                for (QORClientSession* const session : {own.get(), shared.get()}) {
                    const std::string answer = host.router().handle(*session, json);
                    try {
                        readResponse(answer);
                    } catch (const QORException& exception) {
                        const std::lock_guard lock(mutex);
                        fault = "answers what cannot be read: " + exception.message() + ", asked " + shown(json);
                    }
                }
            }
        }
    };
    {
        std::vector<std::jthread> threads;
        threads.reserve(clientThreads);
        for (int thread = 0; thread < clientThreads; ++thread)
            threads.emplace_back(ask, thread);
    }
    if (!fault.empty()) return CheckOutcome::fault(fault, "write texts as they are, and bytes by putBinary()");
    return CheckOutcome::fine(std::to_string(clientThreads * clientRounds) + " clients were served by " +
                              std::to_string(clientThreads) + " threads");
}

CheckOutcome checkPriming(const QORHost& host) {
    const std::vector<std::string> failures = host.router().prime();
    if (failures.empty()) return CheckOutcome::fine("is answered");
    return CheckOutcome::fault("clients would wait for ever: " + failures.front(),
                               "judge() has to say Learned or NothingThere of an answer that is right");
}

CheckOutcome checkFields(const QOROpFactory& factory) {
    const std::vector<QOROpField> fields = factory.fields();
    for (const QOROpField& field : fields)
        if (field.name.empty() || field.source.empty() || field.type.empty())
            return CheckOutcome::fault("field " + quoteText(field.name) + " has no name, no source or no type",
                                       "give it what QOROpField asks for");
    return CheckOutcome::fine("fields: " + std::to_string(fields.size()));
}

std::vector<std::string> requestsOf(QOROpFactory& factory) {
    std::vector<std::string> names;
    const QORPtr<QOROperatorPrototype> op = factory.newOperator();
    const auto* const functional = dynamic_cast<const QOROperatorFunctionalPrototype*>(op.get());
    if (functional == nullptr) return names;
    for (const auto& [name, method] : functional->methods())
        names.push_back(name);
    return names;
}

}  // namespace

void checkOperators(CheckReport& report, const QORHost& host, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        const QORPtr<QOROpFactory> factory = QOROpFactoryRegistry::instance().find(name);
        const std::string prefix = "operator " + name + ": ";
        if (factory->priming() != nullptr) report.run(prefix + "priming", [&] { return checkPriming(host); });
        report.run(prefix + "fields", [&] { return checkFields(*factory); });
        std::vector<std::string> sound;
        std::vector<std::string> requests;
        report.run(prefix + "requests", [&] {
            requests = requestsOf(*factory);
            return requests.empty() ? CheckOutcome::advice("no table tells which there are: they are not asked",
                                                           "derive it from QOROperatorFunctionalPrototype")
                                    : CheckOutcome::fine(joinTexts(requests));
        });
        if (requests.empty()) requests = requestsOf(*factory);
        for (const std::string& request : requests)
            if (report.run(prefix + request, [&] { return checkRequest(report, host, name, request); }))
                sound.push_back(request);
        report.run(prefix + "unknown request", [&] { return checkUnknown(host, name); });
        if (!sound.empty()) report.run(prefix + "many clients", [&] { return checkClients(host, name, sound); });
    }
}

}  // namespace QOR
