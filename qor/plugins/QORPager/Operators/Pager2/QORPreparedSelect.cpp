#include "QORPager/Operators/Pager2/QORPreparedSelect.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

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

/// What is kept, between requests. Thread-safe.
class KeptSelects {
public:
    /// One that was read by these views; nothing where there is none.
    std::unique_ptr<SelectStmnt> take(const std::string& request, const SelectStmnt::MetaTablesMap* views) {
        const std::size_t hash = std::hash<std::string>()(request);
        const std::lock_guard lock(m_mutex);
        const auto found = std::find_if(m_kept.rbegin(), m_kept.rend(), [&](const Kept& one) {
            return one.hash == hash && one.statement->views().get() == views && one.request == request;
        });
        if (found == m_kept.rend()) return nullptr;
        std::unique_ptr<SelectStmnt> statement = std::move(found->statement);
        m_kept.erase(std::next(found).base());
        return statement;
    }

    void put(std::string request, std::unique_ptr<SelectStmnt> statement) {
        const std::size_t hash = std::hash<std::string>()(request);
        std::unique_ptr<SelectStmnt> forgotten;  // ends outside of the lock
        const std::lock_guard lock(m_mutex);
        if (m_kept.size() == PreparedSelect::mostKept) {
            forgotten = std::move(m_kept.front().statement);
            m_kept.erase(m_kept.begin());
        }
        m_kept.push_back({hash, std::move(request), std::move(statement)});
    }

    std::size_t size() {
        const std::lock_guard lock(m_mutex);
        return m_kept.size();
    }

    void clear() {
        std::vector<Kept> forgotten;
        const std::lock_guard lock(m_mutex);
        forgotten.swap(m_kept);
    }

private:
    struct Kept {
        std::size_t hash;
        std::string request;
        std::unique_ptr<SelectStmnt> statement;
    };

    std::mutex m_mutex;
    std::vector<Kept> m_kept;  // guarded by m_mutex; who was used last stands last
};

KeptSelects& keptSelects() {
    static KeptSelects kept;
    return kept;
}

}  // namespace

// Until the views are known nothing was kept, and who asks first has them learned at the moment that is right.
PreparedSelect::PreparedSelect(const QORBinaryIterator& request) : m_request(RequestText::of(*request.node())) {
    if (!m_request.empty() && SelectStmnt::areViewsKnown())
        m_statement = keptSelects().take(m_request, SelectStmnt::getMetaTablesMap().get());
    if (m_statement) {
        m_statement->renew(request);
    } else {
        m_statement = std::make_unique<SelectStmnt>(request, nullptr);
    }
}

void PreparedSelect::keep() {
    if (m_request.empty() || !m_statement->isRenewable()) return;
    keptSelects().put(std::move(m_request), std::move(m_statement));
}

std::size_t PreparedSelect::kept() {
    return keptSelects().size();
}

void PreparedSelect::forgetAll() {
    keptSelects().clear();
}

}  // namespace QOR
