#include "engine/delivery_batch.h"

#include <algorithm>
#include <exception>
#include <memory>

#include "engine/store_timer.h"

#include "interfaces/IStoreLink.h"

void delivery_batch::add_store(interfaces::IWriteBatch* store) {
    if (store && std::find(m_stores.begin(), m_stores.end(), store) == m_stores.end()) {
        m_stores.push_back(store);
    }
}

interfaces::IDurableCommits* delivery_batch::durable_commits() const {
    for (auto* store : m_stores) {
        if (auto* durable = store->durable_commits()) {
            return durable;
        }
    }
    return nullptr;
}

void delivery_batch::begin_unit() {
    if (!enabled()) {
        return;
    }
    if (!m_open) {
        try {
            for (auto* store : m_stores) {
                store->begin_batch();
            }
        } catch (const std::exception& e) {
            note_failure(QString::fromUtf8(e.what()));
            throw;
        }
        m_open = true;
    }
    ++m_depth;
    for (auto* store : m_stores) {
        store->begin_item();
    }
}

bool delivery_batch::end_unit(bool keep) {
    if (!m_open || m_depth == 0) {
        return true;
    }
    --m_depth;
    bool intact = true;
    for (auto* store : m_stores) {
        intact = store->end_item(keep) && intact;
    }
    return intact;
}

void delivery_batch::abandon_units() {
    for (; m_depth > 0; --m_depth) {
        for (auto* store : m_stores) {
            try {
                store->end_item(false);
            } catch (...) {
                // The commit that follows fails for this store: nothing of it is kept.
            }
        }
    }
}

delivery_batch::commit_result delivery_batch::commit() {
    commit_result done;
    if (!m_open) {
        return done;
    }
    m_open = false;
    m_depth = 0;
    QString failure;
    {
        std::unique_ptr<store_timer> timed;
        if (m_metrics) {
            timed = std::make_unique<store_timer>(*m_metrics, service_metrics::store_operation::commit);
        }
        for (auto* store : m_stores) {
            try {
                store->commit_batch();
            } catch (const interfaces::store_unavailable& e) {
                failure = QString::fromUtf8(e.what());
                done.result = commit_result::outcome::store_away;
            } catch (const std::exception& e) {
                failure = QString::fromUtf8(e.what());
            }
        }
    }
    if (!failure.isEmpty()) {
        note_failure(failure);
    } else if (m_metrics) {
        m_metrics->set_store_up();
        if (!m_deferred.empty()) {
            m_metrics->batch_size().observe(double(m_deferred.size()));
        }
    }
    if (!failure.isEmpty() && done.result == commit_result::outcome::committed) {
        done.result = commit_result::outcome::failed;
    }
    done.error = failure;
    return done;
}

std::vector<delivery_batch::delivery> delivery_batch::take_deferred() {
    std::vector<delivery> out;
    out.swap(m_deferred);
    return out;
}

void delivery_batch::note_failure(const QString& why) {
    if (m_metrics) {
        m_metrics->store_errors().inc();
        m_metrics->set_store_down(why);
    }
}
