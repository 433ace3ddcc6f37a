#include "databases/dummy/memory_state.h"

#include <QDebug>

#include "databases/common/state_value.h"

model::dl_queues memory_queues::load(int modem_id) {
    const auto it = m_data.queues.find(modem_id);
    return it == m_data.queues.end() ? model::dl_queues() : it->second;
}

void memory_queues::save(int modem_id, const model::dl_queues& queues, int) {
    m_data.queues[modem_id] = queues;
}

void memory_state::begin(int modem_id) {
    ++m_data.open_changes[modem_id];
}

void memory_state::end(int modem_id, int flag) {
    auto it = m_data.open_changes.find(modem_id);
    if (it == m_data.open_changes.end()) {
        qWarning() << "driver state: end without begin for modem" << modem_id;
    } else if (--it->second == 0) {
        m_data.open_changes.erase(it);
    }
    m_data.marks[modem_id] = flag;
}

void memory_state::remove(int modem_id) {
    m_data.states.erase(modem_id);
    m_data.marks.erase(modem_id);
}

QJsonValue memory_state::get(int modem_id, const QString& key) {
    const auto it = m_data.states.find(modem_id);
    return it == m_data.states.end() ? QJsonValue(QJsonValue::Undefined) : it->second.value(key);
}

void memory_state::set(int modem_id, const QString& key, const interfaces::state_value& value) {
    QJsonObject& state = m_data.states[modem_id];
    // An undefined value removes the entry, as QJsonObject itself does.
    state.insert(key, db_common::state_value_json(value));
    if (state.isEmpty()) {
        m_data.states.erase(modem_id);
    }
}

QJsonObject memory_state::state(int modem_id) {
    const auto it = m_data.states.find(modem_id);
    return it == m_data.states.end() ? QJsonObject() : it->second;
}

int memory_state::mark(int modem_id) {
    const auto it = m_data.marks.find(modem_id);
    return it == m_data.marks.end() ? 0 : it->second;
}

QList<int> memory_state::modems_with_state() {
    QList<int> out;
    for (const auto& [modem, state] : m_data.states) {
        out.append(modem);
    }
    return out;
}

void memory_state::save(int modem_id, const QJsonObject& state) {
    if (state.isEmpty()) {
        m_data.states.erase(modem_id);
    } else {
        m_data.states[modem_id] = state;
    }
}

QList<int> memory_state::ids(const QString& hw_type, const QString& protocol) {
    QList<int> out;
    for (const auto& [modem, device] : m_data.devices) {
        if ((hw_type == "*" || device.hw_type == hw_type) &&
            (protocol == "*" || device.protocol == protocol)) {
            out.append(modem);
        }
    }
    return out;
}

int memory_state::list_modems(QList<int>& out, int offset, int limit) {
    out.clear();
    int total = 0;
    const int first = qMax(offset, 0);
    for (const auto& [modem, queues] : m_data.queues) {
        if (queues.dl.empty()) {
            continue;
        }
        if (total >= first && (limit <= 0 || out.size() < limit)) {
            out.append(modem);
        }
        ++total;
    }
    return total;
}

std::shared_ptr<void> memory_state::lock(int modem_id) {
    std::shared_ptr<std::map<int, int>> table = m_data.locks;
    ++(*table)[modem_id];
    return std::shared_ptr<void>(table.get(), [table, modem_id](void*) {
        auto it = table->find(modem_id);
        if (it != table->end() && --it->second == 0) {
            table->erase(it);
        }
    });
}
