// A plug-in whose operator "probe" does what tests need to see: it tells what it was given, takes its time, fails,
// and logs when its client goes.
#include <atomic>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>

#include "QORCommon/QORLogger.h"
#include "QORFunctionality/QOROpFactory.h"
#include "QORFunctionality/QORPlugIn.h"
#include "QORLibAgent/QORSecurity.h"

namespace {

using namespace QOR;

class Probe final : public QOROperatorAsyncPrototype {
public:
    Probe() {
        static const MethodDescriptor methods[] = {method("echo", &Probe::echo, 100, 0),
                                                   method("identity", &Probe::identity, 100, 0),
                                                   method("count", &Probe::count, 100, 0),
                                                   method("sleep", &Probe::sleep, 100, 0),
                                                   method("fail", &Probe::fail, 100, 0),
                                                   method("throw", &Probe::throwUp, 100, 0),
                                                   method("rows", &Probe::rows, 100, 0),
                                                   method("wait", &Probe::wait, 100, 0),
                                                   {"", nullptr, 0, 0}};
        registerMethods(methods);
        ++s_alive;
    }
    ~Probe() override { --s_alive; }

    void init() override {
        QOROperatorAsyncPrototype::init();
        m_started = true;
    }
    void stopCallback() override { ++m_stops; }
    void disconnect(QORAccesserPrototype* accesser) override {
        logMessage(1, "Probe", "tests/agent/plugins/Probe", "disconnect", "probe disconnected after %d requests",
                   m_requests);
        QOROperatorAsyncPrototype::disconnect(accesser);
    }

private:
    static constexpr QORTag answerTag = tag::value;

    static std::string textOf(QORMessageIterator* request) {
        std::string text;
        request->getValue(text);
        return text;
    }
    static int numberOf(QORMessageIterator* request) {
        int number = 0;
        request->getValue(number);
        return number;
    }

    /// The tag and the text of the element that the request stands on.
    void echo(QORMessageIterator* request, QORMessageIterator* response) {
        ++m_requests;
        response->putInt64(request->curID(), tag::type);
        response->putValue(textOf(request), answerTag);
    }

    /// Full access, then the environments of the own identity and of the set.
    void identity(QORMessageIterator*, QORMessageIterator* response) {
        ++m_requests;
        const QORClientContextPtr context = QORAccessChecker::getClientContext();
        response->putValue(QORAccessChecker::hasFullAccess(context) ? "full" : "limited", tag::type);
        const auto token = QORToken::getCurrent();
        if (token->ownSID()) putSid(*token->ownSID(), tag::source, response);
        for (const auto& sid : token->sids())
            putSid(*sid, tag::env, response);
    }
    static void putSid(const QORSID& sid, QORTag id, QORMessageIterator* response) {
        QOREID eid;
        response->putValue(extractObjIdFromSID(sid, eid) ? eid.toString() : "none", id);
    }

    /// How many requests this object has had, ended ones, objects alive, and whether it was started.
    void count(QORMessageIterator*, QORMessageIterator* response) {
        ++m_requests;
        response->putInt(m_requests, tag::total);
        response->putInt(m_stops, tag::statistics);
        response->putInt(s_alive.load(), tag::size);
        response->putValue(m_started ? "started" : "new", tag::type);
    }

    /// Milliseconds.
    void sleep(QORMessageIterator* request, QORMessageIterator* response) {
        ++m_requests;
        logMessage(1, "Probe", "tests/agent/plugins/Probe", "sleep", "probe sleeps");
        std::this_thread::sleep_for(std::chrono::milliseconds(numberOf(request)));
        response->putValue("slept", answerTag);
    }

    /// Until a file is there.
    void wait(QORMessageIterator* request, QORMessageIterator* response) {
        ++m_requests;
        logMessage(1, "Probe", "tests/agent/plugins/Probe", "wait", "probe waits");
        while (!std::filesystem::exists(textOf(request)))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        response->putValue("waited", answerTag);
    }

    void fail(QORMessageIterator* request, QORMessageIterator* response) {
        ++m_requests;
        addError(response, QORErrors, errBadRequest, textOf(request).c_str());
    }
    void throwUp(QORMessageIterator* request, QORMessageIterator*) {
        ++m_requests;
        throw std::runtime_error(textOf(request));
    }

    void rows(QORMessageIterator* request, QORMessageIterator* response) {
        ++m_requests;
        const int wanted = numberOf(request);
        for (int row = 0; row < wanted; ++row)
            response->putInt(row, tag::row);
    }

    static inline std::atomic<int> s_alive{0};
    int m_requests = 0;
    int m_stops = 0;
    bool m_started = false;
};

const QORPtr<QOROpFactory> factory = newOperatorFactory<Probe, 10, 20, 4, true>("probe", 1, 0);

}  // namespace

extern "C" int initQORPlugIn() {
    return 0;
}
extern "C" int finiQORPlugIn() {
    logMessage(1, "Probe", "tests/agent/plugins/Probe", "finiQORPlugIn", "probe unloaded");
    return 0;
}
