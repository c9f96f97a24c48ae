// A plug-in with the fault that the environment names (QOR_TEST_FAULT); without one it has none. Its operator "faulty"
// has the request "ask", its collector "lines" brings an event for each line of a file.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "QORCommon/QORGuid.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORUtf8.h"
#include "QORFunctionality/QORCollector.h"
#include "QORFunctionality/QOROpFactory.h"
#include "QORFunctionality/QORPlugIn.h"

namespace {

using namespace QOR;

bool has(std::string_view fault) {
    const char* const wanted = std::getenv("QOR_TEST_FAULT");
    return wanted != nullptr && wanted == fault;
}
/// Exits of the kit's own are not what is tested: the signal is.
void crash() {
    std::signal(SIGSEGV, SIG_DFL);
    std::raise(SIGSEGV);
}
void sleepLong() {
    std::this_thread::sleep_for(std::chrono::hours(1));
}

class Faulty final : public QOROperatorFunctionalPrototype {
public:
    Faulty() {
        static const MethodDescriptor methods[] = {
            method("ask", &Faulty::ask, 100, 0), method("tell", &Faulty::tell, 100, 0), {"", nullptr, 0, 0}};
        registerMethods(methods);
    }

    int call(const std::string& name, QORMessageIterator* request, QORMessageIterator* response) override {
        const int result = QOROperatorFunctionalPrototype::call(name, request, response);
        return has("serves anything") ? 0 : result;
    }

    static inline const QOROpPriming priming{"ask", "[1026,\"x\"]", [](const std::string&) {
                                                 return has("never primed") ? QOROpPriming::Result::Failed
                                                                            : QOROpPriming::Result::Learned;
                                             }};
    static std::vector<QOROpField> listFields() {
        return {{"faulty.name", "things", "things", has("field without a type") ? "" : "string"}};
    }

private:
    void ask(QORMessageIterator* request, QORMessageIterator* response) {
        std::string text;
        const bool isText = request->getValue(text) == 0;
        if (!isText && has("crashes")) crash();
        if (!isText && has("hangs")) sleepLong();
        if (!isText && has("exits")) std::_Exit(3);
        if (!isText && has("errors without a text")) return addError(response, QORErrors, errBadRequest, "");
        if (!isText) return addError(response, QORErrors, errBadRequest, "a text is missing");
        if (has("crashes with several clients") && ++s_asked > 1) crash();
        if (has("crashes with several clients")) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        --s_asked;
        response->putValue(text, tag::value);
    }
    void tell(QORMessageIterator*, QORMessageIterator* response) {
        if (has("crashes in the last request")) crash();
        response->putValue("told", tag::value);
    }

    static inline std::atomic<int> s_asked{0};
};

class Lines final : public QORCollector {
public:
    explicit Lines(const std::string& name = "lines")
        : QORCollector(
              {.name = name, .source = "/etc/lines", .every = std::chrono::seconds(has("no interval") ? 0 : 60)}) {}

    bool collect(QORCollection& collection) override {
        if (has("reads elsewhere")) add(collection, "elsewhere");
        std::ifstream file(collection.root() / "etc/lines");
        if (!file && has("fails without source")) throw std::runtime_error("there are no lines");
        if (!file) return false;
        if (has("never returns")) sleepLong();
        const std::string& position = collection.position();
        const bool trusting = has("trusts positions") && !position.empty();
        const std::uint64_t known = trusting ? std::stoull(position) : 0;
        std::uint64_t read = 0;
        for (std::string line; std::getline(file, line) && line.size() < 100;)
            if (read++ >= known) add(collection, line);
        collection.setPosition(std::to_string(read));
        return true;
    }

private:
    static void add(QORCollection& collection, const std::string& line) {
        std::string text;
        appendJsonString(has("any bytes") ? line : toUtf8(line), text);
        if (has("any bytes")) text = '"' + line + '"';
        const QORGUIDBase id = has("new identifiers") ? QORGUIDBase::random()
                                                      : QORGUIDBase::fromName(collection.machine(), "lines " + line);
        collection.add(R"({"kind":"event","id":")" + id.toString() +
                       R"(","time":1,"source":"lines","category":"c","eid":")" + collection.machine().toString() +
                       R"(","info":{"line":)" + text + "}}");
    }
};

using Factory = QORPtr<QOROpFactory>;

Factory makeFactory(const char* name) {
    return newOperatorFactory<Faulty, 10, 20, 4, true>(name, 1, 0);
}
const Factory first = has("brings nothing") ? nullptr : makeFactory(has("a name with blanks") ? "a b" : "faulty");
const Factory second = has("two of a name") ? makeFactory("faulty") : nullptr;
const Factory taken = has("another's name") ? makeFactory("pager") : nullptr;
const std::unique_ptr<Lines> lines = has("brings nothing") ? nullptr : std::make_unique<Lines>();
const std::unique_ptr<Lines> dpkg = has("a collector's name") ? std::make_unique<Lines>("dpkg") : nullptr;
const Factory* const heap = has("stays registered") ? new Factory(makeFactory("heap")) : nullptr;

}  // namespace

int initQORPlugIn() {
    if (has("throws in init")) throw std::runtime_error("no, thanks");
    if (has("refuses")) return 7;
    if (has("crashes in init")) crash();
    if (has("hangs in init")) sleepLong();
    if (has("starts a program") && std::system("sleep 3600 & echo $! > \"$QOR_TEST_NUMBER_FILE\"") != 0) return 1;
    if (has("leaves a thread")) std::thread(sleepLong).detach();
    return 0;
}
int finiQORPlugIn() {
    return 0;
}
