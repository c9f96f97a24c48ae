#include "libs/rdbmspp/engine/OdbcCalls.h"

#include <dlfcn.h>
#include <sql.h>

#include <atomic>

namespace QOR::test {
namespace {

std::atomic<std::uint64_t> getDataCalls{0};
std::atomic<std::uint64_t> bytesAskedFor{0};

}  // namespace

OdbcCalls odbcCalls() {
    return {getDataCalls, bytesAskedFor};
}

}  // namespace QOR::test

// The program's own symbol comes before the driver manager's, also for the libraries that it links; the call goes on
// to the real one.
extern "C" __attribute__((visibility("default"))) SQLRETURN SQL_API SQLGetData(SQLHSTMT statement, SQLUSMALLINT column,
                                                                               SQLSMALLINT type, SQLPOINTER value,
                                                                               SQLLEN size, SQLLEN* indicator) {
    using Call = SQLRETURN(SQL_API*)(SQLHSTMT, SQLUSMALLINT, SQLSMALLINT, SQLPOINTER, SQLLEN, SQLLEN*);
    static const auto real = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "SQLGetData"));
    ++QOR::test::getDataCalls;
    QOR::test::bytesAskedFor += static_cast<std::uint64_t>(size);
    return real(statement, column, type, value, size, indicator);
}
