#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include "app/logger.h"
#include "interfaces/IStoreLink.h"

// Keeps track of a store whose server went away: logs the outage once, polls the link on
// a back-off timer (never waiting on the network itself) and says when it is back.
class store_watch : public QObject {
    Q_OBJECT
public:
    static constexpr int first_delay_ms = 250;
    static constexpr int longest_delay_ms = 5000;
    // A connection being made is advanced this often: its steps must not wait out the
    // back-off, or its own time-out ends it before it is up.
    static constexpr int connecting_step_ms = 20;

    // `link` may be null (a store without one): then the watch only waits out the
    // back-off and lets the owner try again.
    store_watch(interfaces::IStoreLink* link, logger& log, QObject* parent = nullptr);
    Q_DISABLE_COPY(store_watch)

    bool away() const { return m_away; }
    // A store operation threw store_unavailable: from now on the store is away until
    // the link is up again. Repeated calls during one outage change nothing.
    void lost(const QString& what);

Q_SIGNALS:
    // The link is up again (logged once).
    void returned();

private Q_SLOTS:
    void poll();

private:
    interfaces::IStoreLink* m_link = nullptr;
    logger& m_log;
    QTimer m_timer;
    QElapsedTimer m_since;
    int m_delay_ms = first_delay_ms;
    bool m_away = false;
};
