#include "QORDBSchema/QORSpreadViews.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <set>
#include <thread>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORGuid.h"
#include "QORCommon/QORRequestControl.h"
#include "QORDBSchema/QORHandover.h"
#include "QORDBSchema/QORSchemaRows.h"
#include "QORServers/QORServers.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

/// The host's own views call the environment that a record belongs to by these names.
constexpr std::array<std::string_view, 2> keys{"eid", "securableObjId"};

std::string schemaOfServer(const QORServer& server) {
    return "qor_at_" + server.name;
}

constexpr const char* schemaOfServers = "qor_all";

std::set<std::string, std::less<>> viewsOf(ASSession& home, const std::string& schema) {
    std::set<std::string, std::less<>> views;
    for (auto& row : readRows(home,
                              "SELECT CAST(relname AS text) FROM pg_class WHERE relkind = 'v' AND relnamespace = "
                              "to_regnamespace(" +
                                  ASSession::quoteLiteral(ASSession::quoteIdentifier(schema)) + ")",
                              1))
        views.insert(std::move(row.front()));
    return views;
}

/// Home is locked for a moment by who began it, or by others who read.
void awaitHandover() {
    constexpr auto betweenLooks = std::chrono::milliseconds(20);
    const auto patience = std::chrono::milliseconds(QORRdbms::instance().options().busyTimeoutMs);
    const auto until = QORRequestControl::Clock::now() + patience;
    while (!settleHandover() && QORRequestControl::Clock::now() < until) {
        QORRequestControl::checkCurrent();
        std::this_thread::sleep_for(betweenLooks);
    }
}

/// Found out for a message: whoever waits for it has waited long enough.
bool answers(const QORServer& server) {
    constexpr auto patience = std::chrono::seconds(1);
    const QORRequestScope bounded(std::make_shared<QORRequestControl>(patience));
    try {
        QORServers::instance().run(
            server, [](QORRdbms& database) { QORRdbmsTran(database, ASAccess::ReadOne)->execute("SELECT 1"); });
    } catch (const AException& error) {
        return error.failure() != ASFailure::Unreachable;  // what else is wrong there has ended no connection
    } catch (const QORException& error) {
        return error.code() != errDeadline;
    }
    return true;
}

}  // namespace

class QORSpreadViews::Places : public ASPlaces {
public:
    explicit Places(std::shared_ptr<const QORPlacement> placement) : m_placement(std::move(placement)) {
        QORRdbmsTran home(ASAccess::Read);
        m_all = viewsOf(*home, schemaOfServers);
        m_each = viewsOf(*home, schemaOfServer(m_placement->servers().front()));
    }

    const std::shared_ptr<const QORPlacement>& placement() const noexcept { return m_placement; }

    std::size_t count() const noexcept override { return m_placement->servers().size(); }
    std::string schemaOf(std::size_t place, bool longRead) const override {
        return schemaOfServer(m_placement->servers()[place]) + suffix(longRead);
    }
    std::string schemaOfAll(bool longRead) const override { return schemaOfServers + suffix(longRead); }
    bool hasAll(std::string_view view) const override { return m_all.contains(view); }
    bool hasEach(std::string_view view) const override { return m_each.contains(view); }
    bool isKey(std::string_view view, std::string_view column) const override {
        return hasEach(view) && (column == keys[0] || column == keys[1]);
    }
    /// An identifier that stands for none may still be stored by somebody.
    std::optional<std::size_t> placeOf(const std::optional<std::string>& key) const override {
        QOREID eid;
        if (key && (!eid.fromString(*key) || !eid.isValid())) return std::nullopt;
        return static_cast<std::size_t>(&m_placement->of(eid) - m_placement->servers().data());
    }

private:
    static std::string suffix(bool longRead) { return longRead ? "_long" : ""; }

    std::shared_ptr<const QORPlacement> m_placement;
    std::set<std::string, std::less<>> m_all;
    std::set<std::string, std::less<>> m_each;
};

QORSpreadViews& QORSpreadViews::instance() {
    static QORSpreadViews views;
    return views;
}

std::shared_ptr<const ASPlaces> QORSpreadViews::places() {
    if (wasBetween()) awaitHandover();
    auto placement = QORServers::instance().placement();
    if (placement->none()) return nullptr;
    {
        const std::lock_guard lock(m_mutex);
        if (m_places && m_places->placement() == placement) return m_places;
    }
    auto fresh = std::make_shared<const Places>(std::move(placement));
    const std::lock_guard lock(m_mutex);
    return m_places = std::move(fresh);
}

bool QORSpreadViews::isCurrent(const ASPlaces& places) {
    const QORServers::Look look = QORServers::instance().look();
    if (look.placement != static_cast<const Places&>(places).placement()) return false;
    if (!look.handsOver || findHandover() == QORHandoverState::None) return true;
    // Home is read through by this very thread: it is settled when the statement is written anew.
    const std::lock_guard lock(m_mutex);
    m_between = true;
    return false;
}

// Home says which server it cannot connect to, and of a connection that ended in the middle of a result, only that.
AException QORSpreadViews::naming(const ASPlaces& places, const AException& failure) {
    if (!failure.sqlState().starts_with("08") && failure.failure() != ASFailure::Unreachable) return failure;
    const std::vector<QORServer>& servers = static_cast<const Places&>(places).placement()->servers();
    const auto isNamed = [&](const QORServer& server) {
        return failure.text().find("\"qor_" + server.name) != std::string::npos;
    };
    if (std::any_of(servers.begin(), servers.end(), isNamed)) return failure;
    std::string silent;
    for (const QORServer& server : servers) {
        if (!answers(server)) silent += (silent.empty() ? "\"" : ", \"") + server.name + '"';
    }
    if (!silent.empty()) return failure.reworded(failure.text() + " (no answer from server " + silent + ")");
    if (failure.failure() == ASFailure::Unreachable) return failure;  // it was home that went away
    return failure.reworded(failure.text() + " (one of the servers whose rows were asked for)");
}

bool QORSpreadViews::wasBetween() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_between, false);
}

}  // namespace QOR
