#pragma once

#include <QString>
#include <exception>
#include <string>

// No driver factory serves the configured (protocol, instance). The name is spelt so
// on purpose: it is part of the service's interface.
class no_devive_type_implemented : public std::exception {
public:
    no_devive_type_implemented() = default;
    no_devive_type_implemented(const QString& protocol, const QString& instance)
        : m_what(QString("no device type implemented for protocol \"%1\", instance \"%2\"")
                     .arg(protocol, instance)
                     .toStdString()) {}

    const char* what() const noexcept override { return m_what.c_str(); }

private:
    std::string m_what = "no device type implemented";
};
