// The accounting of quillon-faults: what each count takes in, the uplinks named in a
// service log, and the last line's exact form.
#include <gtest/gtest.h>
#include <QFile>
#include <QTemporaryDir>

#include "bench/faults/faults_options.h"
#include "bench/faults/faults_report.h"
#include "bench/faults/ledger.h"

namespace {

using faults::make_key;

TEST(FaultsLedger, EachUplinkFallsIntoTheCountsOfWhatBecameOfIt) {
    const auto a = make_key(1, 1), b = make_key(1, 2), c = make_key(2, 1), d = make_key(2, 2),
               e = make_key(3, 1), f = make_key(3, 2), g = make_key(4, 1);
    faults::ledger book;
    book.sent = {a, b, c, d, e, f};
    book.stored = {{a, 1}, {b, 2}, {d, 1}, {g, 1}};  // b twice; g was never confirmed as sent
    book.rejected = {c, d};                          // d: rejected once, stored on redelivery
    book.left = {e};                                 // never handled
    book.logged = {c};
    book.sent_again = {b};
    const faults::fault_counts n = faults::count(book);
    EXPECT_EQ(n.uplinks, 6);
    EXPECT_EQ(n.stored, 3);          // a, b, d
    EXPECT_EQ(n.lost, 2);            // e (left) and f
    EXPECT_EQ(n.acked_unstored, 1);  // f only: e was never acknowledged
    EXPECT_EQ(n.duplicates, 1);
    EXPECT_EQ(n.duplicates_sent_again, 1);
    EXPECT_EQ(n.rejected, 2);
    EXPECT_EQ(n.rejected_unlogged, 1);  // d
    EXPECT_EQ(n.rejected_stored, 1);    // d
    EXPECT_EQ(n.left, 1);
    EXPECT_EQ(n.stored_unsent, 1);  // g
}

TEST(FaultsLedger, KeysTellModemAndIteratorApart) {
    EXPECT_NE(make_key(1, 2), make_key(2, 1));
    EXPECT_EQ(faults::describe(make_key(77, 12)), "modem 77 iterator 12");

    faults::uplink_key key = 0;
    ASSERT_TRUE(faults::key_of(R"({"msg_type":"ul_app","modem_id":77,"iterator":12})", key));
    EXPECT_EQ(key, make_key(77, 12));
    EXPECT_FALSE(faults::key_of(R"({"modem_id":77})", key));
    EXPECT_FALSE(faults::key_of(R"({"modem_id":"77","iterator":12})", key));
    EXPECT_FALSE(faults::key_of("not json", key));
}

TEST(FaultsLedger, UplinksNamedInTheLogAreThoseOfFailureLinesNotOfAcceptedOnes) {
    QTemporaryDir dir;
    const QString path = dir.filePath("quillon.log");
    QFile log(path);
    ASSERT_TRUE(log.open(QIODevice::WriteOnly));
    log.write(
        "2026-01-01 10:00:00,000 ERROR onUlReceived throw catch. Std::exception: SQLite store x: database or "
        "disk "
        "is full Message_tag: 4 Message: {\"hw_type\":\"mbus-heat\",\"iterator\":5,\"modem_id\":7} Parsed "
        "message: {\"iterator\":5,\"modem_id\":7}\n"
        "2026-01-01 10:00:01,000 INFO instance: 0 message tag: 5 accepted: {\"iterator\":1,\"modem_id\":8}\n"
        "2026-01-01 10:00:02,000 ERROR Rabbit_man_ul: Disconnected\n"
        "2026-01-01 10:00:03,000 ERROR onUlReceived throw catch. Message_tag: 6 message: "
        "{\"modem_id\":9,\"iterator\":3}\n");
    log.close();
    const QSet<faults::uplink_key> named = faults::named_in_log(path);
    EXPECT_EQ(named, (QSet<faults::uplink_key>{make_key(7, 5), make_key(9, 3)}));
    EXPECT_TRUE(faults::named_in_log(dir.filePath("missing.log")).isEmpty());
}

TEST(FaultsLedger, LastLineHasEveryCountInItsPlace) {
    faults::run_report report;
    report.counts.uplinks = 100;
    report.counts.stored = 90;
    report.counts.lost = 3;
    report.counts.acked_unstored = 2;
    report.counts.duplicates = 4;
    report.counts.rejected = 7;
    report.faults.broker_restarts = 1;
    report.faults.kills = 5;
    report.faults.close_rounds = 2;
    report.faults.connections_closed = 8;
    report.faults.node_stops = 6;
    EXPECT_EQ(
        faults::key_line(report),
        "uplinks=100 stored=90 lost=3 acked_unstored=2 duplicates=4 rejected=7 restarts=1 kills=5 closes=2 "
        "node_stops=6");
}

TEST(FaultsOptions, CountsMustBeWholeAndNotNegative) {
    faults::faults_options o;
    QString message;
    bool help = false;
    ASSERT_TRUE(faults::parse_options({"quillon-faults", "--uplinks", "500", "--kills", "3", "--store-full"},
                                      o, message, help))
        << message.toStdString();
    EXPECT_EQ(o.uplinks, 500u);
    EXPECT_EQ(o.kills, 3);
    EXPECT_TRUE(o.store_full);
    EXPECT_EQ(o.broker_restarts, 0);
    EXPECT_FALSE(o.cluster);
    ASSERT_TRUE(faults::parse_options({"quillon-faults", "--cluster", "--node-stop"}, o, message, help))
        << message.toStdString();
    EXPECT_TRUE(o.cluster);
    EXPECT_TRUE(o.node_stop);
    for (const QStringList& bad :
         {QStringList{"--kills", "-1"}, QStringList{"--uplinks", "1.5"}, QStringList{"--uplinks", "0"},
          QStringList{"--closes", "x"}, QStringList{"--rate", "-3"}, QStringList{"extra"},
          // A node stop needs the cluster; the cluster has no single broker to restart.
          QStringList{"--node-stop"}, QStringList{"--cluster", "--broker-restarts", "1"}}) {
        EXPECT_FALSE(faults::parse_options(QStringList{"quillon-faults"} + bad, o, message, help))
            << bad.join(' ').toStdString();
        EXPECT_FALSE(message.isEmpty());
    }
}

}  // namespace
