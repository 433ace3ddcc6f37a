#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QVariant>
#include <variant>

namespace model {

// The device parameter description a driver publishes for a hardware type.
struct device_parameter {
    int number = 0;
    QString comment;
    QString name;
    double div = 1;
    double mul = 1;
    QString unit;
    bool write = false;
    bool calib = false;
    bool primary = false;
    double min_value = 0;
    double max_value = 0;
};

struct device_event_description {
    int number = 0;
    QString comment;
    QString name;
    int code = 0;
};

struct device_control {
    int number = 0;
    QString comment;
    QString name;
};

using device_description_entry = std::variant<device_parameter, device_event_description, device_control>;
using device_description = QList<device_description_entry>;

// Settings and calibrations passed between the command handlers and the driver.
struct setting_item {
    QString name;
    QJsonDocument document;  // object or array values
    QVariant value;          // scalar values
};

struct setting_result {
    int modem_id = 0;
    QString name;
    QVariant value;  // with no names asked: the modem's whole settings as a QVariantMap
};

struct calib_item {
    QString group;
    QString name;
    double value = 0;
};

struct calib_result {
    int modem_id = 0;
    QString group;
    QString name;
    double value = 0;
};

}  // namespace model
