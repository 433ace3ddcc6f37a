// Settlement of deliveries: acknowledged or rejected once their writes are committed.
#include <algorithm>

#include "engine/Engiene.h"

namespace {
// The deliveries of one burst share a store transaction; each is settled once the
// writes of all of them are committed (at once when the store has no batches).
constexpr std::size_t max_deferred_deliveries = 64;
}  // namespace

void Engiene::settleWhenStored(delivery_batch::delivery delivery) {
    if (!m_batch.is_open()) {
        settle(delivery);
        return;
    }
    m_batch.defer(std::move(delivery));
    // Half the prefetch window: its acknowledgements let the broker send the next
    // deliveries while this burst's others are handled.
    const std::size_t window = std::size_t(std::max(1, m_receiver->prefetch() / 2));
    if (m_batch.deferred() >= std::min(window, max_deferred_deliveries) && !m_batch.in_message()) {
        flushDeliveries();
        m_receiver->flush_settlements();
    } else if (!m_flush_timer.isActive()) {
        m_flush_timer.start();
    }
}

void Engiene::flushDeliveries() {
    if (m_batch.in_message()) {
        // Reached from an event loop run inside a message's handling: after it.
        m_flush_timer.start();
        return;
    }
    m_flush_timer.stop();
    m_batch.commit([this](const delivery_batch::delivery& d) { settle(d); },
                   [this](const delivery_batch::delivery& d, const QString& why) {
                       logFailure("Std::exception: " + why, d.tag, d.message, nullptr);
                       m_receiver->reject_message(d.tag);
                   });
}

void Engiene::settle(const delivery_batch::delivery& delivery) {
    if (delivery.accepted) {
        accept(delivery.message, delivery.tag);
    } else {
        m_receiver->reject_message(delivery.tag);
    }
}
