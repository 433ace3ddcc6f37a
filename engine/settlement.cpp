// The delivery flow: units of work, commits, and settlement after them.
#include <algorithm>
#include <cstdlib>

#include "engine/Engiene.h"
#include "interfaces/IStoreLink.h"

void Engiene::onUlReceived(QJsonObject message, quint64 deliveryTag) {
    delivery_batch::delivery delivery;
    delivery.message = std::move(message);
    delivery.tag = deliveryTag;
    // Read now: the receiver tells of the delivery it has just signalled.
    delivery.redelivered = m_receiver->redelivered(deliveryTag);
    receive(std::move(delivery));
}

// The delivery keeps the time it arrived, also while it waits at the gate.
void Engiene::receive(delivery_batch::delivery delivery) {
    if (m_gate.busy()) {
        m_gate.when_free(this, [this, delivery] { receive(delivery); });
        return;
    }
    handling_gate::entry in(&m_gate);
    handleDelivery(std::move(delivery));
}

Engiene::unit Engiene::beginUnit() {
    m_batch.begin_unit();
    m_outbox->hold();
    return unit{m_outbox->mark()};
}

bool Engiene::endUnit(const unit& u, bool keep) {
    if (!keep) {
        m_outbox->drop_from(u.outbox_mark);
    }
    return m_batch.end_unit(keep);
}

void Engiene::handleDelivery(delivery_batch::delivery delivery) {
    if (store_away()) {
        // On its way before the consumer paused: it waits in the queue with the rest.
        requeue(delivery);
        return;
    }
    const bool joins_burst = m_batch.is_open();
    const std::size_t outbox_mark = m_outbox->held();
    unit u;
    try {
        u = beginUnit();
    } catch (const interfaces::store_unavailable& e) {
        storeWentAway(delivery, outbox_mark, QString::fromUtf8(e.what()));
        return;
    } catch (...) {
        if (joins_burst) {
            // The open burst's transaction cannot take another unit: it is not to be trusted.
            abandonBurst(std::move(delivery));
            return;
        }
        // The store cannot even begin (its lock is held elsewhere, the file is gone).
        delivery.failure = failureLine(caught_failure::current(), delivery.tag, delivery.message, nullptr);
        delivery.type = typeOf(delivery.message);
        settleAfterCommit({std::move(delivery)});
        return;
    }
    const handling_result handled = handle(delivery.message, delivery.tag, delivery.redelivered);
    if (handled.result == outcome::store_away) {
        storeWentAway(delivery, u.outbox_mark, handled.failure);
        return;
    }
    delivery.accepted = handled.result == outcome::acknowledge;
    delivery.failure = handled.failure;
    delivery.type = handled.type;
    delivery.verdict = handled.verdict;
    bool intact = false;
    try {
        intact = endUnit(u, handled.result != outcome::reject_and_undo);
    } catch (const interfaces::store_unavailable& e) {
        storeWentAway(delivery, u.outbox_mark, QString::fromUtf8(e.what()));
        return;
    }
    if (!intact) {
        abandonBurst(std::move(delivery));
        return;
    }
    if (!m_batch.is_open()) {
        settleAfterCommit({std::move(delivery)});
        return;
    }
    // The deliveries of one burst share a store transaction; each is settled once the
    // writes of all of them are committed (at once when the store has no batches).
    m_batch.defer(std::move(delivery));
    burstEvent(burst_policy::event::delivery_handled);
}

// The one place that decides when the open burst is committed (burst_policy says what
// ends a burst). A burst that goes on is committed when the event loop turns at the latest.
void Engiene::burstEvent(burst_policy::event event) {
    if (!m_burst.ends(event, m_batch.deferred())) {
        if (!m_end_of_turn.isActive()) {
            m_end_of_turn.start();
        }
        return;
    }
    m_end_of_turn.stop();
    commitAndSettle();
}

// The open burst's transaction failed while `delivery` was being handled: every
// delivery of it that the commit does not store, this one included, is handled again on
// its own.
void Engiene::abandonBurst(delivery_batch::delivery delivery) {
    const delivery_batch::commit_result done = m_batch.commit();
    if (done.store_away()) {
        m_outbox->drop();
        for (const auto& earlier : m_batch.take_deferred()) {
            requeue(earlier);
        }
        requeue(delivery);
        pauseForStore(done.error);
        return;
    }
    if (done.committed()) {
        // The earlier units were intact after all (only a new one could not be opened).
        settleAfterCommit(m_batch.take_deferred());
        handleEachAlone({std::move(delivery)}, "the store could not open a unit for it");
        return;
    }
    m_outbox->drop();
    std::vector<delivery_batch::delivery> all = m_batch.take_deferred();
    all.push_back(std::move(delivery));
    handleEachAlone(std::move(all), done.error);
}

// Whether the gate is busy (reached from an event loop run inside some handling); if so,
// `again` runs once after that handling, however often it was asked for meanwhile.
bool Engiene::waitAtGateOnce(bool& waiting, void (Engiene::*again)()) {
    if (!m_gate.busy()) {
        return false;
    }
    if (!waiting) {
        waiting = true;
        m_gate.when_free(this, [this, &waiting, again] {
            waiting = false;
            (this->*again)();
        });
    }
    return true;
}

void Engiene::flushDeliveries() {
    if (waitAtGateOnce(m_flush_waiting, &Engiene::flushDeliveries)) {
        return;
    }
    handling_gate::entry in(&m_gate);
    burstEvent(burst_policy::event::loop_turned);
}

void Engiene::commitAndSettle() {
    if (!m_batch.is_open()) {
        return;
    }
    const delivery_batch::commit_result done = m_batch.commit();
    if (done.store_away()) {
        abandonBurstForStore(done.error);
        return;
    }
    if (!done.committed()) {
        m_outbox->drop();
        handleEachAlone(m_batch.take_deferred(), done.error);
        return;
    }
    settleAfterCommit(m_batch.take_deferred());
}

void Engiene::settleAfterCommit(std::vector<delivery_batch::delivery> deliveries) {
    std::vector<durable_release::action> actions = m_outbox->take();
    actions.reserve(actions.size() + deliveries.size());
    for (auto& delivery : deliveries) {
        actions.push_back([this, delivery = std::move(delivery)] { settle(delivery); });
    }
    m_release.after_commit(std::move(actions));
    release();
}

void Engiene::releaseDurable() {
    if (waitAtGateOnce(m_release_waiting, &Engiene::releaseDurable)) {
        return;
    }
    handling_gate::entry in(&m_gate);
    release();
}

// The one place where outcomes leave: what the durable commits let out runs in the order
// of the commits (each unit's publications and downlinks, then the settlements of its
// deliveries), and the outputs send it at once rather than when the event loop turns.
void Engiene::release() {
    if (!m_release.run_durable()) {
        return;
    }
    m_outputs.publications->flush_publications();
    m_outputs.commands->flush_commands();
    m_receiver->flush_settlements();
}

void Engiene::releaseAll() {
    m_release.wait_all();
    release();
}

void Engiene::durabilityLost(const QString& why) {
    // What reached the disk is unknown: nothing more may be acknowledged. The deliveries
    // not acknowledged come back to the next process from the broker.
    log_line(m_log, Error) << "the store cannot make its writes durable (" << why
                           << "); stopping, unacknowledged deliveries stay in their queue";
    std::_Exit(EXIT_FAILURE);
}

// A burst whose commit failed: so that one delivery's failure costs no other, each is
// handled again in a transaction of its own, and only those that fail alone are rejected.
void Engiene::handleEachAlone(std::vector<delivery_batch::delivery> deliveries, const QString& why) {
    if (deliveries.empty()) {
        return;
    }
    log_line(m_log, Warning) << "the store could not commit a burst of " << QString::number(deliveries.size())
                             << " deliveries (" << why << "); each is handled again on its own";
    for (auto& delivery : deliveries) {
        if (store_away()) {
            requeue(delivery);
            continue;
        }
        QString error;
        bool stored = false;
        bool unavailable = false;
        handling_result handled;
        const std::size_t outbox_mark = m_outbox->held();
        try {
            const unit u = beginUnit();
            handled = handle(delivery.message, delivery.tag, delivery.redelivered);
            if (handled.result == outcome::store_away) {
                storeWentAway(delivery, u.outbox_mark, handled.failure);
                continue;
            }
            // A unit the store lost still ends its batch, whose commit then fails.
            const bool intact = endUnit(u, handled.result != outcome::reject_and_undo);
            const delivery_batch::commit_result done = m_batch.commit();
            stored = intact && done.committed();
            error = done.error;
            unavailable = done.store_away();
        } catch (const interfaces::store_unavailable& e) {
            storeWentAway(delivery, outbox_mark, QString::fromUtf8(e.what()));
            continue;
        } catch (...) {
            error = caught_failure::current().message();
        }
        if (unavailable) {
            m_outbox->drop();
            requeue(delivery);
            pauseForStore(error);
            continue;
        }
        if (!stored) {
            m_outbox->drop();
            delivery.accepted = false;
            // The handling's own failure (a full disk on an insert) says more than the
            // commit's that followed it.
            delivery.failure = handled.failure.isEmpty()
                                   ? failureLine({caught_failure::kind::standard, error}, delivery.tag,
                                                 delivery.message, nullptr)
                                   : handled.failure;
        } else {
            delivery.accepted = handled.result == outcome::acknowledge;
            delivery.failure = handled.failure;
        }
        delivery.type = handled.type;
        delivery.verdict = handled.verdict;
        settleAfterCommit({std::move(delivery)});
    }
}

void Engiene::settle(const delivery_batch::delivery& delivery) {
    if (!delivery.failure.isEmpty()) {
        log_line(m_log, Error) << delivery.failure;
    }
    if (delivery.accepted) {
        accept(delivery.message, delivery.tag);
    } else {
        m_receiver->reject_message(delivery.tag);
    }
    countSettled(delivery);
}

void Engiene::runAlone(const std::function<void()>& work) {
    burstEvent(burst_policy::event::exclusive_work);
    if (store_away()) {
        runWithoutStoreBatch(work);
        return;
    }
    unit u;
    try {
        u = beginUnit();
    } catch (const interfaces::store_unavailable& e) {
        abandonBurstForStore(QString::fromUtf8(e.what()));
        throw;
    }
    try {
        work();
    } catch (const interfaces::store_unavailable& e) {
        abandonBurstForStore(QString::fromUtf8(e.what()));
        throw;
    } catch (...) {
        try {
            endUnit(u, false);
        } catch (const interfaces::store_unavailable&) {
            m_batch.abandon_units();
        }
        m_batch.commit();
        m_outbox->drop();
        throw;
    }
    delivery_batch::commit_result done{delivery_batch::commit_result::outcome::failed, {}};
    try {
        if (endUnit(u, true)) {
            done = m_batch.commit();
        }
    } catch (const interfaces::store_unavailable& e) {
        done = {delivery_batch::commit_result::outcome::store_away, QString::fromUtf8(e.what())};
    }
    const QString error = done.error;
    const bool unavailable = done.store_away();
    if (!done.committed()) {
        if (m_batch.is_open()) {
            m_batch.abandon_units();
            m_batch.commit();
        }
        m_outbox->drop();
        if (unavailable) {
            pauseForStore(error);
            throw interfaces::store_unavailable(error.toStdString());
        }
        throw std::runtime_error(("the store could not commit: " + error).toStdString());
    }
    settleAfterCommit({});
}

// While the server is away no transaction can be opened: what the work reads or writes
// throws store_unavailable by itself, and what it sends goes out only if it finished.
// A command that needs no store (get_info, exit) still runs.
void Engiene::runWithoutStoreBatch(const std::function<void()>& work) {
    m_outbox->hold();
    try {
        work();
    } catch (...) {
        m_outbox->drop();
        throw;
    }
    settleAfterCommit({});
}

// Back to the queue unsettled, counted as such: the store's server was away.
void Engiene::requeue(const delivery_batch::delivery& delivery) {
    m_receiver->requeue_message(delivery.tag);
    m_metrics->count_uplink(typeOf(delivery.message), service_metrics::uplink_outcome::requeued);
}

void Engiene::storeWentAway(const delivery_batch::delivery& delivery, std::size_t outbox_mark,
                            const QString& why) {
    // The delivery's own writes and messages are undone; the deliveries before it in the
    // burst are kept if their transaction still commits, else they go back too.
    m_outbox->drop_from(outbox_mark);
    m_batch.abandon_units();
    abandonBurstForStore(why);
    requeue(delivery);
}

void Engiene::abandonBurstForStore(const QString& why) {
    m_batch.abandon_units();
    const std::vector<delivery_batch::delivery> earlier = m_batch.take_deferred();
    if (m_batch.is_open() && m_batch.commit().committed()) {
        settleAfterCommit(earlier);
    } else {
        m_outbox->drop();
        for (const auto& delivery : earlier) {
            requeue(delivery);
        }
    }
    pauseForStore(why);
}

void Engiene::pauseForStore(const QString& why) {
    m_end_of_turn.stop();
    m_store_watch->lost(why);
    m_receiver->pause_consuming();
    m_receiver->flush_settlements();
}

void Engiene::resumeAfterStore() {
    m_receiver->resume_consuming();
}
