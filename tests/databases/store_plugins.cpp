#include "tests/databases/store_fixture.h"

// Every database plugin of the project runs the whole store suite.
INSTANTIATE_TEST_SUITE_P(DatabasePlugins, StoreSuite,
                         ::testing::Values("plug_db_driver_dummy", "plug_db_driver_sqlite"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param);
                         });
