#include "engine/delivery_batch.h"

#include <algorithm>
#include <exception>

void delivery_batch::add_store(interfaces::IWriteBatch* store) {
    if (store && std::find(m_stores.begin(), m_stores.end(), store) == m_stores.end()) {
        m_stores.push_back(store);
    }
}

void delivery_batch::begin_message() {
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

void delivery_batch::end_message(bool keep) {
    if (!m_open || m_depth == 0) {
        return;
    }
    --m_depth;
    for (auto* store : m_stores) {
        store->end_item(keep);
    }
}

void delivery_batch::commit(const settle_fn& settle, const failure_fn& failed) {
    if (!m_open) {
        return;
    }
    m_open = false;
    m_depth = 0;
    std::vector<delivery> deferred;
    deferred.swap(m_deferred);
    QString error;
    for (auto* store : m_stores) {
        try {
            store->commit_batch();
        } catch (const std::exception& e) {
            error = QString::fromUtf8(e.what());
        }
    }
    for (const delivery& d : deferred) {
        if (error.isEmpty()) {
            settle(d);
        } else {
            failed(d, error);
        }
    }
}
