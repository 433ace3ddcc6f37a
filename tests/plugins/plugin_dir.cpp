#include "tests/plugins/plugin_dir.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>

plugin_dir::plugin_dir() {
    EXPECT_TRUE(m_dir.isValid());
    m_log = std::make_unique<logger>(m_dir.filePath("test.log"), Debug, "test");
}

void plugin_dir::copy(const QString& from, const QString& name) {
    ASSERT_TRUE(QFile::copy(from, file(name))) << "cannot copy " << from.toStdString();
}

void plugin_dir::add_driver(const QString& name, const QByteArray& json) {
    copy(QUILLON_TEST_DRIVER, name);
    if (!json.isEmpty()) {
        write(QFileInfo(name).baseName() + ".json", json);
    }
}

void plugin_dir::add_database(const QString& name, const QByteArray& json) {
    copy(QString(QUILLON_BIN_DIR) + "/plug_db_driver_dummy.so", name);
    if (!json.isEmpty()) {
        write(QFileInfo(name).baseName() + ".json", json);
    }
}

void plugin_dir::write(const QString& name, const QByteArray& text) {
    const QString target = file(name);
    QDir().mkpath(QFileInfo(target).absolutePath());
    QFile out(target);
    ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
    out.write(text);
}

PMConfig plugin_dir::config() const {
    PMConfig config;
    config.plugin_path = path();
    config.plugin_config_path = path();
    config.plugin_db_config_path = path();
    return config;
}

QString plugin_dir::log_text() const {
    QFile in(m_dir.filePath("test.log"));
    in.open(QIODevice::ReadOnly);
    return QString::fromUtf8(in.readAll());
}

namespace {
QMutex captured_mutex;
QStringList captured;
QtMessageHandler previous_handler = nullptr;

void capture(QtMsgType, const QMessageLogContext&, const QString& text) {
    QMutexLocker lock(&captured_mutex);
    captured.append(text);
}
}  // namespace

debug_capture::debug_capture() {
    QMutexLocker lock(&captured_mutex);
    captured.clear();
    previous_handler = qInstallMessageHandler(capture);
}

debug_capture::~debug_capture() {
    qInstallMessageHandler(previous_handler);
}

QStringList debug_capture::lines() const {
    QMutexLocker lock(&captured_mutex);
    return captured;
}

bool debug_capture::any_contains(const QString& text) const {
    for (const QString& line : lines()) {
        if (line.contains(text)) {
            return true;
        }
    }
    return false;
}

QJsonObject driver_report(PluginsManager& manager, int ttl, int position) {
    auto sender = [](const model::dl_message& message) { return QJsonObject{{"to", message.modem_id}}; };
    auto driver =
        manager.create_driver(manager.messages_database(), manager.eav_database(), sender, ttl, position);
    return driver ? driver->custom_query({}) : QJsonObject();
}
