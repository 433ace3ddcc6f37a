#include "bench/faults/ledger.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QUuid>
#include <functional>

namespace faults {

namespace {

// Runs `work` on a read-only connection of its own to the store file.
bool with_store(const QString& path, const std::function<bool(QSqlDatabase&)>& work,
                QString* error = nullptr) {
    const QString name = "faults_store_" + QUuid::createUuid().toString(QUuid::Id128);
    bool ok = false;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", name);
        db.setDatabaseName(path);
        db.setConnectOptions("QSQLITE_OPEN_READONLY;QSQLITE_BUSY_TIMEOUT=5000");
        if (!QFile::exists(path) || !db.open()) {
            if (error) {
                *error = "cannot open the store " + path + ": " + db.lastError().text();
            }
        } else {
            ok = work(db);
            if (!ok && error) {
                *error = "cannot read the store " + path + ": " + db.lastError().text();
            }
            db.close();
        }
    }
    QSqlDatabase::removeDatabase(name);
    return ok;
}

}  // namespace

uplink_key make_key(int modem, int64_t iterator) {
    return (uint64_t(uint32_t(modem)) << 32) | uint64_t(uint32_t(iterator));
}

QString describe(uplink_key key) {
    return QString("modem %1 iterator %2").arg(int32_t(key >> 32)).arg(uint32_t(key));
}

bool key_of(const QByteArray& body, uplink_key& key) {
    const QJsonObject uplink = QJsonDocument::fromJson(body).object();
    if (!uplink.value("modem_id").isDouble() || !uplink.value("iterator").isDouble()) {
        return false;
    }
    key = make_key(uplink.value("modem_id").toInt(), int64_t(uplink.value("iterator").toDouble()));
    return true;
}

fault_counts count(const ledger& book) {
    fault_counts c;
    c.uplinks = book.sent.size();
    for (const uplink_key key : book.sent) {
        const int rows = book.stored.value(key);
        c.stored += rows > 0;
        c.lost += rows == 0 && !book.rejected.contains(key);
        c.acked_unstored += rows == 0 && !book.rejected.contains(key) && !book.left.contains(key);
    }
    for (auto it = book.stored.cbegin(); it != book.stored.cend(); ++it) {
        c.duplicates += it.value() - 1;
        if (book.sent_again.contains(it.key())) {
            c.duplicates_sent_again += it.value() - 1;
        }
        c.stored_unsent += book.sent.contains(it.key()) ? 0 : it.value();
    }
    c.rejected = book.rejected.size();
    for (const uplink_key key : book.rejected) {
        c.rejected_unlogged += !book.logged.contains(key);
        c.rejected_stored += book.stored.contains(key);
    }
    c.left = book.left.size();
    return c;
}

bool read_store(const QString& path, QHash<uplink_key, int>& out, QString& error) {
    out.clear();
    return with_store(
        path,
        [&out](QSqlDatabase& db) {
            QSqlQuery q(db);
            if (!q.exec("SELECT modem_id, iterator FROM ul_messages")) {
                return false;
            }
            while (q.next()) {
                ++out[make_key(q.value(0).toInt(), q.value(1).toLongLong())];
            }
            return true;
        },
        &error);
}

int64_t stored_so_far(const QString& path) {
    int64_t n = -1;
    with_store(path, [&n](QSqlDatabase& db) {
        QSqlQuery q(db);
        if (!q.exec("SELECT COUNT(*) FROM (SELECT DISTINCT modem_id, iterator FROM ul_messages)") ||
            !q.next()) {
            return false;
        }
        n = q.value(0).toLongLong();
        return true;
    });
    return n;
}

int64_t store_pages(const QString& path) {
    int64_t n = -1;
    with_store(path, [&n](QSqlDatabase& db) {
        QSqlQuery q(db);
        if (!q.exec("PRAGMA page_count") || !q.next()) {
            return false;
        }
        n = q.value(0).toLongLong();
        return true;
    });
    return n;
}

QSet<uplink_key> named_in_log(const QString& path) {
    QSet<uplink_key> named;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return named;
    }
    // The message's compact JSON: the first modem_id and iterator of the line name it.
    static const QRegularExpression modem("\"modem_id\":(-?\\d+)");
    static const QRegularExpression iterator("\"iterator\":(\\d+)");
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine());
        if (line.contains(" accepted: ")) {
            continue;
        }
        const QRegularExpressionMatch m = modem.match(line);
        const QRegularExpressionMatch i = iterator.match(line);
        if (m.hasMatch() && i.hasMatch()) {
            named.insert(make_key(m.captured(1).toInt(), i.captured(1).toLongLong()));
        }
    }
    return named;
}

}  // namespace faults
