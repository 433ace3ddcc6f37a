#include "engine/store_watch.h"

#include <algorithm>

store_watch::store_watch(interfaces::IStoreLink* link, logger& log, QObject* parent)
    : QObject(parent), m_link(link), m_log(log) {
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &store_watch::poll);
}

void store_watch::lost(const QString& what) {
    if (m_away) {
        return;
    }
    m_away = true;
    m_since.start();
    m_delay_ms = first_delay_ms;
    QString reason = m_link ? m_link->link_error() : QString();
    if (reason.isEmpty()) {
        reason = what;
    }
    log_line(m_log, Error) << "store unavailable: " << reason;
    m_timer.start(m_delay_ms);
}

void store_watch::poll() {
    if (!m_away) {
        return;
    }
    using state = interfaces::IStoreLink::link_state;
    const state now = m_link ? m_link->poll_link() : state::up;
    if (now == state::connecting) {
        m_timer.start(connecting_step_ms);
        return;
    }
    if (now == state::down) {
        m_delay_ms = std::min(m_delay_ms * 2, longest_delay_ms);
        m_timer.start(m_delay_ms);
        return;
    }
    m_away = false;
    // Warning, not Info: whoever saw the outage's Error line needs to see its end too
    // whenever the log shows more than errors.
    log_line(m_log, Warning) << "store available again after "
                             << QString::number(m_since.elapsed() / 1000.0, 'f', 1) << " s";
    Q_EMIT returned();
}
