#include "selfcheck/QORSecurityCheck.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <random>
#include <set>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORLibAgent/QOREnvCache.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"
#include "host/QORHost.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "selfcheck/QORSecurityCopies.h"
#include "selfcheck/QORSecurityPagerRequests.h"
#include "selfcheck/QORSecurityRequests.h"

namespace QOR {
namespace {

constexpr std::size_t requestsOfClient = 1250;
constexpr std::size_t fewestClients = 4;
constexpr std::size_t mostClients = 16;
constexpr std::size_t mostEids = 50;
constexpr std::size_t keptDifferences = 5;
constexpr unsigned mostAttempts = 20;  // at what differs, where others may write meanwhile

// ---- answers --------------------------------------------------------------------------------------------------------

using Cell = std::optional<std::string>;
using Row = std::vector<Cell>;

struct Answer {
    std::optional<QORResponse::Error> error;
    std::vector<std::string> names;
    std::vector<Row> rows;
    std::string counts;
};

Answer parsed(const std::string& text) {
    Answer answer;
    QORMessageLimits limits;
    QORResponse response = readResponse(text, limits);
    answer.error = response.error;
    QORBinaryIterator it = response.response.root();
    if (it.firstChild(tag::rowSet) != 0 || it.firstChild() != 0) return answer;
    do {
        std::string value;
        if (it.curID() == tag::row) {
            Row& row = answer.rows.emplace_back();
            QORBinaryIterator cell = it;
            if (cell.firstChild(tag::value) != 0) continue;
            do {
                row.push_back(cell.getValue(value) == 0 ? Cell(value) : std::nullopt);
            } while (cell.nextSibling(tag::value) == 0);
        } else if (it.getValue(value) == 0 && it.curID() == tag::name) {
            answer.names.push_back(value);
        } else {
            answer.counts += std::to_string(it.curID()) + "=" + value + " ";
        }
    } while (it.nextSibling() == 0);
    return answer;
}

std::optional<double> numberOf(const Cell& cell) {
    double value = 0;
    if (!cell || cell->empty()) return std::nullopt;
    const auto result = std::from_chars(cell->data(), cell->data() + cell->size(), value);
    if (result.ec != std::errc() || result.ptr != cell->data() + cell->size()) return std::nullopt;
    return value;
}

/// Floating-point numbers may be added up in another order.
bool isSameCell(const Cell& left, const Cell& right) {
    if (left == right) return true;
    constexpr double precision = 1e-9;
    const auto a = numberOf(left);
    const auto b = numberOf(right);
    return a && b && left->find('.') != std::string::npos &&
           std::fabs(*a - *b) <= precision * std::max(std::fabs(*a), std::fabs(*b));
}

bool isSameRow(const Row& left, const Row& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), isSameCell);
}

// ---- requests -------------------------------------------------------------------------------------------------------

std::string envelope(const QORSecurityRequest& request, const std::set<std::string>* eids) {
    std::string text = std::string(R"({"operator":")") + request.operatorName + R"(","request":"select",)";
    if (eids != nullptr) {
        text += R"("client":{"fullAccess":false,"sids":[)";
        for (const std::string& eid : *eids) {
            if (text.back() != '[') text += ",";
            text += R"({"principalId":0,"principalType":1,"eid":)";
            writeNotationText(eid, text);
            text += "}";
        }
        text += "]},";
    }
    return text + R"("body":)" + request.body + "}";
}

/// An answer without what is another thing each time that it is asked for: page tokens, which nobody can read, and how
/// long counting took. Within texts of rows quotes are escaped, so that none of them looks like such an element.
std::string comparable(std::string answer) {
    for (const QORTag element : {tag::next, tag::spent}) {
        const std::string begin = "[" + std::to_string(element) + ",\"";
        for (std::size_t at = answer.find(begin); at != std::string::npos; at = answer.find(begin, at)) {
            at += begin.size();
            answer.erase(at, answer.find('"', at) - at);
        }
    }
    return answer;
}

/// An error's text without what it quotes.
std::string kindOf(const std::string& message) {
    std::string kind;
    bool quoted = false;
    for (const char c : message) {
        if (c == '"') quoted = !quoted;
        if (!quoted || c == '"') kind += c;
    }
    return kind;
}

class Check {
public:
    Check(const std::string& connectionString, const QORSecurityCheckOptions& options)
        : m_options(options), m_random(options.seed), m_copies(QORSecurityCopies::of(connectionString)) {
        learn();
        start();
    }

    QORSecurityReport run() {
        const std::size_t clients = std::clamp(m_options.requests / requestsOfClient, fewestClients, mostClients);
        for (std::size_t client = 0; client < clients; ++client) {
            const std::size_t last = m_options.requests * (client + 1) / clients;
            askAs(eidsOf(client, clients), last - m_report.requests);
            if (m_options.progress) m_options.progress(m_report.requests);
        }
        m_report.clients = clients;
        return std::move(m_report);
    }

private:
    void learn() {
        QORCheckedDatabase& whole = m_copies->whole();
        m_views = checkedViews(whole);
        if (m_views.empty())
            throw QORException(errFailure, "the database has no view to ask", QOR_SOURCE_PATH, __LINE__);
        m_objects = checkedObjects(whole, m_views);
        m_ownDatabase = whole.isHostDatabase();
        m_samples.emplace(m_views);
        for (const QORCheckedView& view : m_views)
            (view.objects.empty() ? m_report.openViews : m_report.restrictedViews).push_back(view.name);
    }

    void start() {
        QORHostOptions options;
        options.database = m_copies->wholeOptions();
        options.schemaMode = QORSchemaMode::Reading;
        options.plugInDirectory = m_options.plugIns;
        m_host = std::make_unique<QORHost>(std::move(options));
    }

    /// The first client stands for nothing, the last for as many environments as may be, the others for a few.
    std::set<std::string> eidsOf(std::size_t client, std::size_t clients) {
        std::set<std::string> eids;
        if (client == 0 || m_objects.empty()) return eids;
        const std::size_t wanted = client + 1 == clients ? mostEids : 1 + (client - 1) % 5;
        for (std::size_t attempt = 0; attempt < wanted; ++attempt)
            eids.insert(m_objects[m_random() % m_objects.size()]);
        return eids;
    }

    /// Half of the requests are for "pager" where the database has what that selects from.
    std::vector<QORSecurityRequest> makeRequests(std::size_t count, const std::map<std::string, std::size_t>& sizes) {
        QORSecurityRequests views(m_views, sizes, m_random());
        QORPagerRequests pager(*m_samples, m_random());
        std::vector<QORSecurityRequest> made;
        for (std::size_t i = 0; i < count; ++i)
            made.push_back(m_ownDatabase && i % 2 == 1 ? pager.next() : views.next());
        return made;
    }

    struct Answers {
        std::string restricted;  ///< what the client was given
        std::string expected;    ///< what full access was given by the client's part
    };

    /// On a session of their own: names that an identity has used are known to its later requests.
    std::vector<std::string> answersOf(const ASDatabaseOptions& database, const std::vector<QORSecurityRequest>& asked,
                                       const std::set<std::string>* eids) {
        QORRdbms::instance().configure(database);
        envCache()->load();
        const auto session = m_host->newSession(fullAccessContext());
        std::vector<std::string> answers;
        answers.reserve(asked.size());
        for (const QORSecurityRequest& request : asked)
            answers.push_back(comparable(m_host->router().handle(*session, envelope(request, eids))));
        return answers;
    }

    void askAs(const std::set<std::string>& eids, std::size_t requests) {
        const QORVisiblePart part = m_copies->makePart(m_views, eids);
        std::vector<QORSecurityRequest> asked = makeRequests(requests, part.sizes);
        std::vector<std::string> restricted = answersOf(m_copies->wholeOptions(), asked, &eids);
        std::vector<std::string> expected = answersOf(part.database, asked, nullptr);
        std::vector<QORSecurityRequest> doubtful;
        for (std::size_t i = 0; i < asked.size(); ++i) {
            const Answers answers{std::move(restricted[i]), std::move(expected[i])};
            if (m_copies->mayChange() && !isSame(asked[i].order, answers.restricted, answers.expected)) {
                doubtful.push_back(std::move(asked[i]));
            } else {
                take(asked[i], eids, answers);
            }
        }
        settle(std::move(doubtful), eids);
        m_report.requests += requests;
    }

    /// Asks again, of a part made anew, until the client is answered the same before and after that is made: then
    /// nobody has written what the answer depends on meanwhile.
    void settle(std::vector<QORSecurityRequest> asked, const std::set<std::string>& eids) {
        for (unsigned attempt = 1; !asked.empty(); ++attempt) {
            const std::vector<std::string> before = answersOf(m_copies->wholeOptions(), asked, &eids);
            const QORVisiblePart part = m_copies->makePart(m_views, eids);
            const std::vector<std::string> expected = answersOf(part.database, asked, nullptr);
            const std::vector<std::string> after = answersOf(m_copies->wholeOptions(), asked, &eids);
            std::vector<QORSecurityRequest> again;
            for (std::size_t i = 0; i < asked.size(); ++i) {
                const auto same = [&](const auto& left, const auto& right) {
                    return isSame(asked[i].order, left[i], right[i]);
                };
                if (same(before, after) || same(after, expected)) {
                    take(asked[i], eids, {after[i], expected[i]});
                } else {
                    again.push_back(std::move(asked[i]));
                }
            }
            if (attempt == mostAttempts) {
                m_report.unsettled += again.size();
                return;
            }
            asked = std::move(again);
        }
    }

    void take(const QORSecurityRequest& request, const std::set<std::string>& eids, const Answers& answers) {
        ++m_report.operators[request.operatorName];
        for (const char* const shape : request.shapes)
            ++m_report.shapes[shape];
        const Answer answer = parsed(answers.expected);
        m_report.rows += answer.rows.size();
        if (isSame(request.order, answers.restricted, answers.expected)) {
            if (answer.error) ++m_report.errors[kindOf(answer.error->message)];
            return;
        }
        if (m_report.different++ < keptDifferences)
            m_report.differences.push_back({envelope(request, &eids), answers.restricted, answers.expected});
    }

    static bool isSame(QORSecurityRequest::Order order, const std::string& left, const std::string& right) {
        if (order == QORSecurityRequest::Order::Exact) return left == right;
        return isSameAnswer(left, right, order == QORSecurityRequest::Order::Settled);
    }

    const QORSecurityCheckOptions& m_options;
    std::mt19937_64 m_random;
    std::unique_ptr<QORSecurityCopies> m_copies;
    std::vector<QORCheckedView> m_views;
    std::vector<std::string> m_objects;
    bool m_ownDatabase = false;
    std::optional<QORPagerSamples> m_samples;
    QORSecurityReport m_report;
    std::unique_ptr<QORHost> m_host;
};

}  // namespace

bool isSameAnswer(const std::string& left, const std::string& right, bool ordered) {
    if (left == right) return true;
    Answer a = parsed(left);
    Answer b = parsed(right);
    if (a.error || b.error) {
        return a.error && b.error && a.error->code == b.error->code && a.error->message == b.error->message;
    }
    if (a.names != b.names || a.counts != b.counts || a.rows.size() != b.rows.size()) return false;
    if (!ordered) {
        std::sort(a.rows.begin(), a.rows.end());
        std::sort(b.rows.begin(), b.rows.end());
    }
    return std::equal(a.rows.begin(), a.rows.end(), b.rows.begin(), isSameRow);
}

QORSecurityReport checkSecurity(const std::string& connectionString, const QORSecurityCheckOptions& options) {
    return Check(connectionString, options).run();
}

}  // namespace QOR
