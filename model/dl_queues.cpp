#include "model/dl_queues.h"

namespace model {

bool dl_queue_entry::operator==(const dl_queue_entry& o) const {
    return data == o.data && db_id == o.db_id && repeat == o.repeat && status == o.status && type == o.type &&
           dl_phy == o.dl_phy && station_id == o.station_id && frequency == o.frequency && f_ack == o.f_ack &&
           f_system == o.f_system;
}

bool dl_queue::operator==(const dl_queue& o) const {
    return repeat == o.repeat && start_from == o.start_from && start_ts == o.start_ts && ttl == o.ttl &&
           lock == o.lock && status == o.status && timeout == o.timeout && entries == o.entries;
}

bool dl_queues::operator==(const dl_queues& o) const {
    return dl == o.dl && status == o.status && lock == o.lock;
}

}  // namespace model
