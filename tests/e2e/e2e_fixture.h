#pragma once

// A test fixture that runs the quillon process against the private broker and talks to it
// as a client application does: commands with a "sender" key, responses read from a queue
// bound to that key, uplinks published on the uplink routing key.

#include <gtest/gtest.h>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QUuid>
#include <memory>

#include "tests/support/postgres_server.h"
#include "tests/support/service_harness.h"

namespace e2e {

// Time of detection of the test uplinks (2030-03-17); values and events carry it as their
// timestamp, and every record lives a year beyond it.
constexpr qint64 detected_at = 1900000000;

// CI 0x78 (no header), one record: DIF 0x04 (32-bit integer), VIF 0x13 (volume in litres).
inline QString volume_payload(quint32 litres) {
    QByteArray bytes("\x78\x04\x13", 3);
    for (int shift = 0; shift < 32; shift += 8) {
        bytes.append(char((litres >> shift) & 0xff));
    }
    return QString::fromLatin1(bytes.toHex());
}

// CI 0x7A short header (access number 1, status byte `status`, configuration 0) followed by
// the same volume record.
inline QString short_header_payload(quint8 status, quint32 litres) {
    const QString header = QString("7a01%1").arg(uint(status), 2, 16, QChar('0')) + "0000";
    return header + volume_payload(litres).mid(2);
}

inline QJsonArray ids(std::initializer_list<int> modems) {
    QJsonArray array;
    for (int id : modems) {
        array.append(id);
    }
    return array;
}

inline QString key_of(int modem) {
    return QString::number(modem);
}

class service_test : public ::testing::Test {
protected:
    // Settings of the service before it starts (INI keys, database configuration).
    virtual void configure(service_process&) {}
    // The command line's instance count and position.
    virtual std::pair<int, int> instance() const { return {1, 0}; }

    void SetUp() override {
        // Modem ids of this test alone: every service on the broker sees the uplinks.
        m_modem = QRandomGenerator::global()->bounded(100000, 1000000000);
        m_log = std::make_unique<logger>(m_dir.filePath("test.log"), Debug, "test");
        m_service.set("AMQP_API_SETTINGS", "SS_API_KEY", api_key);
        configure(m_service);
        ASSERT_TRUE(m_service.start(instance().first, instance().second)) << m_service.log().toStdString();
        m_reply_key = unique_name("reply");
        m_replies = std::make_unique<probe>(QStringList{m_reply_key});
        ASSERT_TRUE(m_replies->wait_ready());
        m_sender = std::make_unique<sender>(*m_log);
        ASSERT_TRUE(m_sender->wait_ready());
    }

    // The i-th modem id of this test.
    int modem(int i = 0) const { return m_modem + i; }

    // A client name of this test alone, so that its publications reach only its probes.
    QString client(const QString& name) const { return name + "_" + QString::number(m_modem); }

    // The "devices" seed entry of a modem of the driver's protocol.
    static QJsonObject device(const QString& hw_type, const QStringList& clients = {}) {
        QJsonObject entry{{"protocol", "proto7"}, {"hw_type", hw_type}};
        if (!clients.isEmpty()) {
            entry["clients"] = QJsonArray::fromStringList(clients);
        }
        return entry;
    }

    // Publishes an envelope and returns the whole response with its cmd_id, or an empty
    // object (and a failure) when none came.
    QJsonObject exchange(const QJsonObject& envelope, sender* via = nullptr) {
        const size_t before = m_replies->messages().size();
        const QString cmd_id = envelope.value("cmd_id").toString();
        (via ? *via : *m_sender).publish(m_service.command_key(), envelope);
        const auto answered = [&] {
            for (size_t i = before; i < m_replies->messages().size(); ++i) {
                if (m_replies->messages()[i].json().value("cmd_id").toString() == cmd_id) {
                    return true;
                }
            }
            return false;
        };
        if (!wait_until(answered)) {
            ADD_FAILURE() << "no response to " << envelope.value("msg_type").toString().toStdString() << "\n"
                          << m_service.log().right(3000).toStdString();
            return {};
        }
        for (size_t i = before; i < m_replies->messages().size(); ++i) {
            const QJsonObject response = m_replies->messages()[i].json();
            if (response.value("cmd_id").toString() == cmd_id) {
                return response;
            }
        }
        return {};
    }

    // Sends a command and returns the response's data.
    QJsonObject call(const QString& type, const QJsonObject& data) {
        return exchange(command(type, data, m_reply_key)).value("data").toObject();
    }

    // Publishes a command that must not be answered, then a "get_info" behind it. Commands
    // are served one at a time in arrival order, so once the get_info response is here
    // the first command has been dealt with; true when it got no response.
    bool unanswered(const QJsonObject& envelope) {
        m_replies->clear();
        m_sender->publish(m_service.command_key(), envelope);
        const QJsonObject info = exchange(command("get_info", {}, m_reply_key));
        return !info.isEmpty() && m_replies->messages().size() == 1;
    }

    // An application uplink of a modem on the uplink routing key.
    void publish_uplink(int modem_id, const QString& payload, int iterator,
                        qint64 time_detected = detected_at, const QString& hw_type = "X") {
        m_sender->publish(QString("nc.0.ul.marl2.proto7.%1").arg(modem_id),
                          QJsonObject{{"msg_type", "ul_app"},
                                      {"modem_id", modem_id},
                                      {"protocol", "proto7"},
                                      {"hw_type", hw_type},
                                      {"payload", payload},
                                      {"iterator", iterator},
                                      {"station_id", 5},
                                      {"time_detected", time_detected}});
    }

    // Waits until the service has accepted `count` uplinks of the modem.
    bool accepted(int modem_id, int count) {
        const QRegularExpression line(QString(" accepted: [^\\n]*\"modem_id\":%1[,}]").arg(modem_id));
        const bool done = wait_until([&] { return m_service.log().count(line) >= count; });
        if (!done) {
            ADD_FAILURE() << "uplinks of " << modem_id << " not accepted\n"
                          << m_service.log().right(3000).toStdString();
        }
        return done;
    }

    // Messages of a probe bound to "cmd.in.netcore" that this service sent: other
    // services on the broker send to the network server too.
    std::vector<QJsonObject> own_commands(const probe& netcore) const {
        std::vector<QJsonObject> own;
        for (const received& message : netcore.messages()) {
            const QJsonObject json = message.json();
            if (json.value("sender").toString() == m_service.command_key()) {
                own.push_back(json);
            }
        }
        return own;
    }

    bool wait_own_commands(const probe& netcore, size_t count) {
        return wait_until([&] { return own_commands(netcore).size() >= count; });
    }

    static constexpr const char* api_key = "e2e-api-key";

    QTemporaryDir m_dir;
    std::unique_ptr<logger> m_log;
    service_process m_service;
    QString m_reply_key;
    std::unique_ptr<probe> m_replies;
    std::unique_ptr<sender> m_sender;

private:
    int m_modem = 0;
};

// The same cases against each database plugin.
class database_test : public service_test, public ::testing::WithParamInterface<const char*> {
protected:
    // Selects the plugin of the parameter, seeded with the given registry entries.
    void use_database(service_process& service, const QJsonObject& devices) {
        QJsonObject configuration{{"devices", devices}};
        if (QString(GetParam()) == "db_driver_sqlite") {
            configuration["path"] = m_dir.filePath("quillon.db");
            configuration["purge_interval"] = 0;
        }
        if (QString(GetParam()) == "db_driver_postgres") {
            // A schema of the test's own on the private server.
            configuration["conninfo"] = pg_test::conninfo();
            configuration["schema"] = pg_test::unique_schema("e2e");
            configuration["purge_interval"] = 0;
        }
        service.set_database(GetParam(), configuration);
    }
};

inline auto database_plugins() {
    return ::testing::Values("db_driver_dummy", "db_driver_sqlite", "db_driver_postgres");
}

// "dummy", "sqlite" and "postgres" as test name suffixes.
inline std::string database_label(const ::testing::TestParamInfo<const char*>& info) {
    return QString(info.param).section('_', 2).toStdString();
}

}  // namespace e2e
