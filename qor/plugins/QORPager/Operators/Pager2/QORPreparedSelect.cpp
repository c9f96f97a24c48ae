#include "QORPager/Operators/Pager2/QORPreparedSelect.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>

#include "QORCommon/QORKeptByText.h"
#include "QORMessage/QORTags.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

/// A request as a text, equal for those that ask the same.
class RequestText {
public:
    /// \returns nothing for a request that is too large, or has elements that only its own message knows
    static std::string of(const QORMessageNode& select) {
        RequestText text;
        text.number(QORRdbms::instance().generation());
        text.number(SelectStmnt::isSecurityNeeded() ? 1 : 0);
        text.add(select, true);
        return text.m_fits ? std::move(text.m_text) : std::string();
    }

private:
    RequestText() { m_text.reserve(usual); }

    static constexpr std::size_t usual = 1024;

    /// Depth is bounded by that of messages.
    void add(const QORMessageNode& element, bool isSelect) {
        m_fits = m_fits && element.tag < tag::firstOfMessage && m_text.size() + element.size < largest;
        if (!m_fits) return;
        number(element.tag);
        number(static_cast<std::uint64_t>(element.kind));
        number(element.size);
        if (element.size > 0) m_text.append(element.data, element.size);
        for (const QORMessageNode* child = element.firstChild; child != nullptr; child = child->next) {
            if (!isSelect || (child->tag != tag::after && child->tag != tag::now)) add(*child, false);
        }
        number(0);
    }
    void number(std::uint64_t value) {
        std::array<char, sizeof value> bytes{};
        std::memcpy(bytes.data(), &value, bytes.size());
        m_text.append(bytes.data(), bytes.size());
    }

    static constexpr std::size_t largest = PreparedSelect::largestRequest;

    std::string m_text;
    bool m_fits = true;
};

/// What is kept, between requests.
QORKeptByText<std::unique_ptr<SelectStmnt>>& keptSelects() {
    static QORKeptByText<std::unique_ptr<SelectStmnt>> kept(PreparedSelect::mostKept);
    return kept;
}

}  // namespace

// Until the views are known nothing was kept, and who asks first has them learned at the moment that is right.
PreparedSelect::PreparedSelect(const QORBinaryIterator& request) : m_request(RequestText::of(*request.node())) {
    std::optional<std::unique_ptr<SelectStmnt>> kept;
    if (!m_request.empty() && SelectStmnt::areViewsKnown()) {
        const auto views = SelectStmnt::getMetaTablesMap();
        kept = keptSelects().take(m_request, [&](const auto& statement) { return statement->views() == views; });
    }
    if (kept) {
        m_statement = std::move(*kept);
        m_statement->renew(request);
    } else {
        m_statement = std::make_unique<SelectStmnt>(request, nullptr);
    }
}

void PreparedSelect::keep() {
    if (m_request.empty() || !m_statement->isRenewable()) return;
    m_statement->forgetClient();
    keptSelects().keep(std::move(m_request), std::move(m_statement));
}

std::size_t PreparedSelect::kept() {
    return keptSelects().size();
}

void PreparedSelect::forgetAll() {
    keptSelects().clear();
}

}  // namespace QOR
