#include "heat_meter.h"

#include <algorithm>
#include <cmath>

#include "mbus_writer.h"

namespace netsim {

namespace {

// Water's volumetric heat capacity: W per (m3/h) and K.
constexpr double heat_capacity = 1163.0;
// Integration step (ms) for long gaps, so that the daily pattern is followed.
constexpr qint64 max_step_ms = 3600 * 1000;

QDate month_start(const QDate& d) {
    return QDate(d.year(), d.month(), 1);
}

}  // namespace

heat_meter::heat_meter(sim_random& random)
    : m_random(uint32_t(random.uniform() * 4294967296.0), 1),
      m_design_power_w(random.uniform(5000.0, 15000.0)),
      m_energy_in_kwh(random.uniform() < 0.5),
      m_energy_wh(random.uniform(1.0e6, 40.0e6)),
      m_volume_m3(random.uniform(20.0, 800.0)),
      m_operating_s(random.uniform(0.5, 6.0) * 365.0 * 86400.0) {}

heat_meter::load heat_meter::nominal(const QDateTime& t) const {
    const double outdoor = outdoor_temperature(t);
    const int hour = t.toUTC().time().hour();
    const bool night = hour >= 22 || hour < 5;
    const double heating = std::clamp((18.0 - outdoor) / 30.0, 0.0, 1.2) * (night ? 0.75 : 1.0);
    load l;
    l.power_w = m_design_power_w * (heating + 0.04);
    l.flow_c = std::clamp(35.0 + 1.1 * (20.0 - outdoor), 35.0, 75.0);
    const double difference = 6.0 + 14.0 * std::min(1.0, l.power_w / m_design_power_w);
    l.return_c = l.flow_c - difference;
    l.flow_m3h = l.power_w / (heat_capacity * difference);
    return l;
}

void heat_meter::integrate(const QDateTime& from, const QDateTime& to) {
    QDateTime at = from;
    while (at < to) {
        const qint64 step = std::min(max_step_ms, at.msecsTo(to));
        const QDateTime middle = at.addMSecs(step / 2);
        const load l = nominal(middle);
        const double hours = step / 3600000.0;
        const QDateTime next = at.addMSecs(step);
        if (month_start(next.toUTC().date()) != m_due_date) {
            // A new month began: the due-date reading is the energy at its start.
            m_due_date = month_start(next.toUTC().date());
            m_due_energy_wh = m_energy_wh;
        }
        m_energy_wh += l.power_w * hours;
        m_volume_m3 += l.flow_m3h * hours;
        m_operating_s += step / 1000.0;
        at = next;
    }
}

void heat_meter::sample(const QDateTime& t) {
    m_now = nominal(t);
    m_now.power_w = std::max(0.0, m_now.power_w * (1.0 + m_random.normal(0.0, 0.08)));
    m_now.flow_c += m_random.normal(0.0, 0.4);
    const double difference = std::max(
        3.0, 6.0 + 14.0 * std::min(1.0, m_now.power_w / m_design_power_w) + m_random.normal(0.0, 0.3));
    m_now.return_c = m_now.flow_c - difference;
    m_now.flow_m3h = m_now.power_w / (heat_capacity * difference);
}

void heat_meter::advance(const QDateTime& t) {
    if (!m_last.isValid()) {
        m_due_date = month_start(t.toUTC().date());
        // Consumption since the due date, roughly.
        m_due_energy_wh =
            std::max(0.0, m_energy_wh - nominal(t).power_w * 24.0 * (t.toUTC().date().day() - 1));
        m_last = t;
        sample(t);
        return;
    }
    if (t <= m_last) {
        return;
    }
    integrate(m_last, t);
    m_last = t;
    sample(t);
}

QByteArray heat_meter::encode(uint8_t access_number, const QDateTime& t,
                              QMap<QString, double>* readings) const {
    const QDateTime utc = t.toUTC();
    const qint64 energy_wh = qint64(std::floor(m_energy_wh));
    const qint64 due_wh = qint64(std::floor(m_due_energy_wh));
    const qint64 volume_l = qint64(std::floor(m_volume_m3 * 1000.0));
    const qint64 power_w = std::llround(m_now.power_w);
    const qint64 flow_lh = std::llround(m_now.flow_m3h * 1000.0);
    const qint64 flow_dc = std::llround(m_now.flow_c * 10.0);
    const qint64 return_dc = std::llround(m_now.return_c * 10.0);
    const qint64 difference_ck = (flow_dc - return_dc) * 10;
    const qint64 operating_h = qint64(m_operating_s / 3600.0);

    mbus_writer w;
    w.short_header(access_number, 0);
    double energy_reading = 0;
    double due_reading = 0;
    if (m_energy_in_kwh) {
        w.bcd(QByteArray(1, char(0x06)), uint64_t(energy_wh / 1000), 8);
        energy_reading = double(energy_wh / 1000) * 1000.0;
        due_reading = double(due_wh / 1000) * 1000.0;
    } else {
        w.integer(QByteArray(1, char(0x03)), energy_wh, 4);
        energy_reading = double(energy_wh);
        due_reading = double(due_wh);
    }
    w.integer(QByteArray(1, char(0x13)), volume_l, 4);
    w.integer(QByteArray(1, char(0x2B)), power_w, 4);
    w.integer(QByteArray(1, char(0x3B)), flow_lh, 4);
    w.integer(QByteArray(1, char(0x5A)), flow_dc, 2);
    w.integer(QByteArray(1, char(0x5E)), return_dc, 2);
    w.integer(QByteArray(1, char(0x61)), difference_ck, 2);
    w.integer(QByteArray(1, char(0x26)), operating_h, 4);
    w.date_time(utc.date().year(), utc.date().month(), utc.date().day(), utc.time().hour(),
                utc.time().minute());
    if (m_energy_in_kwh) {
        w.bcd(QByteArray(1, char(0x06)), uint64_t(due_wh / 1000), 8, 1);
    } else {
        w.integer(QByteArray(1, char(0x03)), due_wh, 4, 1);
    }
    w.date(m_due_date.year(), m_due_date.month(), m_due_date.day(), 1);
    w.integer(QByteArray::fromHex("fd17"), 0, 2);

    if (readings) {
        *readings = {{"energy", energy_reading},
                     {"volume", volume_l / 1000.0},
                     {"power", double(power_w)},
                     {"volume_flow", flow_lh / 1000.0},
                     {"flow_temperature", flow_dc / 10.0},
                     {"return_temperature", return_dc / 10.0},
                     {"temperature_difference", difference_ck / 100.0},
                     {"operating_time", operating_h * 3600.0},
                     {"energy.s1", due_reading},
                     {"error_flags", 0.0}};
    }
    return w.bytes();
}

}  // namespace netsim
