#pragma once

#include <QByteArray>
#include <QHash>
#include <QSet>
#include <QString>
#include <cstdint>

namespace faults {

// An uplink is known by its modem and the modem's message counter ("iterator"), which
// the fleet never repeats.
using uplink_key = uint64_t;
uplink_key make_key(int modem, int64_t iterator);
QString describe(uplink_key key);  // "modem 7 iterator 12"
// The key of an uplink's JSON body; false when the body has no modem or iterator.
bool key_of(const QByteArray& body, uplink_key& key);

// Every uplink of a run by what became of it.
struct ledger {
    QSet<uplink_key> sent;          // confirmed by the broker
    QSet<uplink_key> sent_again;    // published again after a broker failure (maybe twice)
    QSet<uplink_key> rejected;      // dead-lettered: rejected by the service
    QSet<uplink_key> left;          // still in the uplink queue once the service stopped
    QHash<uplink_key, int> stored;  // rows per uplink in the store
    QSet<uplink_key> logged;        // named in an error line of the service's log
    int unreadable = 0;             // messages of the queues that named no uplink
};

struct fault_counts {
    int64_t uplinks = 0;
    int64_t stored = 0;                 // uplinks with at least one row in the store
    int64_t lost = 0;                   // neither stored nor rejected
    int64_t acked_unstored = 0;         // acknowledged (not rejected, not left) and not stored
    int64_t duplicates = 0;             // rows beyond one per uplink
    int64_t duplicates_sent_again = 0;  // of them, uplinks the tool may have published twice
    int64_t rejected = 0;
    int64_t rejected_unlogged = 0;  // rejected without an error line naming them
    int64_t rejected_stored = 0;    // rejected on one delivery, stored on another
    int64_t left = 0;
    int64_t stored_unsent = 0;  // rows of uplinks the broker never confirmed
};

fault_counts count(const ledger& book);

// Rows per uplink of the SQLite store's messages (read-only).
bool read_store(const QString& path, QHash<uplink_key, int>& out, QString& error);
// Distinct uplinks stored so far (for the drain's progress; -1 when unreadable).
int64_t stored_so_far(const QString& path);
// Pages of the store file as SQLite counts them (including the write-ahead log).
int64_t store_pages(const QString& path);
// Uplinks named in error and warning lines of the service's log (not "accepted" lines).
QSet<uplink_key> named_in_log(const QString& path);

}  // namespace faults
