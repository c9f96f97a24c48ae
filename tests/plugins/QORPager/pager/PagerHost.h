/// \file
/// What operator "pager" needs of a host, for tests in one process: a database of the host's own, the cache of its
/// environments, the vocabulary that is shipped, and clients.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "QORDBSchema/QORDBSchema.h"
#include "QORLibAgent/QOREnvCache.h"
#include "QORLibLocal/QORVocabulary.h"
#include "QORPager/Operators/QORPagerOperator.h"
#include "Rows.h"
#include "agent/ingest/QORIngest.h"
#include "support/Pager2Harness.h"

namespace QOR::testing {

class PagerHost {
   public:
    PagerHost() {
        ASDatabaseOptions options;
        options.connectionString = "Driver=SQLite3;Database=" + file().string();
        QORDBSchema::open(options, QORSchemaMode::Own);
        const QORClientContextScope scope(fullAccess());
        envs.cache.load();
    }
    ~PagerHost() {
        setVocabulary({});
        QORRdbms::instance().shutdown();
    }
    PagerHost(const PagerHost&) = delete;
    PagerHost& operator=(const PagerHost&) = delete;

    std::filesystem::path file() const { return m_folder.path() / "agent.db"; }

    /// Records, a line each.
    void import(std::string_view lines) {
        const QORIngestResult result = QORIngest().importBatch(lines);
        if (result.failure) throw std::runtime_error(result.failure->reason);
        if (result.refused != 0) throw std::runtime_error(result.refusedLines.front().reason);
    }

    void setVocabulary(QORPtr<const QORVocMap> vocabulary) { vocCacheLocal()->setVocabulary(std::move(vocabulary)); }
    void useShippedVocabulary() {
        QORVocReader reader;
        if (!reader.readFile(QOR_SHIPPED_VOCABULARY)) throw std::runtime_error(reader.mistakes().front().reason);
        setVocabulary(reader.vocabulary());
    }

    ScopedEnvCache envs;

   private:
    TemporaryFolder m_folder;
};

/// One client of "pager".
class PagerClient {
   public:
    PagerClient() : m_factory(QOROpFactoryRegistry::instance().find("pager")) {
        m_operator = m_factory->newOperator();
        m_operator->init();
        m_accesser = m_factory->newAccesser(m_operator);
    }

    /// \param body the select element in message notation \returns the answer in message notation
    std::string ask(std::string_view body, const QORClientContextPtr& as = fullAccess()) {
        const QORClientContextScope scope(as);
        QORMessage request;
        readElement(body, request);
        QORMessage response;
        QORBinaryIterator in = request.root();
        in.firstChild();
        QORBinaryIterator out = response.root();
        m_accesser->request("select", &in, &out);
        std::string text;
        writeResponse(response, text);
        return text;
    }

    /// The code and the text of the error in the answer; "" when there is none.
    std::string errorOf(std::string_view body, const QORClientContextPtr& as = fullAccess()) {
        const QORResponse response = readResponse(ask(body, as));
        return response.error ? std::to_string(response.error->code) + " " + response.error->message : std::string();
    }

    QORPagerOperatorPrototype& op() { return dynamic_cast<QORPagerOperatorPrototype&>(*m_operator); }
    void disconnect() { m_operator->disconnect(m_accesser.get()); }

   private:
    QORPtr<QOROpFactory> m_factory;
    QORPtr<QOROperatorPrototype> m_operator;
    QORPtr<QORAccesserPrototype> m_accesser;
};

/// A request in parts, so that tests say only what matters to them.
struct Ask {
    std::vector<std::string> fields;
    std::optional<std::string> where = {};
    std::string more = {};  ///< further elements, each with a comma before it

    std::string body() const {
        std::string text = "[1740,[";
        for (std::size_t i = 0; i < fields.size(); ++i) {
            if (i > 0) text += ',';
            text += "[1741," + quoted(fields[i]) + "]";
        }
        if (where) text += (fields.empty() ? "" : ",") + ("[1742," + quoted(*where)) + "]";
        return text + more + "]]";
    }
    static std::string quoted(const std::string& text) {
        std::string json = "\"";
        for (const char ch : text) {
            if (ch == '"' || ch == '\\') json += '\\';
            json += ch;
        }
        return json + '"';
    }
};

constexpr const char* counts = R"(,[1259,"1"])";
inline std::string limit(int size, int offset) {
    return ",[1377,[[1024,\"" + std::to_string(size) + "\"],[1087,\"" + std::to_string(offset) + "\"]]]";
}

/// What an answer says: rows of cells, a list of values as "a|b"; then, if there are any, the counts.
struct Answer {
    std::vector<std::vector<std::string>> rows;
    std::optional<std::pair<std::int64_t, std::int64_t>> counts;
    std::string error;

    friend bool operator==(const Answer&, const Answer&) = default;
};

inline Answer readAnswer(std::string_view text) {
    QORResponse response = readResponse(text);
    Answer answer;
    if (response.error) answer.error = std::to_string(response.error->code) + " " + response.error->message;
    QORBinaryIterator it = response.response.root();
    if (it.firstChild(tag::rowSet) != 0) return answer;
    std::int64_t written = 0;
    std::int64_t total = 0;
    if (it.getValue(written, tag::statistics) == 0 && it.getValue(total, tag::total) == 0) {
        answer.counts = {written, total};
    }
    if (it.firstChild(tag::row) != 0) return answer;
    do {
        auto& row = answer.rows.emplace_back();
        QORBinaryIterator cell = it;
        if (cell.firstChild(tag::cell) != 0) continue;
        do {
            std::string value;
            if (cell.getValue(value, tag::value) != 0) {
                QORBinaryIterator nested = cell;
                for (int found = nested.firstChild(tag::cell); found == 0; found = nested.nextSibling(tag::cell)) {
                    std::string one;
                    nested.getValue(one, tag::value);
                    value += (value.empty() ? "" : "|") + one;
                }
            }
            row.push_back(value);
        } while (cell.nextSibling(tag::cell) == 0);
    } while (it.nextSibling(tag::row) == 0);
    return answer;
}

/// The first cell of every row, joined by blanks.
inline std::string firstCells(const Answer& answer) {
    std::string text;
    for (const auto& row : answer.rows) text += (text.empty() ? "" : " ") + row.front();
    return text;
}

}  // namespace QOR::testing
