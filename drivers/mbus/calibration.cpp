#include "calibration.h"

#include <cmath>
#include <stdexcept>

namespace mbus {

void calibration::apply(model::dev_value& value) const {
    if (m_groups.isEmpty()) {
        return;
    }
    QJsonValue group = m_groups.value(value.obis_code);
    if (!group.isObject()) {
        group = m_groups.value(value.obis_code.section('.', 0, 0));
    }
    if (!group.isObject()) {
        return;  // this quantity is not calibrated
    }
    bool number = false;
    const double raw = value.value.toDouble(&number);
    if (!number) {
        return;  // texts (fabrication numbers given as text) stay as they are
    }
    const QJsonObject c = group.toObject();
    value.value = raw * c.value("factor").toDouble(1) + c.value("offset").toDouble(0);
    value.tag = calibrated_tag;
}

void calibration::check(const model::calib_item& item) {
    if (item.group.isEmpty()) {
        throw std::invalid_argument("mbus calibration: the group (an obis code or quantity) is empty");
    }
    if (item.name != "factor" && item.name != "offset") {
        throw std::invalid_argument(QString("mbus calibration: \"%1\" of \"%2\" is neither \"factor\" nor "
                                            "\"offset\"")
                                        .arg(item.name.left(64), item.group.left(64))
                                        .toStdString());
    }
    if (!std::isfinite(item.value)) {
        throw std::invalid_argument(QString("mbus calibration: \"%1\" of \"%2\" is not a finite number")
                                        .arg(item.name, item.group.left(64))
                                        .toStdString());
    }
}

}  // namespace mbus
