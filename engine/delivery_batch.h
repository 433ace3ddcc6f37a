#pragma once

#include <QJsonObject>
#include <QString>
#include <cstddef>
#include <functional>
#include <vector>

#include "interfaces/IWriteBatch.h"

// Groups the store writes of a burst of deliveries into one transaction per store back
// end, each delivery's own writes a unit inside it that a failure undoes alone.
// Deliveries handled inside the batch are settled (acknowledged or rejected) only after
// it is committed, so an acknowledged message is always stored. Without a store that
// offers batches, nothing is deferred.
class delivery_batch {
public:
    struct delivery {
        QJsonObject message;
        quint64 tag = 0;
        bool accepted = false;
    };
    using settle_fn = std::function<void(const delivery&)>;
    using failure_fn = std::function<void(const delivery&, const QString& why)>;

    // Null and repeated back ends (one back end serving several stores) are ignored.
    void add_store(interfaces::IWriteBatch* store);
    bool enabled() const { return !m_stores.empty(); }
    bool is_open() const { return m_open; }
    bool in_message() const { return m_depth > 0; }
    std::size_t deferred() const { return m_deferred.size(); }

    // Opens the batch when none is open, then the unit of one message. Throws when the
    // store cannot begin.
    void begin_message();
    // keep = false undoes the message's writes. Throws when the store fails.
    void end_message(bool keep);
    void defer(delivery d) { m_deferred.push_back(std::move(d)); }

    // Commits, then settles every deferred delivery in arrival order. When a commit fails
    // nothing of the batch is taken as stored: each delivery goes to `failed` instead.
    void commit(const settle_fn& settle, const failure_fn& failed);

private:
    std::vector<interfaces::IWriteBatch*> m_stores;
    std::vector<delivery> m_deferred;
    int m_depth = 0;
    bool m_open = false;
};
