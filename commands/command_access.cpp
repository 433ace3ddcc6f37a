#include "commands/command_access.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QStringList>

namespace {

const QSet<QString>& read_commands() {
    static const QSet<QString> names{"get_info",
                                     "get_metadata",
                                     "get_ids",
                                     "device",
                                     "custom_request",
                                     "get_dl_msg",
                                     "status_dl_msg",
                                     "get_roll",
                                     "get_roll_extract",
                                     "get_eav_value",
                                     "get_eav_event",
                                     "get_eav_extract",
                                     "get_eav_extract_event",
                                     "read_setting",
                                     "read_calib"};
    return names;
}

bool changes_queues(const QJsonValue& request) {
    static const QSet<QString> changing{"delete", "repeat", "update", "create", "lock", "unlock"};
    return request.isObject() && changing.contains(request.toObject().value("action").toString());
}

// A queue request reads unless one of its addressees (or its "all" request) asks for an
// action that changes queues.
bool queue_request_writes(const QJsonObject& body) {
    for (auto it = body.begin(); it != body.end(); ++it) {
        if (changes_queues(it.value())) {
            return true;
        }
    }
    return false;
}

}  // namespace

QString command_class_name(command_class type) {
    switch (type) {
        case command_class::read:
            return "read";
        case command_class::write:
            return "write";
        case command_class::admin:
            return "admin";
    }
    return "write";
}

command_class class_of_command(const api_message& command) {
    const QString& name = command.msg_type;
    if (name == "exit") {
        return command_class::admin;
    }
    if (name == "dl_queue") {
        return queue_request_writes(command.data.object()) ? command_class::write : command_class::read;
    }
    return read_commands().contains(name) ? command_class::read : command_class::write;
}

user_allow_list::user_allow_list(const QString& text) {
    for (const QString& item : text.split(',', Qt::SkipEmptyParts)) {
        const QString user = item.trimmed();
        if (user == "*") {
            m_everyone = true;
        } else if (!user.isEmpty()) {
            m_users.insert(user);
        }
    }
}

bool user_allow_list::allows(const QString& user) const {
    return m_everyone || (!user.isEmpty() && m_users.contains(user));
}

command_access::command_access(const rabbit_api_config& cfg)
    : m_read(cfg.allow_read), m_write(cfg.allow_write), m_admin(cfg.allow_admin) {}

bool command_access::permits(const api_message& command) const {
    switch (class_of_command(command)) {
        case command_class::read:
            return m_read.allows(command.user_id);
        case command_class::write:
            return m_write.allows(command.user_id);
        case command_class::admin:
            return m_admin.allows(command.user_id);
    }
    return false;
}

bool command_access::restricted() const {
    return !(m_read.allows_everyone() && m_write.allows_everyone() && m_admin.allows_everyone());
}
