#include "rdbmspp/engine/SqliteTriggers.h"

#include <sqlite3.h>

#include <atomic>

namespace QOR {
namespace {

std::atomic<bool> registered = false;

void switchTriggers(sqlite3_context* context, int, sqlite3_value** values) {
    sqlite3* const connection = sqlite3_context_db_handle(context);
    const int wanted = sqlite3_value_int(values[0]);
    if (sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_TRIGGER, wanted, nullptr) != SQLITE_OK) {
        sqlite3_result_error(context, "triggers cannot be switched", -1);
        return;
    }
    sqlite3_result_int(context, wanted);
}

int addFunction(sqlite3* connection, const char**, const void*) {
    // Not for the use of triggers and views, which belong to the database and not to who opened it.
    return sqlite3_create_function(connection, "qor_triggers", 1, SQLITE_UTF8 | SQLITE_DIRECTONLY, nullptr,
                                   &switchTriggers, nullptr, nullptr);
}

}  // namespace

void prepareSqliteTriggers() {
    registered = sqlite3_auto_extension(reinterpret_cast<void (*)()>(&addFunction)) == SQLITE_OK;
}

bool hasSqliteTriggerSwitch() noexcept {
    return registered;
}

}  // namespace QOR
