#include "databases/dummy/memory_database.h"

memory_database::memory_database(const std::map<int, model::device_record>& seed) {
    data.devices = seed;
}
