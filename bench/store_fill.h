#pragma once

#include <QString>
#include <cstdint>

#include "app/logger.h"

namespace bench {

struct store_fill_options {
    QString path;             // the store file to create
    uint64_t rows = 1000000;  // value rows in all
    int modems = 10000;
    int first_modem = 500000;
    int batch = 50000;      // rows per save_values list (one transaction)
    int heavy_rows = 3000;  // the first modem holds at least this many rows
    int saves = 2000;       // uplinks saved one by one afterwards
};

struct store_fill_result {
    bool ok = false;
    QString error;
    uint64_t rows = 0;
    double fill_s = 0;
    double rows_per_s = 0;
    int saves = 0;
    double save_s = 0;
    double saves_per_s = 0;
    double file_mib = 0;
    int heavy_modem = 0;  // the modem that the history query asks for
};

// Fills a fresh SQLite store, loaded through the plugin manager as the service loads
// it, with value rows spread over the modems (ten OBIS codes per reading, readings
// every quarter hour, all modems read in turn), then saves uplinks of ten records one
// by one as the engine does (message, values, driver state) and times both.
store_fill_result fill_store(const store_fill_options& options, logger& log);

}  // namespace bench
