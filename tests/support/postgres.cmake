# A PostgreSQL server for the tests and benchmarks that want one, and the engine's own library to compare with.
include_guard(GLOBAL)
find_library(QOR_LIBPQ pq REQUIRED)
find_path(QOR_LIBPQ_INCLUDE libpq-fe.h PATH_SUFFIXES postgresql REQUIRED)
add_library(qor_test_postgres STATIC EXCLUDE_FROM_ALL ${CMAKE_CURRENT_LIST_DIR}/PostgresServer.cpp
                                                      ${CMAKE_CURRENT_LIST_DIR}/TestDatabase.cpp)
target_include_directories(qor_test_postgres PUBLIC ${PROJECT_SOURCE_DIR}/tests
                           PRIVATE ${QOR_LIBPQ_INCLUDE} ${PROJECT_SOURCE_DIR}/qor/libs)
target_link_libraries(qor_test_postgres PRIVATE QOR::qor qor_flags qor_test_flags ${QOR_LIBPQ})

# Servers over which a database's records are spread, for the tests that are to run so as well: their objects register
# themselves.
add_library(qor_test_servers OBJECT EXCLUDE_FROM_ALL ${CMAKE_CURRENT_LIST_DIR}/ShardedPostgres.cpp)
target_include_directories(qor_test_servers PUBLIC ${PROJECT_SOURCE_DIR}/tests)
target_link_libraries(qor_test_servers PUBLIC qor_shard qor_test_postgres PRIVATE qor_flags qor_test_flags)
