#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QString>
#include <memory>

#include "app/logger.h"
#include "interfaces/IDriver.h"
#include "model/meter_link.h"
#include "plugins/PluginsManager.h"

struct decode_options {
    QString plugin_dir;
    QString protocol = "proto7";
    QString instance = "marl2";
    int modem_id = 0;
    QDateTime time_detected;  // invalid: now
    int ttl_seconds = 365 * 86400;
    // The modem's meter address and key, as a registry entry has them (encrypted meters).
    model::meter_link meter;
};

// A protocol driver loaded through the plugin manager, with the in-memory database
// plugin for its stores, decoding payloads as the engine would.
class decode_session {
public:
    // Throws no_devive_type_implemented or std::runtime_error when the plugins are missing.
    explicit decode_session(const decode_options& options);

    // {"payload", "message", "values", "events"} for one payload.
    QJsonObject decode(const QByteArray& payload);

private:
    decode_options m_options;
    logger m_log;
    std::unique_ptr<PluginsManager> m_plugins;
    std::shared_ptr<interfaces::IDriver> m_driver;
};
