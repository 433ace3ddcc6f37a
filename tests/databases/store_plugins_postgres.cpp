#include "tests/databases/store_fixture.h"

// The store suite against the PostgreSQL plugin, each test in a schema of its own.
INSTANTIATE_TEST_SUITE_P(PostgresPlugin, StoreSuite, ::testing::Values("plug_db_driver_postgres"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param);
                         });
