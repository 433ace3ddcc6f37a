#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QMap>
#include <QString>
#include <cstdint>
#include <memory>
#include <random>

namespace netsim {

enum class meter_kind { heat, water };

// "heat" or "water".
QString meter_kind_name(meter_kind kind);

// Reproducible random numbers: the same seed and stream give the same sequence.
class sim_random {
public:
    sim_random(uint32_t seed, uint32_t stream);
    double uniform();  // [0, 1)
    double uniform(double low, double high);
    double normal(double mean, double deviation);

private:
    std::mt19937 m_engine;
};

// Outdoor air temperature (°C) of a temperate climate: coldest in mid-January (about
// -2 °C), warmest in mid-July (about 18 °C), 4 K colder at dawn than in the afternoon.
double outdoor_temperature(const QDateTime& t);

// One simulated meter. Its counters only grow; its instantaneous values follow the
// time of day and season. `advance` moves the meter to a time (a time earlier than the
// last one changes nothing); `encode` writes the current state as an M-Bus payload.
class meter_model {
public:
    virtual ~meter_model() = default;
    virtual meter_kind kind() const = 0;
    virtual void advance(const QDateTime& t) = 0;
    // The payload (CI 0x7A, short header with this access number, status 0) and, in
    // `readings`, what it carries: obis_code -> value in the decoder's base unit.
    virtual QByteArray encode(uint8_t access_number, const QDateTime& t,
                              QMap<QString, double>* readings = nullptr) const = 0;
};

// A meter of that kind, its size and variant drawn from `random`.
std::unique_ptr<meter_model> make_meter(meter_kind kind, sim_random& random);

}  // namespace netsim
