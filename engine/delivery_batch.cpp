#include "engine/delivery_batch.h"

#include <algorithm>
#include <exception>

#include "interfaces/IStoreLink.h"

void delivery_batch::add_store(interfaces::IWriteBatch* store) {
    if (store && std::find(m_stores.begin(), m_stores.end(), store) == m_stores.end()) {
        m_stores.push_back(store);
    }
}

void delivery_batch::begin_unit() {
    if (!enabled()) {
        return;
    }
    if (!m_open) {
        for (auto* store : m_stores) {
            store->begin_batch();
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

bool delivery_batch::commit(QString* error, bool* unavailable) {
    if (unavailable) {
        *unavailable = false;
    }
    if (!m_open) {
        return true;
    }
    m_open = false;
    m_depth = 0;
    QString failure;
    for (auto* store : m_stores) {
        try {
            store->commit_batch();
        } catch (const interfaces::store_unavailable& e) {
            failure = QString::fromUtf8(e.what());
            if (unavailable) {
                *unavailable = true;
            }
        } catch (const std::exception& e) {
            failure = QString::fromUtf8(e.what());
        }
    }
    if (error) {
        *error = failure;
    }
    return failure.isEmpty();
}

std::vector<delivery_batch::delivery> delivery_batch::take_deferred() {
    std::vector<delivery> out;
    out.swap(m_deferred);
    return out;
}
