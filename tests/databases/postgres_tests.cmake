# Tests of the PostgreSQL database plugin on the private server.
quillon_add_test(postgres_store_test
  SOURCES postgres_store_test.cpp postgres_guard_test.cpp postgres_outage_test.cpp
  LIBS quillon_postgres_store quillon_interfaces quillon_model
  POSTGRES TIMEOUT 300)
add_dependencies(postgres_store_test plug_db_driver_postgres)
