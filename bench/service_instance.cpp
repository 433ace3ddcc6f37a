#include "bench/service_instance.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSettings>
#include <QTextStream>
#include <QUuid>
#include <csignal>

#include "app/logger.h"

namespace bench {

namespace {
QString token() {
    return QUuid::createUuid().toString(QUuid::Id128).left(10);
}
}  // namespace

service_instance::service_instance(const QString& broker_url, const QString& store_path)
    : m_store_path(store_path.isEmpty() ? m_dir.filePath("quillon.db") : store_path) {
    const QString run = token();
    m_route_key = "ul_bench_" + run;
    m_command_queue = "bench_cmd_" + run;
    m_command_key = "cmd.in.bench_" + run;
    const QString bin = QCoreApplication::applicationDirPath();
    set("GENERAL_SETTINGS", "LOG_FILE_PATH", m_dir.filePath("quillon.log"));
    set("GENERAL_SETTINGS", "UL_CLIENT_SEND", "true");
    set("GENERAL_SETTINGS", "R_UL_ROUTE_KEY", m_route_key);
    set("GENERAL_SETTINGS", "R_HISTORY_ROUTE_KEY", "ul_history_bench_" + run);
    set("AMQP_UL_SETTINGS", "R_LOGIN", broker_url);
    set("AMQP_UL_SETTINGS", "R_QUEUE", "bench_ul_" + run);
    set("AMQP_UL_CLIENT_SETTINGS", "R_LOGIN", broker_url);
    set("AMQP_API_SETTINGS", "R_LOGIN", broker_url);
    set("AMQP_API_SETTINGS", "R_QUEUE", m_command_queue);
    set("AMQP_API_SETTINGS", "R_BINDINGS", "norvik.api:" + m_command_key);
    set("PLUGIN_MANAGER_SETTINGS", "PLUGIN_PATH", bin);
    set("PLUGIN_MANAGER_SETTINGS", "PLUGIN_CONFIG_PATH", bin);
    set("PLUGIN_MANAGER_SETTINGS", "PLUGIN_DB_CONFIG_PATH", m_dir.path());
    set("PLUGIN_MANAGER_SETTINGS", "DB_NAME", "db_driver_sqlite");
    m_process.setWorkingDirectory(m_dir.path());
    // Errors still reach standard error; Qt's debug lines (plugin scan, "consume") do not.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("QT_LOGGING_RULES", "*.debug=false");
    m_process.setProcessEnvironment(environment);
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.setStandardOutputFile(QProcess::nullDevice());
}

service_instance::~service_instance() {
    if (running()) {
        stop();
    }
}

void service_instance::register_modem(int modem, const QString& protocol, const QString& hw_type,
                                      const QStringList& clients) {
    m_devices.insert(QString::number(modem), QJsonObject{{"protocol", protocol},
                                                         {"hw_type", hw_type},
                                                         {"clients", QJsonArray::fromStringList(clients)}});
}

void service_instance::set(const QString& group, const QString& key, const QString& value) {
    m_ini[group][key] = value;
}

rabbit_receiver_cfg service_instance::uplink_queue() {
    write_files();
    QSettings settings(m_dir.filePath("quillon.ini"), QSettings::IniFormat);
    const PMConfig pm = load_pm_config(settings);
    const EngineConfig engine =
        make_engine_config(load_general_settings(settings), 0, m_instances, m_position);
    return load_receiver_config(settings, pm, engine);
}

void service_instance::write_files() {
    QFile ini(m_dir.filePath("quillon.ini"));
    if (ini.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        QTextStream out(&ini);
        for (auto group = m_ini.cbegin(); group != m_ini.cend(); ++group) {
            out << "[" << group.key() << "]\n";
            for (auto entry = group.value().cbegin(); entry != group.value().cend(); ++entry) {
                out << entry.key() << "=\"" << entry.value() << "\"\n";
            }
        }
    }
    const bool postgres = !m_pg_conninfo.isEmpty();
    QFile store(m_dir.filePath(postgres ? "plug_db_driver_postgres.json" : "plug_db_driver_sqlite.json"));
    if (store.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        QJsonObject config = m_store_extra;
        if (postgres) {
            config["conninfo"] = m_pg_conninfo;
            config["schema"] = m_pg_schema;
        } else {
            config["path"] = m_store_path;
        }
        config["devices"] = m_devices;
        store.write(QJsonDocument(config).toJson());
    }
}

bool service_instance::start() {
    write_files();
    const QString service = QCoreApplication::applicationDirPath() + "/quillon";
    const QStringList arguments{"-c", m_dir.filePath("quillon.ini"), "-i", QString::number(m_instances),
                                "-n", QString::number(m_position)};
    // A profiler in front of the service (e.g. "valgrind --tool=callgrind"): it must keep
    // the service's process id (exec, not fork) so that its CPU is still counted.
    QStringList wrapper =
        QString::fromLocal8Bit(qgetenv("QUILLON_BENCH_SERVICE_WRAPPER")).split(' ', Qt::SkipEmptyParts);
    if (wrapper.isEmpty()) {
        m_process.start(service, arguments);
    } else {
        const QString program = wrapper.takeFirst();
        m_process.start(program, wrapper + QStringList{service} + arguments);
    }
    return m_process.waitForStarted(10000);
}

void service_instance::use_postgres(const QString& conninfo, const QString& schema) {
    m_pg_conninfo = conninfo;
    m_pg_schema = schema;
    set("PLUGIN_MANAGER_SETTINGS", "DB_NAME", "db_driver_postgres");
}

int service_instance::stop() {
    if (running()) {
        ::kill(pid(), SIGTERM);
    }
    if (m_process.state() != QProcess::NotRunning && !m_process.waitForFinished(30000)) {
        m_process.kill();
        m_process.waitForFinished(5000);
        return -1;
    }
    return m_process.exitCode();
}

void service_instance::kill_now() {
    if (running()) {
        ::kill(pid(), SIGKILL);
    }
    m_process.waitForFinished(10000);
}

QString service_instance::log_tail(int chars) const {
    QFile file(m_dir.filePath("quillon.log"));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).right(chars) : QString();
}

}  // namespace bench
