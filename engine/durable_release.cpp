#include "engine/durable_release.h"

#include "interfaces/IDurableCommits.h"

void durable_release::after_commit(std::vector<action> actions) {
    if (actions.empty()) {
        return;
    }
    entry e;
    e.ticket = m_source ? m_source->commit_ticket() : 0;
    e.actions = std::move(actions);
    m_waiting.push_back(std::move(e));
}

bool durable_release::run_durable() {
    if (m_running) {
        return false;  // the outer call goes on with the rest, in order
    }
    m_running = true;
    bool ran = false;
    const quint64 durable = m_source ? m_source->durable_ticket() : 0;
    while (!m_waiting.empty() && m_waiting.front().ticket <= durable) {
        entry e = std::move(m_waiting.front());
        m_waiting.pop_front();
        for (const action& run : e.actions) {
            run();
        }
        ran = true;
    }
    m_running = false;
    return ran;
}

bool durable_release::wait_all() {
    // Up to the store's last commit, also when that commit let nothing out itself.
    return !m_source || m_source->wait_durable(m_source->commit_ticket());
}
