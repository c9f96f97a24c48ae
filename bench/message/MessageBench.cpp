// Messages: building an answer of many rows, writing and reading it. Names say stage/form/size.
#include <benchmark/benchmark.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORMessage.h"
#include "QORMessage/QORNotation.h"
#include "QORMessage/QORXml.h"

namespace {

using QOR::QORBinaryIterator;
using QOR::QORMessage;
using QOR::QORMessageNode;
using QOR::QORValueKind;

constexpr std::size_t columns = 6;
using Row = std::array<std::string, columns>;

void check(bool holds, const char* what) {
    if (!holds) throw std::logic_error(what);
}

/// Values such as an environment's row has: a number, names, an address, a time, a GUID, and now and then a byte that
/// wants an escape.
std::vector<Row> makeRows(std::size_t count) {
    std::vector<Row> rows;
    rows.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::string number = std::to_string(i);
        rows.push_back({number, "web" + number + ".example.org",
                        "10.0." + std::to_string(i / 250 % 250) + "." + std::to_string(i % 250),
                        "2024-05-01T10:00:" + std::to_string(10 + i % 50) + "+0000",
                        "6ba7b810-9dad-11d1-80b4-" + std::to_string(100000000000 + i),
                        i % 10 == 0   ? "said \"yes\""
                        : i % 10 == 1 ? "M\xC3\xBCnchen"
                                      : "running"});
    }
    return rows;
}

void build(const std::vector<Row>& rows, QORMessage& out) {
    QORBinaryIterator it = out.root();
    it.addChild(QOR::tag::rowSet);
    for (const Row& row : rows) {
        it.addChild(QOR::tag::row);
        for (const std::string& value : row) {
            it.addChild(QOR::tag::value);
            it.putValue(value);
            it.seekUp();
        }
        it.seekUp();
    }
}

std::size_t nodesOf(std::size_t rows) {
    return 1 + rows * (1 + columns);
}

std::size_t rowsOf(const benchmark::State& state) {
    return static_cast<std::size_t>(state.range(0));
}

void perNode(benchmark::State& state, std::size_t nodes) {
    state.counters["per_node"] = benchmark::Counter(
        static_cast<double>(nodes), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void perByte(benchmark::State& state, std::size_t bytes) {
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

void buildFresh(benchmark::State& state) {
    const auto rows = makeRows(rowsOf(state));
    {
        QORMessage message;
        build(rows, message);
        check(message.nodeCount() == nodesOf(rows.size()), "elements are missing");
    }
    for (auto _ : state) {
        QORMessage message;
        build(rows, message);
        benchmark::DoNotOptimize(message.rootNode());
    }
    perNode(state, nodesOf(rows.size()));
}
BENCHMARK(buildFresh)->Name("build/fresh")->Arg(20)->Arg(100000);

void buildCleared(benchmark::State& state) {
    const auto rows = makeRows(rowsOf(state));
    QORMessage message;
    for (auto _ : state) {
        message.clear();
        build(rows, message);
        benchmark::DoNotOptimize(message.rootNode());
    }
    check(message.nodeCount() == nodesOf(rows.size()), "elements are missing");
    perNode(state, nodesOf(rows.size()));
}
BENCHMARK(buildCleared)->Name("build/cleared")->Arg(20)->Arg(100000);

/// The same notation through RapidJSON's writer, as the measure of ours.
void writeRapid(const QORMessageNode& root, rapidjson::StringBuffer& buffer) {
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key("response");
    writer.StartArray();
    const QORMessageNode* node = root.firstChild;
    while (node != nullptr) {
        writer.StartArray();
        writer.Uint(node->tag);
        if (node->kind == QORValueKind::Text) writer.String(node->data, static_cast<rapidjson::SizeType>(node->size));
        if (node->firstChild != nullptr) {
            writer.StartArray();
            node = node->firstChild;
            continue;
        }
        writer.EndArray();
        while (node != nullptr && node->next == nullptr) {
            node = node->parent == &root ? nullptr : node->parent;
            if (node == nullptr) break;
            writer.EndArray();
            writer.EndArray();
        }
        if (node != nullptr) node = node->next;
    }
    writer.EndArray();
    writer.EndObject();
}

void writeNotation(benchmark::State& state) {
    QORMessage message;
    build(makeRows(rowsOf(state)), message);
    std::string text;
    QOR::writeResponse(message, text);
    const auto read = QOR::readResponse(text);
    check(read.response.nodeCount() == message.nodeCount(), "not all was written");
    check(read.response.byteCount() == message.byteCount(), "a value was changed");
    for (auto _ : state) {
        text.clear();
        QOR::writeResponse(message, text);
        benchmark::DoNotOptimize(text.data());
    }
    perByte(state, text.size());
}
BENCHMARK(writeNotation)->Name("write/notation")->Arg(20)->Arg(100000);

void writeNotationRapid(benchmark::State& state) {
    QORMessage message;
    build(makeRows(rowsOf(state)), message);
    std::string text;
    QOR::writeResponse(message, text);
    rapidjson::StringBuffer buffer;
    writeRapid(*message.rootNode(), buffer);
    check(text == buffer.GetString(), "the two writers differ");
    for (auto _ : state) {
        buffer.Clear();
        writeRapid(*message.rootNode(), buffer);
        benchmark::DoNotOptimize(buffer.GetString());
    }
    perByte(state, text.size());
}
BENCHMARK(writeNotationRapid)->Name("write/notation-rapidjson")->Arg(20)->Arg(100000);

void writeNotationBlocks(benchmark::State& state) {
    QORMessage message;
    build(makeRows(rowsOf(state)), message);
    std::size_t bytes = 0;
    const QOR::QORTextSink sink = [&bytes](std::string_view block) { bytes += block.size(); };
    QOR::writeResponse(message, sink);
    std::string text;
    QOR::writeResponse(message, text);
    check(text.size() == bytes, "blocks are missing");
    for (auto _ : state)
        QOR::writeResponse(message, sink);
    perByte(state, text.size());
}
BENCHMARK(writeNotationBlocks)->Name("write/notation-blocks")->Arg(100000);

void readNotation(benchmark::State& state) {
    QORMessage message;
    build(makeRows(rowsOf(state)), message);
    std::string text;
    QOR::writeResponse(message, text);
    check(QOR::readResponse(text).response.nodeCount() == message.nodeCount(), "not all was read");
    for (auto _ : state)
        benchmark::DoNotOptimize(QOR::readResponse(text));
    perByte(state, text.size());
}
BENCHMARK(readNotation)->Name("read/notation")->Arg(20)->Arg(100000);

void writeXml(benchmark::State& state) {
    QORMessage message;
    build(makeRows(rowsOf(state)), message);
    std::string text;
    QOR::writeXml(*message.rootNode(), text);
    for (auto _ : state) {
        text.clear();
        QOR::writeXml(*message.rootNode(), text);
        benchmark::DoNotOptimize(text.data());
    }
    perByte(state, text.size());
}
BENCHMARK(writeXml)->Name("write/xml")->Arg(100000);

void readXml(benchmark::State& state) {
    QORMessage message;
    build(makeRows(rowsOf(state)), message);
    std::string text;
    QOR::writeXml(*message.rootNode(), text);
    QORMessage copy;
    QOR::readXml(text, copy);
    check(copy.nodeCount() == message.nodeCount(), "not all was read");
    for (auto _ : state) {
        copy.clear();
        QOR::readXml(text, copy);
    }
    perByte(state, text.size());
}
BENCHMARK(readXml)->Name("read/xml")->Arg(100000);

}  // namespace
