#include "bench/postgres_target.h"

#include <QProcess>
#include <QUuid>

namespace bench {

bool open_postgres(const QString& given_conninfo, QString& conninfo, QString& error) {
    if (!given_conninfo.isEmpty()) {
        conninfo = given_conninfo;
        return true;
    }
    QProcess script;
    script.start(QUILLON_TEST_POSTGRES, {"start"});
    if (!script.waitForFinished(180000) || script.exitStatus() != QProcess::NormalExit ||
        script.exitCode() != 0) {
        error = "the private PostgreSQL server did not start: " +
                QString::fromUtf8(script.readAllStandardError()).trimmed();
        return false;
    }
    const QStringList lines =
        QString::fromUtf8(script.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    if (lines.isEmpty()) {
        error = "scripts/test-postgres start printed no connection string";
        return false;
    }
    conninfo = lines.last().trimmed();
    return true;
}

QString fresh_schema() {
    return "bench_" + QUuid::createUuid().toString(QUuid::Id128).left(16);
}

}  // namespace bench
