#pragma once

#include <QJsonObject>
#include <QString>
#include <chrono>
#include <cstddef>
#include <vector>

#include "interfaces/IWriteBatch.h"
#include "metrics/service_metrics.h"

// Groups the store writes of a burst of deliveries into one transaction per store back
// end. Inside it, units of work (a delivery, a step after it) nest, and each can be
// undone alone. Deliveries handled inside the batch are kept here until it is committed,
// so that none is acknowledged before its writes are stored. Without a store that
// offers batches nothing is opened: every store call commits by itself.
class delivery_batch {
public:
    struct delivery {
        QJsonObject message;
        quint64 tag = 0;
        bool accepted = false;
        QString failure;  // logged when the delivery is settled
        // For the metrics: what it was, how its handling ended, and when it arrived.
        service_metrics::uplink_type type = service_metrics::uplink_type::unknown;
        service_metrics::uplink_outcome verdict = service_metrics::uplink_outcome::rejected_bad;
        std::chrono::steady_clock::time_point received = std::chrono::steady_clock::now();
        // Delivered before without being settled (a connection or a process was lost):
        // it may be stored already.
        bool redelivered = false;
    };

    // Null and repeated back ends (one back end serving several stores) are ignored.
    void add_store(interfaces::IWriteBatch* store);
    // Commits are timed and counted there, and tell whether the store answers.
    void set_metrics(service_metrics* metrics) { m_metrics = metrics; }
    bool enabled() const { return !m_stores.empty(); }
    // The first store whose commits become durable only later (null: none).
    interfaces::IDurableCommits* durable_commits() const;
    bool is_open() const { return m_open; }
    bool in_unit() const { return m_depth > 0; }
    std::size_t deferred() const { return m_deferred.size(); }

    // Opens the batch when none is open, then a unit inside it. Throws when a store
    // cannot begin.
    void begin_unit();
    // keep = false undoes the unit's writes. False when a store has lost the batch's
    // transaction (an I/O error, a full disk): then nothing of the batch is stored and
    // the batch must be ended with commit(), which fails.
    bool end_unit(bool keep);
    void defer(delivery d) { m_deferred.push_back(std::move(d)); }

    // How a commit ended: stored; failed (nothing of the batch is to be taken as
    // stored); or failed because a store's server was away.
    struct commit_result {
        enum class outcome { committed, failed, store_away };
        outcome result = outcome::committed;
        QString error;  // what the failing store said
        bool committed() const { return result == outcome::committed; }
        bool store_away() const { return result == outcome::store_away; }
    };
    // Commits every store. The deferred deliveries stay for take_deferred().
    commit_result commit();
    // Undoes every open unit, whatever a store answers (its server may be gone); the
    // batch stays open for commit().
    void abandon_units();
    std::vector<delivery> take_deferred();

private:
    void note_failure(const QString& why);

    std::vector<interfaces::IWriteBatch*> m_stores;
    service_metrics* m_metrics = nullptr;
    std::vector<delivery> m_deferred;
    int m_depth = 0;
    bool m_open = false;
};
