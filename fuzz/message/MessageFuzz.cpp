// Message notation and XML from outside. The first byte of an input chooses the reader, the rest is its text.
//
// What is read must be written and read again to the same text: then neither side loses anything.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "QORCommon/QORException.h"
#include "QORMessage/QORMessage.h"
#include "QORMessage/QORNotation.h"
#include "QORMessage/QORXml.h"

namespace {

using QOR::QORMessage;

void require(bool holds, const char* what) {
    if (holds) return;
    static_cast<void>(std::fprintf(stderr, "%s\n", what));
    std::abort();
}

QOR::QORMessageLimits limits() {
    QOR::QORMessageLimits result;
    result.nodes = 10000;
    result.bytes = std::size_t{1} << 20;
    return result;
}

std::string notationOf(const QORMessage& message) {
    std::string out;
    QOR::writeElement(*message.rootNode(), out);
    return out;
}

void tryElement(std::string_view text) {
    QORMessage message(limits());
    QOR::readElement(text, message);
    const std::string written = notationOf(message);
    QORMessage again(limits());
    QOR::readElement(written, again);
    require(notationOf(again) == written, "an element changed on its way");
}

void tryRequest(std::string_view text) {
    std::string written;
    QOR::writeRequest(QOR::readRequest(text, limits()), written);
    std::string again;
    QOR::writeRequest(QOR::readRequest(written, limits()), again);
    require(again == written, "a request changed on its way");
}

void tryResponse(std::string_view text) {
    const QOR::QORResponse response = QOR::readResponse(text, limits());
    std::string written;
    QOR::writeResponse(response.response, written);
    const QOR::QORResponse again = QOR::readResponse(written, limits());
    std::string rewritten;
    QOR::writeResponse(again.response, rewritten);
    require(rewritten.size() <= written.size(), "an answer grew on its way");
}

void tryXml(std::string_view text) {
    QORMessage message(limits());
    QOR::readXml(text, message);
    std::string written;
    QOR::writeXml(*message.rootNode(), written);
    QORMessage again(limits());
    QOR::readXml(written, again);
    require(notationOf(again) == notationOf(message), "an element changed on its way through XML");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
    try {
        switch (data[0]) {
            case 'e':
                tryElement(text);
                break;
            case 'q':
                tryRequest(text);
                break;
            case 'a':
                tryResponse(text);
                break;
            case 'x':
                tryXml(text);
                break;
            default:
                return -1;
        }
    } catch (const QOR::QORException& error) {
        require(error.code() == QOR::errBadRequest, "a text was refused with another code than 400");
    }
    return 0;
}
