#pragma once

#include <QSet>
#include <QString>

#include "amqp/api_message.h"
#include "app/config.h"

// Commands fall into three classes for authorization: those that only read, those that
// change stored state or reach meters, and those that administer the service itself.
enum class command_class { read, write, admin };

QString command_class_name(command_class type);
// The class of a command by its name and, for the queue administration, by the actions
// its body asks for. Names without a handler count as write: they are refused to readers.
command_class class_of_command(const api_message& command);

// User names from a comma-separated list, or everyone when the list holds "*". An empty
// list allows nobody.
class user_allow_list {
public:
    explicit user_allow_list(const QString& text);
    bool allows(const QString& user) const;
    bool allows_everyone() const { return m_everyone; }

private:
    bool m_everyone = false;
    QSet<QString> m_users;
};

// Whether the sender of a command (its broker-checked user_id) may run it.
class command_access {
public:
    explicit command_access(const rabbit_api_config& cfg);
    bool permits(const api_message& command) const;
    // False when every class is open to everyone: nothing is checked then.
    bool restricted() const;

private:
    user_allow_list m_read;
    user_allow_list m_write;
    user_allow_list m_admin;
};
