#include "commands/query_readers.h"

#include <QJsonArray>
#include <QSet>
#include <algorithm>
#include <cmath>
#include <limits>

#include "commands/handler_support.h"

namespace query_readers {
namespace {

constexpr int max_named_bad_ids = 10;

bool fits_int32(double number) {
    return std::isfinite(number) && std::trunc(number) == number &&
           number >= double(std::numeric_limits<int>::min()) &&
           number <= double(std::numeric_limits<int>::max());
}

QString describe(const QJsonValue& value) {
    if (value.isString()) {
        return "'" + value.toString() + "'";
    }
    if (value.isDouble()) {
        return QString::number(value.toDouble(), 'g', 17);
    }
    return "a non-number";
}

// Seconds since the epoch, or nothing when the member is absent or not a usable number.
std::optional<qint64> read_seconds(const QJsonValue& value) {
    if (!value.isDouble()) {
        return std::nullopt;
    }
    const double seconds = value.toDouble();
    // Far beyond any date QDateTime can hold; keeps the conversion below defined.
    constexpr double bound = 1e15;
    if (!std::isfinite(seconds) || seconds > bound || seconds < -bound) {
        return std::nullopt;
    }
    return qint64(seconds);
}

}  // namespace

std::optional<int> modem_id_from_json(const QJsonValue& value, const command_context& context) {
    if (value.isDouble() && fits_int32(value.toDouble())) {
        return value.toInt();
    }
    handler_support::log_error(context, "modem id " + describe(value) + " is not a 32-bit integer, dropped");
    return std::nullopt;
}

std::optional<int> modem_id_from_key(const QString& key, const command_context& context) {
    bool ok = false;
    const int id = key.toInt(&ok, 10);
    if (ok) {
        return id;
    }
    handler_support::log_error(context, "modem id '" + key + "' is not a 32-bit decimal integer, dropped");
    return std::nullopt;
}

QList<int> modem_ids(const QJsonValue& ids, const command_context& context) {
    QList<int> result;
    if (!ids.isArray()) {
        if (!ids.isUndefined() && !ids.isNull()) {
            handler_support::log_error(context, "\"modem_id\" is not an array, no modem taken");
        }
        return result;
    }
    const QJsonArray array = ids.toArray();
    if (array.size() > max_listed_modems) {
        handler_support::log_error(context, QString("\"modem_id\" lists %1 ids, only the first %2 are read")
                                                .arg(array.size())
                                                .arg(max_listed_modems));
    }
    const int read = std::min(array.size(), max_listed_modems);
    QSet<int> seen;
    seen.reserve(read);
    int repeated = 0;
    int bad = 0;
    for (int i = 0; i < read; ++i) {
        const QJsonValue element = array.at(i);
        // The first few bad ids are named one by one, the rest only counted.
        const bool valid = element.isDouble() && fits_int32(element.toDouble());
        if (!valid && ++bad > max_named_bad_ids) {
            continue;
        }
        const auto id = modem_id_from_json(element, context);
        if (!id) {
            continue;
        }
        if (seen.contains(*id)) {
            ++repeated;
            continue;
        }
        seen.insert(*id);
        result.append(*id);
    }
    if (bad > max_named_bad_ids) {
        handler_support::log_error(
            context, QString("\"modem_id\" has %1 more ids that are not 32-bit integers, dropped")
                         .arg(bad - max_named_bad_ids));
    }
    if (repeated > 0) {
        handler_support::log_error(
            context, QString("\"modem_id\" lists %1 ids a second time, each modem taken once").arg(repeated));
    }
    return result;
}

QList<int> owned_modem_ids(const QJsonValue& ids, const command_context& context) {
    const ownership owner = context.owner();
    QList<int> result;
    for (int id : modem_ids(ids, context)) {
        if (owner.is_mine(id)) {
            result.append(id);
        }
    }
    return result;
}

QDateTime read_from(const QJsonObject& body) {
    const auto seconds = read_seconds(body.value("from"));
    return QDateTime::fromSecsSinceEpoch(seconds.value_or(0), Qt::UTC);
}

QDateTime read_to(const QJsonObject& body) {
    if (const auto seconds = read_seconds(body.value("to"))) {
        return QDateTime::fromSecsSinceEpoch(*seconds, Qt::UTC);
    }
    return QDateTime::currentDateTimeUtc();
}

int read_limit(const QJsonObject& body) {
    const QJsonValue value = body.value("limit");
    if (!value.isDouble()) {
        return model::default_history_limit;
    }
    const double limit = value.toDouble();
    if (std::isnan(limit)) {
        return model::default_history_limit;
    }
    if (limit > double(model::max_history_limit)) {
        return model::max_history_limit;
    }
    if (limit < double(std::numeric_limits<int>::min())) {
        return std::numeric_limits<int>::min();
    }
    return int(limit);
}

QStringList read_strings(const QJsonValue& value) {
    QStringList result;
    for (const QJsonValue& element : value.toArray()) {
        if (element.isString()) {
            result.append(element.toString());
        }
    }
    return result;
}

model::roll_query read_roll_query(const QJsonObject& body, const command_context& context) {
    model::roll_query query;
    query.modem_id = owned_modem_ids(body.value("modem_id"), context);
    query.from = read_from(body);
    query.to = read_to(body);
    query.tag = read_strings(body.value("tag"));
    query.limit = read_limit(body);
    query.time_detected = body.value("time_detected").toBool(false);
    query.fill = body.value("fill").toString();
    return query;
}

model::value_query read_value_query(const QJsonObject& body, const command_context& context) {
    model::value_query query;
    query.modem_id = owned_modem_ids(body.value("modem_id"), context);
    query.from = read_from(body);
    query.to = read_to(body);
    query.tag = read_strings(body.value("tag"));
    query.obis_codes = read_strings(body.value("obis_codes"));
    query.limit = read_limit(body);
    query.first_and_last = body.value("first_and_last").toBool(false);
    query.step = body.value("step").toInt(0);
    query.fill = body.value("fill").toString();
    return query;
}

model::dl_query read_dl_query(const QJsonObject& body, const command_context& context) {
    model::dl_query query;
    query.modem_id = owned_modem_ids(body.value("modem_id"), context);
    query.from = read_from(body);
    query.to = read_to(body);
    query.limit = read_limit(body);
    return query;
}

}  // namespace query_readers
