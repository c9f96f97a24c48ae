// Requests of HTTP as bytes from outside. The first byte of an input decides in which pieces the rest arrives.
//
// However the bytes are cut, the same becomes of them. A request that is read ends at one byte and no other, its length
// is told once, and written down plainly it is read as the same request: then no other reader can take it for two.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/http/HttpRequestReader.h"

namespace {

using QOR::HttpField;
using QOR::HttpRequestReader;
using State = HttpRequestReader::State;

constexpr std::size_t headLimit = 1000;
constexpr std::size_t bodyLimit = 2000;

void require(bool holds, const char* what) {
    if (holds) return;
    static_cast<void>(std::fprintf(stderr, "%s\n", what));
    std::abort();
}

struct Reading {
    State state = State::Head;
    unsigned status = 0;
    std::string message{};
    std::string method{};
    std::string target{};
    unsigned version = 0;
    std::vector<std::pair<std::string, std::string>> fields{};
    bool keepAlive = false;
    bool chunked = false;
    std::string body{};

    friend bool operator==(const Reading&, const Reading&) = default;
};

/// Sizes of pieces, the same from the same beginning.
class Pieces {
public:
    explicit Pieces(std::uint8_t first) : m_state(first) {}
    /// 0 gives everything at once.
    std::size_t next(std::size_t left) {
        if (m_state == 0) return left;
        m_state = m_state * 1103515245U + 12345U;
        return std::min<std::size_t>(left, 1 + (m_state >> 16) % 7);
    }

private:
    std::uint32_t m_state;
};

bool isOver(const HttpRequestReader& reader) {
    return reader.state() == State::Done || reader.state() == State::Failed;
}

Reading resultOf(const HttpRequestReader& reader) {
    Reading reading;
    reading.state = reader.state();
    reading.status = reader.failure().status;
    reading.message = reader.failure().message;
    if (reader.state() != State::Done) return reading;
    reading.method = reader.method();
    reading.target = reader.target();
    reading.version = reader.version();
    for (const HttpField& field : reader.fields())
        reading.fields.emplace_back(field.name, field.value);
    reading.keepAlive = reader.keepAlive();
    reading.chunked = !reader.bodyLength().has_value();
    reading.body = reader.body();
    return reading;
}

/// \returns what became of the bytes, and how many were taken
std::pair<Reading, std::size_t> read(std::string_view bytes, Pieces pieces) {
    HttpRequestReader reader(headLimit, bodyLimit);
    std::size_t taken = 0;
    while (taken < bytes.size() && !isOver(reader)) {
        std::string_view piece = bytes.substr(taken, pieces.next(bytes.size() - taken));
        while (!piece.empty() && !isOver(reader)) {
            const std::size_t got = reader.take(piece);
            require(got <= piece.size(), "more was taken than was given");
            piece.remove_prefix(got);
            taken += got;
            if (reader.state() == State::HeadDone)
                reader.beginBody();
            else
                require(got > 0 || isOver(reader), "nothing was taken of bytes that belong to the request");
        }
    }
    return {resultOf(reader), taken};
}

std::string written(const Reading& reading) {
    std::string text =
        reading.method + " " + reading.target + (reading.version == 11 ? " HTTP/1.1\r\n" : " HTTP/1.0\r\n");
    for (const auto& [name, value] : reading.fields)
        text += name + ":" + value + "\r\n";
    text += "\r\n";
    if (!reading.chunked) return text + reading.body;
    char size[20];
    static_cast<void>(std::snprintf(size, sizeof size, "%zx\r\n", reading.body.size()));
    if (!reading.body.empty()) text += size + reading.body + "\r\n";
    return text + "0\r\n\r\n";
}

std::size_t fieldsNamed(const Reading& reading, std::string_view lowerName) {
    const auto isNamed = [&](const auto& field) {
        return std::equal(field.first.begin(), field.first.end(), lowerName.begin(), lowerName.end(),
                          [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a + 32 : a) == b; });
    };
    return static_cast<std::size_t>(std::count_if(reading.fields.begin(), reading.fields.end(), isNamed));
}

void checkLength(const Reading& reading) {
    const std::size_t lengths = fieldsNamed(reading, "content-length");
    const std::size_t encodings = fieldsNamed(reading, "transfer-encoding");
    require(lengths + encodings <= 1, "the length is told more than once");
    require(reading.chunked == (encodings == 1), "another transfer encoding than chunked was read");
    require(lengths + encodings == 1 || reading.body.empty(), "a body that was not announced");
    require(reading.body.size() <= bodyLimit, "the body is over its limit");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const auto [reading, taken] = read(bytes, Pieces(0));
    const auto [inPieces, takenInPieces] = read(bytes, Pieces(data[0]));
    require(reading == inPieces, "in pieces the bytes were read as something else");
    if (reading.state == State::Failed) {
        require(reading.status >= 400 && !reading.message.empty(), "a refusal without a status or a reason");
        return 0;
    }
    if (reading.state != State::Done) return 0;
    require(taken == takenInPieces, "in pieces the request ended at another byte");
    require(read(bytes.substr(0, taken - 1), Pieces(0)).first.state != State::Done,
            "the request was complete before its end");
    checkLength(reading);
    const std::string plain = written(reading);
    const auto [again, all] = read(plain, Pieces(data[0]));
    require(again == reading && all == plain.size(), "written plainly it was read as something else");
    return 0;
}
