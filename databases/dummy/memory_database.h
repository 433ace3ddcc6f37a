#pragma once

#include <QtGlobal>
#include <map>

#include "databases/dummy/memory_clients.h"
#include "databases/dummy/memory_data.h"
#include "databases/dummy/memory_messages.h"
#include "databases/dummy/memory_records.h"
#include "databases/dummy/memory_state.h"

// One in-memory database: the data and the four objects that serve it. The factory
// hands out shared pointers aliasing the members, so the whole lives while any of the
// four is in use.
struct memory_database {
    explicit memory_database(const std::map<int, model::device_record>& seed);
    Q_DISABLE_COPY(memory_database)

    memory_data data;
    memory_messages messages{data};
    memory_records records{data};
    memory_state state{data};
    memory_clients clients{data};
};
