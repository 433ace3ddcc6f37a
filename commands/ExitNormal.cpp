#include "commands/ExitNormal.h"

#include <QCoreApplication>
#include <QMetaObject>

ExitNormal::ExitNormal(std::shared_ptr<command_context> context) : m_context(std::move(context)) {}

QJsonObject ExitNormal::execute(const api_message&) {
    // Queued: the quit is seen by the loop only after the current delivery has been
    // answered and acknowledged.
    if (QCoreApplication* app = QCoreApplication::instance()) {
        QMetaObject::invokeMethod(app, "quit", Qt::QueuedConnection);
    }
    return QJsonObject();
}
