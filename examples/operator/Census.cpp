// The operator "census": how many environments there are of each value of a member, such as "os_name" or "type".
#include <QORCommon/QORText.h>
#include <QORFunctionality/QOROpFactory.h>
#include <QORFunctionality/QORPlugIn.h>
#include <QORLibAgent/QOREnvCache.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace {

using namespace QOR;

/// A request may ask for more than a message holds: what was written of the answer is taken back then.
void expectWritten(int result) {
    if (result != 0) throw QORException(errFailure, "the answer does not fit into a message");
}

class Census final : public QOROperatorFunctionalPrototype {
public:
    Census() {
        static const MethodDescriptor methods[] = {method("count", &Census::count, 100, 0), {"", nullptr, 0, 0}};
        registerMethods(methods);
    }

private:
    // What fails is an error of the answer: one that is foreseen by addError(), any other as an exception.
    void count(QORMessageIterator* request, QORMessageIterator* response) {
        std::string name;
        if (request->getValue(name) != 0)
            return addError(response, QORErrors, errBadRequest, "the member to count by is missing");
        const auto member = std::find_if(envMembers.begin(), envMembers.end(),
                                         [&](const QOREnvMemberRow& row) { return row.column == name; });
        if (member == envMembers.end()) {
            const std::string text = "environments have no member " + quoteText(name);
            return addError(response, QORErrors, errBadRequest, text.c_str());
        }
        std::map<std::string, std::int64_t> counts;
        // Those that the client may see: the host has made him known to this thread.
        const QORPtr<const QOREnvList> environments = envCache()->getEnvList();
        for (const auto& env : *environments)
            if (const auto& value = env->getConfig()->text(member->member)) ++counts[*value];

        expectWritten(response->addChild(tag::rowSet));
        expectWritten(response->putValue(member->column, tag::name));
        expectWritten(response->putValue("count", tag::name));
        for (const auto& [value, number] : counts) {
            expectWritten(response->addChild(tag::row));
            writeCell(*response, value);
            writeCell(*response, std::to_string(number));
            response->seekUp();
        }
        response->seekUp();
    }

    static void writeCell(QORMessageIterator& row, std::string_view text) {
        expectWritten(row.addChild(tag::cell));
        expectWritten(row.putValue(text, tag::value));
        row.seekUp();
    }
};

// Of a client's requests twenty at most hold an accessor at once, others wait; ten are kept, and they are made four at
// a time.
const auto factory = newOperatorFactory<Census, 10, 20, 4, true>("census", 1, 0);

}  // namespace

int initQORPlugIn() {
    return 0;
}
int finiQORPlugIn() {
    return 0;
}
