#include "rdbmspp/engine/SqliteAmong.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <exception>
#include <memory>
#include <vector>

namespace QOR {

namespace {

constexpr std::size_t guidLength = 36;

/// The GUIDs of a list, made ready for looking them up. The statement keeps them as long as it runs.
class GuidList {
public:
    GuidList(const unsigned char* text, std::size_t size) : m_guids(size / guidLength) {
        for (Guid& guid : m_guids) {
            std::copy_n(text, guidLength, guid.begin());
            text += guidLength;
        }
        if (!std::is_sorted(m_guids.begin(), m_guids.end())) std::sort(m_guids.begin(), m_guids.end());
    }

    bool holds(const unsigned char* text) const {
        Guid guid;
        std::copy_n(text, guidLength, guid.begin());
        return std::binary_search(m_guids.begin(), m_guids.end(), guid);
    }

private:
    using Guid = std::array<unsigned char, guidLength>;  // of unsigned ones, which are compared without a loop
    std::vector<Guid> m_guids;
};

constexpr int listArgument = 1;

const GuidList* listOf(sqlite3_context* context, sqlite3_value* argument) {
    if (const void* const known = sqlite3_get_auxdata(context, listArgument))
        return static_cast<const GuidList*>(known);
    const unsigned char* const text = sqlite3_value_text(argument);
    const auto size = static_cast<std::size_t>(sqlite3_value_bytes(argument));
    if (text == nullptr || size % guidLength != 0) {
        sqlite3_result_error(context, "qor_among: the list is none of GUIDs", -1);
        return nullptr;
    }
    auto list = std::make_unique<GuidList>(text, size);
    sqlite3_set_auxdata(context, listArgument, list.release(),
                        [](void* kept) { const std::unique_ptr<GuidList> freed(static_cast<GuidList*>(kept)); });
    // It is freed at once where there is no memory to keep it.
    const void* const kept = sqlite3_get_auxdata(context, listArgument);
    if (kept == nullptr) sqlite3_result_error_nomem(context);
    return static_cast<const GuidList*>(kept);
}

void among(sqlite3_context* context, int, sqlite3_value** values) {
    try {
        const GuidList* const list = listOf(context, values[listArgument]);
        if (list == nullptr) return;
        if (sqlite3_value_type(values[0]) != SQLITE_TEXT) return sqlite3_result_int(context, 0);
        const unsigned char* const text = sqlite3_value_text(values[0]);
        const bool guid = sqlite3_value_bytes(values[0]) == static_cast<int>(guidLength);
        sqlite3_result_int(context, guid && list->holds(text) ? 1 : 0);
    } catch (const std::exception&) {
        sqlite3_result_error_nomem(context);
    }
}

}  // namespace

void addSqliteAmong(sqlite3& connection) noexcept {
    constexpr int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    sqlite3_create_function(&connection, sqliteAmong, 2, flags, nullptr, &among, nullptr, nullptr);
}

}  // namespace QOR
