#include "databases/postgres/pg_config.h"

#include <libpq-fe.h>

#include <QDebug>
#include <QJsonValue>
#include <QRegularExpression>
#include <stdexcept>

namespace postgres_db {
namespace {

[[noreturn]] void refuse(const QString& text) {
    throw std::runtime_error(QString("PostgreSQL store: %1").arg(text).toStdString());
}

int non_negative(const QJsonObject& o, const char* key, int fallback) {
    const QJsonValue v = o.value(key);
    if (v.isUndefined())
        return fallback;
    if (!v.isDouble() || v.toInt(-1) < 0) {
        qWarning() << "PostgreSQL store: configuration key" << key << "is not a non-negative number; using"
                   << fallback;
        return fallback;
    }
    return v.toInt();
}

void put(std::vector<std::pair<QByteArray, QByteArray>>& params, const QByteArray& key,
         const QByteArray& value) {
    for (auto& [k, v] : params) {
        if (k == key) {
            v = value;
            return;
        }
    }
    params.emplace_back(key, value);
}

void put_default(std::vector<std::pair<QByteArray, QByteArray>>& params, const QByteArray& key,
                 const QByteArray& value) {
    for (const auto& entry : params)
        if (entry.first == key)
            return;
    params.emplace_back(key, value);
}

// The keys libpq takes from "conninfo", as given.
std::vector<std::pair<QByteArray, QByteArray>> parse_conninfo(const QString& conninfo) {
    std::vector<std::pair<QByteArray, QByteArray>> params;
    if (conninfo.isEmpty())
        return params;
    char* error = nullptr;
    PQconninfoOption* options = PQconninfoParse(conninfo.toUtf8().constData(), &error);
    if (!options) {
        const QString text = error ? QString::fromUtf8(error).trimmed() : QString("out of memory");
        PQfreemem(error);
        refuse("\"conninfo\" cannot be read: " + text);
    }
    for (PQconninfoOption* o = options; o->keyword; ++o)
        if (o->val && *o->val)
            params.emplace_back(o->keyword, o->val);
    PQconninfoFree(options);
    return params;
}

partition_unit unit_from(const QJsonValue& v) {
    const QString text = v.toString("month");
    if (text == "month")
        return partition_unit::month;
    if (text == "week")
        return partition_unit::week;
    if (text == "day")
        return partition_unit::day;
    refuse(QString("\"partition\" must be \"month\", \"week\" or \"day\", not \"%1\"").arg(text));
}

}  // namespace

pg_config pg_config::from_json(const QJsonObject& o) {
    pg_config c;
    c.parameters = parse_conninfo(o.value("conninfo").toString());
    for (const char* key : {"host", "dbname", "user", "password"}) {
        const QJsonValue v = o.value(key);
        if (v.isString())
            put(c.parameters, key, v.toString().toUtf8());
    }
    const QJsonValue port = o.value("port");
    if (port.isDouble())
        put(c.parameters, "port", QByteArray::number(port.toInt()));
    else if (port.isString())
        put(c.parameters, "port", port.toString().toUtf8());

    const QString schema = o.value("schema").toString(c.schema);
    // The schema is named in statements and in the session's search path: only plain
    // identifiers are taken, so it never needs quoting or escaping.
    static const QRegularExpression identifier("^[a-z_][a-z0-9_]{0,62}$");
    if (!identifier.match(schema).hasMatch())
        refuse(QString("\"schema\" must be a lower-case identifier (letters, digits, _), not \"%1\"")
                   .arg(schema));
    c.schema = schema;
    c.connect_timeout_s = qMax(1, non_negative(o, "connect_timeout", c.connect_timeout_s));
    c.lock_timeout_ms = non_negative(o, "lock_timeout", c.lock_timeout_ms);
    c.partition = unit_from(o.value("partition"));
    c.partitions_ahead = non_negative(o, "partitions_ahead", c.partitions_ahead);
    c.purge_interval_s = non_negative(o, "purge_interval", c.purge_interval_s);
    c.purge_batch = non_negative(o, "purge_batch", c.purge_batch);
    c.devices = o.value("devices").toObject();

    put(c.parameters, "connect_timeout", QByteArray::number(c.connect_timeout_s));
    put_default(c.parameters, "application_name", "quillon");
    // A server that vanishes without closing the connection is noticed within seconds,
    // not after the system's TCP time-outs.
    put_default(c.parameters, "keepalives", "1");
    put_default(c.parameters, "keepalives_idle", "10");
    put_default(c.parameters, "keepalives_interval", "5");
    put_default(c.parameters, "keepalives_count", "3");
    put_default(c.parameters, "tcp_user_timeout", "15000");
    // Session settings travel with the connection, so a reconnect restores them. Each
    // execution is planned with its own values: a history query's range and limit decide
    // between reading an index in order and sorting, which a generic plan cannot know.
    QByteArray options = c.parameter("options");
    if (!options.isEmpty())
        options += ' ';
    options += "-c search_path=" + c.schema.toUtf8() +
               " -c lock_timeout=" + QByteArray::number(c.lock_timeout_ms) +
               " -c TimeZone=UTC -c client_min_messages=warning -c plan_cache_mode=force_custom_plan";
    put(c.parameters, "options", options);
    return c;
}

QByteArray pg_config::parameter(const QByteArray& key) const {
    for (const auto& [k, v] : parameters)
        if (k == key)
            return v;
    return {};
}

QString pg_config::describe() const {
    const QByteArray host = parameter("host").isEmpty() ? parameter("hostaddr") : parameter("host");
    return QString("%1:%2/%3 (schema %4, user %5)")
        .arg(QString::fromUtf8(host.isEmpty() ? QByteArray("local socket") : host),
             QString::fromUtf8(parameter("port").isEmpty() ? QByteArray("5432") : parameter("port")),
             QString::fromUtf8(parameter("dbname")), schema, QString::fromUtf8(parameter("user")));
}

}  // namespace postgres_db
