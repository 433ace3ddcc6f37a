#include "bench/store_fill.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <exception>

#include "plugins/PluginsManager.h"

namespace bench {

namespace {

const QStringList obis_codes = {
    "volume", "volume_due",  "energy",         "flow_temperature", "return_temperature",
    "power",  "volume_flow", "operating_time", "datetime",         "error_flags"};
constexpr int reading_interval_s = 900;

class reading_writer {
public:
    reading_writer(interfaces::IRecordStore& records, int batch) : m_records(records), m_batch(batch) {}
    ~reading_writer() { flush(); }

    // One reading: a value per OBIS code.
    void add(int modem, const QDateTime& time, int64_t round) {
        const QString message_id = QString::number(uint64_t(modem) * 1000003u + uint64_t(round), 16);
        for (int i = 0; i < obis_codes.size(); ++i) {
            model::dev_value v;
            v.modem_id = modem;
            v.timestamp = time;
            v.obis_code = obis_codes[i];
            v.tag = "mbus";
            v.value = double(round * 7 + i) / 10.0;
            v.message_id = message_id;
            v.ttl = time.addDays(365 * 5);
            m_pending.append(v);
        }
        m_rows += uint64_t(obis_codes.size());
        if (m_pending.size() >= m_batch) {
            flush();
        }
    }
    void flush() {
        if (!m_pending.isEmpty()) {
            m_records.save_values(m_pending);
            m_pending.clear();
        }
    }
    uint64_t rows() const { return m_rows; }

private:
    interfaces::IRecordStore& m_records;
    int m_batch;
    QList<model::dev_value> m_pending;
    uint64_t m_rows = 0;
};

model::ul_message stored_uplink(int modem, const QDateTime& time, int round) {
    model::ul_message m;
    m.modem_id = modem;
    m.station_id = 1000 + modem % 37;
    m.timestamp = m.time_detected = time;
    m.ttl = time.addDays(365);
    m.phy = "lora";
    m.snr = 9;
    m.rssi = -97;
    m.tag = "mbus";
    m.unique_id = int64_t(modem) * 1000003 + round;
    m.data = QJsonDocument(QJsonObject{{"records", 10}, {"status", 0}});
    m.parse_status = "parsed";
    m.hw_type = "mbus-heat";
    m.protocol = "proto7";
    m.payload = QByteArray::fromHex("7a01000000041300000000441300000000040600000000025a8a02025e9001032bb004");
    m.iterator = round;
    return m;
}

void save_uplinks(PluginsManager& plugins, const store_fill_options& options, const QDateTime& start,
                  store_fill_result& result) {
    auto messages = plugins.messages_database();
    auto& records = plugins.eav_database()->records();
    auto state = plugins.state_database();
    const QByteArray common =
        QJsonDocument(QJsonObject{{"dl_mode", "class_a"}, {"station_id", 1001}}).toJson();
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < options.saves; ++i) {
        const int modem = options.first_modem + i % options.modems;
        const QDateTime time = start.addSecs(i);
        const model::ul_message message = stored_uplink(modem, time, i);
        messages->ul().save(message);
        reading_writer values(records, obis_codes.size());
        values.add(modem, time, i);
        values.flush();
        state->begin(modem);
        state->set(modem, "common", common);
        state->end(modem, 0);
    }
    result.saves = options.saves;
    result.save_s = double(timer.nsecsElapsed()) / 1e9;
    result.saves_per_s = result.save_s > 0 ? options.saves / result.save_s : 0;
}

}  // namespace

store_fill_result fill_store(const store_fill_options& options, logger& log) {
    store_fill_result result;
    result.heavy_modem = options.first_modem;
    QTemporaryDir config_dir;
    {
        QFile file(config_dir.filePath("plug_db_driver_sqlite.json"));
        file.open(QIODevice::WriteOnly);
        file.write(QJsonDocument(QJsonObject{{"path", options.path}, {"purge_interval", 0}}).toJson());
    }
    PMConfig pm;
    pm.db_name = "db_driver_sqlite";
    pm.plugin_path = pm.plugin_config_path = QCoreApplication::applicationDirPath();
    pm.plugin_db_config_path = config_dir.path();
    try {
        PluginsManager plugins(pm, log);
        auto& records = plugins.eav_database()->records();
        const int modems = qMax(1, options.modems);
        const uint64_t readings = options.rows / uint64_t(obis_codes.size());
        const int64_t rounds =
            qMax<int64_t>(1, int64_t((readings + uint64_t(modems) - 1) / uint64_t(modems)));
        // The first modem's extra readings fall between the regular ones.
        const int64_t heavy_readings = options.heavy_rows / obis_codes.size();
        const int64_t extra = qMax<int64_t>(0, heavy_readings - rounds);
        const int64_t extra_per_round = (extra + rounds - 1) / rounds;
        const QDateTime start = QDateTime::currentDateTimeUtc().addSecs(-(rounds + 96) * reading_interval_s);

        QElapsedTimer timer;
        timer.start();
        reading_writer writer(records, options.batch);
        uint64_t written = 0;
        int64_t extra_left = extra;
        for (int64_t round = 0; round < rounds && written < readings; ++round) {
            const QDateTime time = start.addSecs(round * reading_interval_s);
            for (int m = 0; m < modems && written < readings; ++m, ++written) {
                writer.add(options.first_modem + m, time, round);
            }
            for (int64_t k = 0; k < extra_per_round && extra_left > 0; ++k, --extra_left) {
                const int64_t offset = (k + 1) * reading_interval_s / (extra_per_round + 1);
                writer.add(options.first_modem, time.addSecs(offset), round);
            }
        }
        writer.flush();
        result.rows = writer.rows();
        result.fill_s = double(timer.nsecsElapsed()) / 1e9;
        result.rows_per_s = result.fill_s > 0 ? double(result.rows) / result.fill_s : 0;

        save_uplinks(plugins, options, start.addSecs(rounds * reading_interval_s), result);
        result.ok = true;
    } catch (const std::exception& e) {
        result.error = QString("store: ") + e.what();
    } catch (const QString& text) {
        result.error = "store: " + text;
    }
    result.file_mib = double(QFileInfo(options.path).size()) / (1024.0 * 1024.0);
    return result;
}

}  // namespace bench
