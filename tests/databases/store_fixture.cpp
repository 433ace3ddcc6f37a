#include "tests/databases/store_fixture.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include "tests/support/postgres_server.h"

namespace {

constexpr qint64 base_time = 1700000000;

// The scan of the bin directory is chatty; keep warnings, drop debug lines.
QtMessageHandler previous_handler = nullptr;
void quiet(QtMsgType type, const QMessageLogContext& context, const QString& text) {
    if (type != QtDebugMsg && previous_handler) {
        previous_handler(type, context, text);
    }
}

}  // namespace

void StoreSuite::SetUp() {
    ASSERT_TRUE(m_dir.isValid());
    const QJsonObject seed{
        {"77", QJsonObject{{"protocol", "proto7"}, {"hw_type", "X"}, {"clients", QJsonArray{"c1", "c2"}}}}};
    QJsonObject configuration{{"path", m_dir.filePath("store.db")}, {"devices", seed}};
    if (QString(GetParam()).contains("postgres")) {
        // A schema of the test's own on the private server.
        configuration["conninfo"] = pg_test::conninfo();
        configuration["schema"] = pg_test::unique_schema("suite");
        configuration["purge_interval"] = 0;
    }
    QFile file(m_dir.filePath("database.json"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QJsonDocument(configuration).toJson());
    file.close();

    PMConfig config;
    config.db_name = GetParam();
    config.plugin_path = QUILLON_BIN_DIR;
    config.plugin_config_path = m_dir.path();  // no driver is configured
    config.plugin_db_config_path = file.fileName();
    m_log = std::make_unique<logger>(m_dir.filePath("test.log"), Debug, "store");
    previous_handler = qInstallMessageHandler(quiet);
    m_manager = std::make_unique<PluginsManager>(config, *m_log);
    qInstallMessageHandler(previous_handler);

    // Guards against the fallback plugin standing in for a missing one.
    ASSERT_EQ(QFileInfo(m_manager->database_plugin_path()).fileName(), QString(GetParam()) + ".so");
    messages = m_manager->messages_database();
    eav = m_manager->eav_database();
    state = m_manager->state_database();
    clients = m_manager->clients_database();
}

void StoreSuite::TearDown() {
    messages.reset();
    eav.reset();
    state.reset();
    clients.reset();
    m_manager.reset();
}

QDateTime StoreSuite::at(int seconds) {
    return QDateTime::fromSecsSinceEpoch(base_time + seconds, Qt::UTC);
}

QDateTime StoreSuite::hours_from_now(int hours) {
    const QDateTime now = QDateTime::currentDateTimeUtc();
    return QDateTime::fromSecsSinceEpoch(now.toSecsSinceEpoch() + hours * 3600, Qt::UTC);
}

model::ul_message StoreSuite::uplink(int modem, int seconds, qint64 unique_id, const QString& tag) {
    model::ul_message message;
    message.modem_id = modem;
    message.timestamp = at(seconds);
    message.time_detected = at(seconds);
    message.unique_id = unique_id;
    message.tag = tag;
    message.protocol = "proto7";
    message.hw_type = "X";
    return message;
}

model::dl_message StoreSuite::downlink(int modem, int seconds, int timeout) {
    model::dl_message message;
    message.modem_id = modem;
    message.timestamp = at(seconds);
    message.timeout = timeout;
    return message;
}

model::dev_value StoreSuite::value(int modem, int seconds, const QString& obis, const QString& tag,
                                   double number) {
    model::dev_value record;
    record.modem_id = modem;
    record.timestamp = at(seconds);
    record.obis_code = obis;
    record.tag = tag;
    record.value = number;
    record.message_id = QString("m%1").arg(seconds);
    return record;
}

model::dev_event StoreSuite::event(int modem, int seconds, int code, int parameter) {
    model::dev_event record;
    record.modem_id = modem;
    record.timestamp = at(seconds);
    record.event_code = code;
    record.parameter = parameter;
    record.message_id = QString("m%1").arg(seconds);
    return record;
}

model::per_modem<model::ul_message> StoreSuite::roll_of(const model::roll_query& query) {
    model::per_modem<model::ul_message> out;
    messages->ul().get_roll(out, query);
    return out;
}

model::per_modem<model::dev_value> StoreSuite::values_of(const model::value_query& query) {
    model::per_modem<model::dev_value> out;
    eav->records().get_values(out, query);
    return out;
}

model::per_modem<model::dev_event> StoreSuite::events_of(const model::value_query& query) {
    model::per_modem<model::dev_event> out;
    eav->records().get_events(out, query);
    return out;
}
