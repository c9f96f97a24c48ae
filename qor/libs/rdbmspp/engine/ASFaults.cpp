#include "rdbmspp/engine/ASFaults.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/engine/SqliteEngine.h"

namespace QOR {

namespace {

constexpr std::array<const char*, 7> names{"full",    "locked",  "synchronisation", "writing",
                                           "reading", "corrupt", "missing"};

// Reasons that change all the time are not worth a line each.
constexpr auto betweenLines = std::chrono::seconds(10);

std::size_t indexOf(ASFault fault) {
    return static_cast<std::size_t>(fault);
}

ASFault faultOf(ASFailure failure, const SqliteComplaint& complaint, bool reading) {
    if (failure == ASFailure::Corrupt) return ASFault::Corrupt;
    if (reading || failure == ASFailure::Unreachable) return ASFault::Reading;
    if (complaint.isFull()) return ASFault::Full;
    if (complaint.isSynchronisation()) return ASFault::Synchronisation;
    switch (failure) {
        case ASFailure::Locked:
            return ASFault::Locked;
        case ASFailure::Full:
            return ASFault::Full;
        case ASFailure::ReadOnly:
            return ASFault::Writing;
        default:
            return complaint.isReading() ? ASFault::Reading : ASFault::Writing;
    }
}

bool tellsOfTheDatabase(ASFailure failure) {
    switch (failure) {
        case ASFailure::Locked:
        case ASFailure::ReadOnly:
        case ASFailure::InputOutput:
        case ASFailure::Corrupt:
        case ASFailure::Full:
        case ASFailure::Unreachable:
            return true;
        default:
            return false;
    }
}

}  // namespace

ASFaults& ASFaults::instance() {
    static ASFaults faults;
    return faults;
}

void ASFaults::report(ASFault fault, const std::string& reason) noexcept {
    try {
        bool news = false;
        {
            const std::lock_guard lock(m_mutex);
            Entry& entry = m_entries[indexOf(fault)];
            const auto now = std::chrono::steady_clock::now();
            news = entry.count++ == 0 || (entry.reason != reason && now - entry.logged >= betweenLines);
            if (news) entry.logged = now;
            entry.reason = reason;
            m_any.store(true, std::memory_order_relaxed);
        }
        if (news) logMessage(0, "QORRdbms", QOR_SOURCE_PATH, "report", "%s", reason.c_str());
    } catch (const std::exception& exception) {
        logMessage(0, "QORRdbms", QOR_SOURCE_PATH, "report", "%s", exception.what());
    }
}

void ASFaults::report(const AException& failure, const SqliteComplaint& complaint, bool reading) noexcept {
    try {
        if (!tellsOfTheDatabase(failure.failure())) return;
        std::string reason = failure.text();
        if (complaint.systemError != 0) reason += ": " + std::generic_category().message(complaint.systemError);
        if (!complaint.text.empty()) reason += " (" + complaint.text + ")";
        report(faultOf(failure.failure(), complaint, reading), reason);
    } catch (const std::exception& exception) {
        logMessage(0, "QORRdbms", QOR_SOURCE_PATH, "report", "%s", exception.what());
    }
}

void ASFaults::wrote() noexcept {
    if (any()) end(ASFault::Full, ASFault::Reading);
}

void ASFaults::sound() noexcept {
    if (any()) end(ASFault::Corrupt, ASFault::Corrupt);
}

void ASFaults::read() noexcept {
    if (any()) end(ASFault::Reading, ASFault::Reading);
}

void ASFaults::found() noexcept {
    if (any()) end(ASFault::Missing, ASFault::Missing);
}

void ASFaults::end(ASFault first, ASFault last) noexcept {
    for (std::size_t kind = indexOf(first); kind <= indexOf(last); ++kind) {
        std::uint64_t count = 0;
        std::string database;
        {
            const std::lock_guard lock(m_mutex);
            count = std::exchange(m_entries[kind].count, 0);
            database = m_database;
        }
        if (count == 0) continue;
        logMessage(1, "QORRdbms", QOR_SOURCE_PATH, "end",
                   "the database%s works again: \"%s\" has ended after %llu failures", database.c_str(), names[kind],
                   static_cast<unsigned long long>(count));
    }
    const std::lock_guard lock(m_mutex);
    const auto lasts = [](const Entry& entry) { return entry.count > 0; };
    m_any.store(std::any_of(m_entries.begin(), m_entries.end(), lasts), std::memory_order_relaxed);
}

void ASFaults::forget(const std::string& database) noexcept {
    const std::lock_guard lock(m_mutex);
    m_database = database.empty() ? database : " " + database;
    for (Entry& entry : m_entries)
        entry.count = 0;
    m_any.store(false, std::memory_order_relaxed);
}

std::vector<ASFaults::State> ASFaults::current() const {
    std::vector<State> states;
    if (!any()) return states;
    const std::lock_guard lock(m_mutex);
    for (std::size_t kind = 0; kind < kinds; ++kind) {
        const Entry& entry = m_entries[kind];
        if (entry.count > 0) states.push_back({static_cast<ASFault>(kind), names[kind], entry.reason, entry.count});
    }
    return states;
}

std::string ASFaults::text() const {
    std::string all;
    for (const State& state : current()) {
        if (!all.empty()) all += "; ";
        all += state.reason;
    }
    return all;
}

}  // namespace QOR
