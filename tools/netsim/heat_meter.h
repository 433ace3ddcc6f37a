#pragma once

#include <QDate>

#include "meter_model.h"

namespace netsim {

// A heat meter of a heated building: the heat load follows the outdoor temperature
// (with a night set-back and a small hot-water base load), the flow temperature a
// heating curve, the temperature difference the load. Records: energy (Wh as a 32-bit
// integer, or kWh as 8 BCD digits), volume (l), power (W), volume flow (l/h), flow and
// return temperature (0.1 °C), temperature difference (0.01 K), operating time (h),
// date and time, energy and date at the last due date (storage 1), error flags.
class heat_meter : public meter_model {
public:
    explicit heat_meter(sim_random& random);

    meter_kind kind() const override { return meter_kind::heat; }
    void advance(const QDateTime& t) override;
    QByteArray encode(uint8_t access_number, const QDateTime& t,
                      QMap<QString, double>* readings = nullptr) const override;

private:
    struct load {
        double power_w = 0;
        double flow_c = 0;
        double return_c = 0;
        double flow_m3h = 0;
    };
    // The load at that time without noise.
    load nominal(const QDateTime& t) const;
    void integrate(const QDateTime& from, const QDateTime& to);
    void sample(const QDateTime& t);

    sim_random m_random;
    double m_design_power_w = 0;  // load at -12 °C outdoors
    bool m_energy_in_kwh = false;
    double m_energy_wh = 0;
    double m_volume_m3 = 0;
    double m_operating_s = 0;
    double m_due_energy_wh = 0;
    QDate m_due_date;
    load m_now;
    QDateTime m_last;
};

}  // namespace netsim
