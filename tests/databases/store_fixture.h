#pragma once

#include <gtest/gtest.h>

#include <QDateTime>
#include <QTemporaryDir>
#include <map>
#include <memory>
#include <vector>

#include "app/logger.h"
#include "plugins/PluginsManager.h"

// One database plugin, loaded afresh for every test with a configuration of its own: a
// new file under "path" (for plugins that keep their data in a file) and a "devices"
// seed holding modem 77 (protocol "proto7", hw_type "X", clients "c1" and "c2").
class StoreSuite : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override;
    void TearDown() override;

    // A fixed whole-second time: the base time plus `seconds`.
    static QDateTime at(int seconds);
    static QDateTime hours_from_now(int hours);

    static model::ul_message uplink(int modem, int seconds, qint64 unique_id, const QString& tag = "t");
    static model::dl_message downlink(int modem, int seconds, int timeout);
    static model::dev_value value(int modem, int seconds, const QString& obis, const QString& tag,
                                  double number);
    static model::dev_event event(int modem, int seconds, int code, int parameter);

    // Each query into a result of its own.
    model::per_modem<model::ul_message> roll_of(const model::roll_query& query);
    model::per_modem<model::dev_value> values_of(const model::value_query& query);
    model::per_modem<model::dev_event> events_of(const model::value_query& query);

    std::shared_ptr<interfaces::IMessagesDatabase> messages;
    std::shared_ptr<interfaces::IEAVDatabase> eav;
    std::shared_ptr<interfaces::IDriverState> state;
    std::shared_ptr<interfaces::IDeviceClientsDatabase> clients;

private:
    QTemporaryDir m_dir;
    std::unique_ptr<logger> m_log;
    std::unique_ptr<PluginsManager> m_manager;
};

// What a per-modem result holds, reduced to one identifying number per record.
using id_map = std::map<int, std::vector<qint64>>;

template <class T, class KeyOf>
id_map ids_of(const model::per_modem<T>& result, KeyOf key_of) {
    id_map out;
    for (const auto& [modem, records] : result) {
        for (const T& record : records) {
            out[modem].push_back(key_of(record));
        }
    }
    return out;
}
