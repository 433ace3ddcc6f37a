#include "water_meter.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "mbus_writer.h"

namespace netsim {

namespace {

constexpr qint64 max_step_ms = 3600 * 1000;

// Share of a day's consumption in each hour (UTC), relative.
constexpr double hour_weights[24] = {0.2, 0.1, 0.1, 0.1, 0.2, 0.6, 1.8, 2.2, 1.5, 0.9, 0.8, 0.9,
                                     1.1, 0.9, 0.7, 0.7, 0.9, 1.3, 1.8, 1.9, 1.6, 1.2, 0.8, 0.4};

double weight_sum() {
    return std::accumulate(std::begin(hour_weights), std::end(hour_weights), 0.0);
}

QDate month_start(const QDate& d) {
    return QDate(d.year(), d.month(), 1);
}

}  // namespace

water_meter::water_meter(sim_random& random)
    : m_random(uint32_t(random.uniform() * 4294967296.0), 2),
      m_daily_m3(random.uniform(0.12, 0.6)),
      m_external_temperature(random.uniform() < 0.5),
      m_volume_m3(random.uniform(10.0, 900.0)),
      m_on_time_s(random.uniform(0.5, 8.0) * 365.0 * 86400.0) {}

double water_meter::mean_rate(const QDateTime& t) const {
    return m_daily_m3 * hour_weights[t.toUTC().time().hour()] / weight_sum();
}

void water_meter::sample(const QDateTime& t) {
    // A tap is open now with a chance that grows with the hour's share of the day.
    const double share = hour_weights[t.toUTC().time().hour()] / weight_sum();
    const double chance = std::min(0.8, share * 4.0);
    m_flow_m3h = m_random.uniform() < chance ? m_random.uniform(0.2, 0.9) : 0.0;
    if (m_external_temperature) {
        m_temperature_c = 21.0 + 0.1 * (outdoor_temperature(t) - 8.0) + m_random.normal(0.0, 0.3);
    } else {
        // Mains water lags the air by about six weeks.
        m_temperature_c =
            11.0 + 0.35 * (outdoor_temperature(t.addDays(-45)) - 8.0) + m_random.normal(0.0, 0.2);
    }
}

void water_meter::advance(const QDateTime& t) {
    if (!m_last.isValid()) {
        m_due_date = month_start(t.toUTC().date());
        m_due_volume_m3 = std::max(0.0, m_volume_m3 - m_daily_m3 * (t.toUTC().date().day() - 1));
        m_last = t;
        sample(t);
        return;
    }
    if (t <= m_last) {
        return;
    }
    QDateTime at = m_last;
    while (at < t) {
        const qint64 step = std::min(max_step_ms, at.msecsTo(t));
        const QDateTime next = at.addMSecs(step);
        if (month_start(next.toUTC().date()) != m_due_date) {
            m_due_date = month_start(next.toUTC().date());
            m_due_volume_m3 = m_volume_m3;
        }
        m_volume_m3 += mean_rate(at.addMSecs(step / 2)) * step / 3600000.0 * m_random.uniform(0.5, 1.5);
        m_on_time_s += step / 1000.0;
        at = next;
    }
    m_last = t;
    sample(t);
}

QByteArray water_meter::encode(uint8_t access_number, const QDateTime& t,
                               QMap<QString, double>* readings) const {
    const QDateTime utc = t.toUTC();
    const qint64 volume_l = qint64(std::floor(m_volume_m3 * 1000.0));
    const qint64 due_l = qint64(std::floor(m_due_volume_m3 * 1000.0));
    const qint64 flow_lh = std::llround(m_flow_m3h * 1000.0);
    const qint64 temperature_cc = std::llround(m_temperature_c * 100.0);
    const qint64 on_time_h = qint64(m_on_time_s / 3600.0);
    const QString temperature = m_external_temperature ? "external_temperature" : "flow_temperature";

    mbus_writer w;
    w.short_header(access_number, 0);
    w.integer(QByteArray(1, char(0x13)), volume_l, 4);
    w.integer(QByteArray(1, char(0x13)), due_l, 4, 1);
    w.date(m_due_date.year(), m_due_date.month(), m_due_date.day(), 1);
    w.integer(QByteArray(1, char(0x3B)), flow_lh, 2);
    w.integer(QByteArray(1, char(m_external_temperature ? 0x65 : 0x59)), temperature_cc, 2);
    w.integer(QByteArray(1, char(0x22)), on_time_h, 4);
    w.date_time(utc.date().year(), utc.date().month(), utc.date().day(), utc.time().hour(),
                utc.time().minute());
    w.integer(QByteArray::fromHex("fd17"), 0, 2);

    if (readings) {
        *readings = {{"volume", volume_l / 1000.0},     {"volume.s1", due_l / 1000.0},
                     {"volume_flow", flow_lh / 1000.0}, {temperature, temperature_cc / 100.0},
                     {"on_time", on_time_h * 3600.0},   {"error_flags", 0.0}};
    }
    return w.bytes();
}

}  // namespace netsim
