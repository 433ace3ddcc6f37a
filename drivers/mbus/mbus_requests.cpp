// Custom requests of the M-Bus driver: "last_values" and "state", per modem of the request.
#include <QJsonArray>
#include <stdexcept>

#include "mbus_driver.h"
#include "model/json.h"

QJsonObject MbusDriver::custom_query(const model::custom_query& query) {
    if (query.type == "state") {
        QJsonObject out;
        for (int modem : query.modem_id) {
            out[QString::number(modem)] = state().state(modem);
        }
        return out;
    }
    if (query.type == "last_values") {
        return last_values(query.modem_id);
    }
    if (query.type.isEmpty()) {
        return {};  // nothing asked
    }
    throw std::invalid_argument(QString("mbus custom request: unknown \"type\" \"%1\" (last_values or state)")
                                    .arg(query.type.left(64))
                                    .toStdString());
}

// The newest stored value of every obis code of each modem.
QJsonObject MbusDriver::last_values(const QList<int>& modems) const {
    if (!m_eav) {
        throw std::runtime_error("mbus custom request: no record store to read values from");
    }
    model::value_query query;
    query.modem_id = modems;
    query.from = QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
    query.to = QDateTime::currentDateTimeUtc();
    query.first_and_last = true;  // the last record of a series is its newest
    query.limit = model::max_history_limit;
    model::per_modem<model::dev_value> found;
    m_eav->records().get_values(found, query);
    QJsonObject out;
    for (const auto& [modem, values] : found) {
        QJsonObject series;
        for (const model::dev_value& v : values) {
            series[v.obis_code] = model::to_json(v);  // ascending time: the newest wins
        }
        out[QString::number(modem)] = series;
    }
    return out;
}
