#include "meter_model.h"

#include <QtMath>
#include <cmath>

#include "heat_meter.h"
#include "water_meter.h"

namespace netsim {

QString meter_kind_name(meter_kind kind) {
    return kind == meter_kind::heat ? QStringLiteral("heat") : QStringLiteral("water");
}

sim_random::sim_random(uint32_t seed, uint32_t stream) {
    std::seed_seq sequence{seed, stream, 0x51u};
    m_engine.seed(sequence);
}

double sim_random::uniform() {
    // Built from the engine's raw output, so the sequence is the same with every library.
    return double(m_engine()) / 4294967296.0;
}

double sim_random::uniform(double low, double high) {
    return low + (high - low) * uniform();
}

double sim_random::normal(double mean, double deviation) {
    // Box-Muller.
    const double u1 = 1.0 - uniform();  // (0, 1]
    const double u2 = uniform();
    return mean + deviation * std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * M_PI * u2);
}

double outdoor_temperature(const QDateTime& t) {
    const QDateTime utc = t.toUTC();
    const double day = utc.date().dayOfYear() - 1 + utc.time().msecsSinceStartOfDay() / 86400000.0;
    const double seasonal = 8.0 - 10.0 * std::cos(2.0 * M_PI * (day - 15.0) / 365.0);
    const double hour = utc.time().msecsSinceStartOfDay() / 3600000.0;
    const double daily = -2.0 * std::cos(2.0 * M_PI * (hour - 3.0) / 24.0);  // minimum at 03:00
    return seasonal + daily;
}

std::unique_ptr<meter_model> make_meter(meter_kind kind, sim_random& random) {
    if (kind == meter_kind::heat) {
        return std::make_unique<heat_meter>(random);
    }
    return std::make_unique<water_meter>(random);
}

}  // namespace netsim
