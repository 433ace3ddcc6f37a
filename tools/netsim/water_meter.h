#pragma once

#include <QDate>

#include "meter_model.h"

namespace netsim {

// A household water meter: consumption follows a daily profile (peaks in the morning
// and the evening, little at night). Records: volume (l), volume and date at the last
// due date (storage 1), volume flow (l/h), the water's temperature (flow temperature,
// 0.01 °C) or, in the other variant, the meter room's (external temperature, 0.01 °C),
// on time (h), date and time, error flags.
class water_meter : public meter_model {
public:
    explicit water_meter(sim_random& random);

    meter_kind kind() const override { return meter_kind::water; }
    void advance(const QDateTime& t) override;
    QByteArray encode(uint8_t access_number, const QDateTime& t,
                      QMap<QString, double>* readings = nullptr) const override;

private:
    // Mean consumption at that time (m3/h).
    double mean_rate(const QDateTime& t) const;
    void sample(const QDateTime& t);

    sim_random m_random;
    double m_daily_m3 = 0;
    bool m_external_temperature = false;
    double m_volume_m3 = 0;
    double m_on_time_s = 0;
    double m_due_volume_m3 = 0;
    QDate m_due_date;
    double m_flow_m3h = 0;
    double m_temperature_c = 0;
    QDateTime m_last;
};

}  // namespace netsim
