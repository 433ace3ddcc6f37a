# Tests of the SQLite database plugin and of the quillon-devices tool.
quillon_add_test(sqlite_store_test
  SOURCES sqlite_store_test.cpp
  LIBS quillon_interfaces quillon_model Qt5::Sql)
add_dependencies(sqlite_store_test plug_db_driver_sqlite)

quillon_add_test(sqlite_batch_test
  SOURCES sqlite_batch_test.cpp
  LIBS quillon_interfaces quillon_model Qt5::Sql)
add_dependencies(sqlite_batch_test plug_db_driver_sqlite)

quillon_add_test(sqlite_file_test
  SOURCES sqlite_file_test.cpp
  LIBS quillon_sqlite_store Qt5::Sql)
add_dependencies(sqlite_file_test plug_db_driver_sqlite)

quillon_add_test(sqlite_devices_tool_test
  SOURCES sqlite_devices_tool_test.cpp
  LIBS quillon_interfaces quillon_model Qt5::Sql QT_MAIN)
add_dependencies(sqlite_devices_tool_test plug_db_driver_sqlite quillon-devices)

quillon_add_test(sqlite_durability_test
  SOURCES sqlite_durability_test.cpp
  LIBS quillon_sqlite_store Qt5::Sql)

quillon_add_test(sqlite_rows_test
  SOURCES sqlite_rows_test.cpp
  LIBS quillon_interfaces quillon_model Qt5::Sql)
add_dependencies(sqlite_rows_test plug_db_driver_sqlite)
