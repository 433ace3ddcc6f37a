// quillon-faults against the private broker and the real service on SQLite: each mode in
// a short run. Nothing the broker took may be lost, nor acknowledged without being
// stored; each fault must really have happened.
#include <gtest/gtest.h>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QStringList>

namespace {

struct tool_run {
    int exit_code = -1;
    QString output;
    QMap<QString, QString> figures;  // of the last line
    int64_t figure(const QString& key) const { return figures.value(key, "-1").toLongLong(); }
    // A row of the table: the number at its end.
    int64_t row(const QString& label) const {
        const QRegularExpression re("^\\s*" + QRegularExpression::escape(label) + "\\s+(\\d+)",
                                    QRegularExpression::MultilineOption);
        const QRegularExpressionMatch m = re.match(output);
        return m.hasMatch() ? m.captured(1).toLongLong() : -1;
    }
};

tool_run run_tool(const QStringList& arguments) {
    tool_run result;
    QProcess tool;
    tool.setProcessChannelMode(QProcess::SeparateChannels);
    tool.start(QUILLON_BIN_DIR "/quillon-faults", arguments);
    EXPECT_TRUE(tool.waitForStarted(10000));
    EXPECT_TRUE(tool.waitForFinished(280000)) << "quillon-faults did not finish";
    result.exit_code = tool.exitStatus() == QProcess::NormalExit ? tool.exitCode() : -1;
    result.output = QString::fromUtf8(tool.readAllStandardOutput());
    const QString errors = QString::fromUtf8(tool.readAllStandardError());
    const QStringList lines = result.output.split('\n', Qt::SkipEmptyParts);
    if (!lines.isEmpty()) {
        for (const QString& item : lines.last().split(' ', Qt::SkipEmptyParts)) {
            const int eq = item.indexOf('=');
            if (eq > 0) {
                result.figures.insert(item.left(eq), item.mid(eq + 1));
            }
        }
    }
    // Shown on failure: the table and the tool's progress lines.
    result.output += "\n--- stderr ---\n" + errors;
    return result;
}

void expect_nothing_lost(const tool_run& run, int64_t uplinks) {
    SCOPED_TRACE(run.output.toStdString());
    ASSERT_EQ(run.figures.size(), 10) << "no key line";
    EXPECT_EQ(run.figure("uplinks"), uplinks);
    EXPECT_EQ(run.figure("lost"), 0);
    EXPECT_EQ(run.figure("acked_unstored"), 0);
    EXPECT_EQ(run.exit_code, 0);
}

TEST(FaultRun, BrokerRestart) {
    const tool_run run = run_tool({"--uplinks", "600", "--broker-restarts", "1"});
    expect_nothing_lost(run, 600);
    EXPECT_EQ(run.figure("restarts"), 1) << run.output.toStdString();
    EXPECT_EQ(run.figure("rejected"), 0) << run.output.toStdString();
}

TEST(FaultRun, ForcedConnectionCloses) {
    const tool_run run = run_tool({"--uplinks", "600", "--closes", "1"});
    expect_nothing_lost(run, 600);
    EXPECT_EQ(run.figure("closes"), 1) << run.output.toStdString();
    EXPECT_EQ(run.figure("rejected"), 0) << run.output.toStdString();
}

TEST(FaultRun, ServiceKills) {
    const tool_run run = run_tool({"--uplinks", "1500", "--kills", "4"});
    expect_nothing_lost(run, 1500);
    EXPECT_EQ(run.figure("kills"), 4) << run.output.toStdString();
    EXPECT_EQ(run.figure("rejected"), 0) << run.output.toStdString();
    // What a killed process had committed but not acknowledged comes again, and is
    // recognised as stored.
    EXPECT_EQ(run.figure("duplicates"), 0) << run.output.toStdString();
}

TEST(FaultRun, ClientExchangeDrops) {
    const tool_run run = run_tool({"--uplinks", "1000", "--exchange-drops", "3"});
    expect_nothing_lost(run, 1000);
    EXPECT_EQ(run.row("client exchange drops"), 3) << run.output.toStdString();
    EXPECT_EQ(run.figure("rejected"), 0) << run.output.toStdString();
}

TEST(FaultRun, StoreFull) {
    const tool_run run = run_tool({"--uplinks", "900", "--store-full"});
    expect_nothing_lost(run, 900);
    // The limit took effect, and every uplink rejected for it is named in the log.
    EXPECT_GT(run.figure("rejected"), 0) << run.output.toStdString();
    EXPECT_EQ(run.row("of them not named in the service's log"), 0) << run.output.toStdString();
    // Once the limit is lifted the store takes uplinks again: the last third is stored.
    EXPECT_GE(run.figure("stored"), 300) << run.output.toStdString();
}

// The private three-node cluster (scripts/test-cluster, started and stopped by the tool):
// the quorum uplink queue's leader is stopped for the middle third of the stream.
TEST(FaultRun, ClusterNodeStop) {
    const tool_run run =
        run_tool({"--cluster", "--node-stop", "--uplinks", "1500", "--rate", "300", "--stop-broker"});
    expect_nothing_lost(run, 1500);
    EXPECT_EQ(run.figure("node_stops"), 1) << run.output.toStdString();
    EXPECT_EQ(run.figure("rejected"), 0) << run.output.toStdString();
    EXPECT_EQ(run.figure("duplicates"), 0) << run.output.toStdString();
    // The stopped node led the queue, and another one took over.
    const QRegularExpression leaders("leader before the stop, after it\\s+(\\S+), (\\S*)");
    const QRegularExpressionMatch m = leaders.match(run.output);
    ASSERT_TRUE(m.hasMatch()) << run.output.toStdString();
    // Node 2 as scripts/test-cluster names it: qc2@localhost unless
    // QUILLON_TEST_CLUSTER_NODES names the three nodes otherwise.
    const QStringList nodes =
        qEnvironmentVariable("QUILLON_TEST_CLUSTER_NODES", "qc1@localhost qc2@localhost qc3@localhost")
            .split(' ', Qt::SkipEmptyParts);
    ASSERT_EQ(nodes.size(), 3);
    EXPECT_EQ(m.captured(1), nodes[1]) << run.output.toStdString();
    EXPECT_FALSE(m.captured(2).isEmpty()) << run.output.toStdString();
    EXPECT_NE(m.captured(2), m.captured(1)) << run.output.toStdString();
}

}  // namespace
