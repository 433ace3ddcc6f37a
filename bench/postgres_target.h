#pragma once

#include <QString>

namespace bench {

// The PostgreSQL server of a run: the given connection string, or else the private test
// server of scripts/test-postgres (started when it is not running). False with `error`
// set when neither can be had.
bool open_postgres(const QString& given_conninfo, QString& conninfo, QString& error);
// A schema name of this run alone, so that every run starts on empty tables.
QString fresh_schema();

}  // namespace bench
