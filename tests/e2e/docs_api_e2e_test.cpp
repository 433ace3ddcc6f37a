// Replays every request example of docs/api.md, in document order, against the service
// process set up as the document describes, and checks each response against the
// documented one by shape (keys and JSON types). A document that drifts from the code
// fails here.
#include <QSet>

#include "commands/command_factory.h"
#include "tests/e2e/doc_examples.h"
#include "tests/e2e/e2e_fixture.h"

namespace {

using doc_examples::example;
using doc_examples::shape_check;

// Examples replayed after all others, and why.
const QMap<QString, QString> replayed_last = {
    {"exit", "it ends the service"},
};

// Sections whose JSON blocks are not request examples, and why they are not replayed.
const QMap<QString, QString> not_replayed = {
    {"Command API", "the device registry seed of the example run (the test seeds the same)"},
    {"Envelope", "whole envelopes: every replayed request and response travels in this form"},
    {"Plain bodies", "client publications, not command responses (engine end-to-end tests)"},
    {"Wrapped bodies", "client publications, not command responses (engine end-to-end tests)"},
    {"Commands the instance sends to the network server", "sent by the service, not to it"},
};

QString api_document() {
    QFile file(QUILLON_SOURCE_DIR "/docs/api.md");
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

// The instance of the document: the M-Bus driver, the in-memory store seeded with modems
// 77 (client app1) and 5078, a metadata file, client publication and downlink queues on.
class DocumentedExamples : public e2e::service_test {
protected:
    void configure(e2e::service_process& service) override {
        service.set("GENERAL_SETTINGS", "UL_CLIENT_SEND", "true");
        service.set("GENERAL_SETTINGS", "DL_QUEUES", "true");
        service.set_database(
            "db_driver_dummy",
            QJsonObject{{"devices", QJsonObject{{"77", device("X", {"app1"})}, {"5078", device("X")}}}});
        ASSERT_TRUE(QFile::copy(QUILLON_BIN_DIR "/plug_mbus.json", m_config.filePath("plug_mbus.json")));
        QFile metadata(m_config.filePath("metadata_app1_proto7_marl2.json"));
        ASSERT_TRUE(metadata.open(QIODevice::WriteOnly));
        metadata.write(
            R"({"X": {"display": "water meter", "primary": "volume"}, "*": {"display": "meter"}})");
        metadata.close();
        service.set("PLUGIN_MANAGER_SETTINGS", "PLUGIN_CONFIG_PATH", m_config.path());
    }

    // The document's four uplinks: two of modem 77 (the second with status "power low"
    // and a volume flow), one of 5078 and a heartbeat of 5078.
    void send_documented_uplinks() {
        publish_uplink(77, "78041339300000", 1, 1790000000);
        publish_uplink(77, "7a2a0400000413a13000000b3b503402", 2, 1790003600);
        publish_uplink(5078, "78041339300000", 1, 1790000000);
        ASSERT_TRUE(accepted(77, 2));
        ASSERT_TRUE(accepted(5078, 1));
        m_sender->publish("nc.0.ul.marl2.proto7.5078", QJsonObject{{"msg_type", "ul_hb"},
                                                                   {"modem_id", 5078},
                                                                   {"protocol", "proto7"},
                                                                   {"hw_type", "X"},
                                                                   {"station_id", 6},
                                                                   {"time_detected", 1790000600},
                                                                   {"temperature", 21.5},
                                                                   {"voltage", 3.6}});
        const bool stored = e2e::wait_until([&] {
            const QJsonObject roll = call("get_roll", QJsonObject{{"modem_id", e2e::ids({5078})}});
            return roll.value("5078").toArray().size() == 2;
        });
        ASSERT_TRUE(stored) << "the heartbeat of 5078 was not stored";
    }

    void replay(const example& e) {
        const QJsonObject request = m_shapes.substitute(e.request).toObject();
        const QJsonObject response = call(e.command, request);
        const QStringList problems = m_shapes.compare(e.response, response, e.abbreviated);
        EXPECT_TRUE(problems.isEmpty())
            << "docs/api.md line " << e.line << ", " << e.command.toStdString() << " "
            << QJsonDocument(request).toJson(QJsonDocument::Compact).toStdString() << ":\n  "
            << problems.join("\n  ").toStdString()
            << "\nresponse: " << QJsonDocument(response).toJson(QJsonDocument::Compact).toStdString();
        m_shapes.learn(e.response, response);
    }

    QTemporaryDir m_config;
    shape_check m_shapes;
};

TEST_F(DocumentedExamples, EveryRequestExampleGetsItsDocumentedShape) {
    QStringList errors;
    std::vector<doc_examples::other_block> others;
    const std::vector<example> examples = doc_examples::read(api_document(), errors, &others);
    EXPECT_TRUE(errors.isEmpty()) << errors.join('\n').toStdString();
    // Every other JSON block stands where it is known not to be a request.
    for (const doc_examples::other_block& block : others) {
        EXPECT_TRUE(not_replayed.contains(block.heading))
            << "docs/api.md line " << block.line << ": a JSON block under \"" << block.heading.toStdString()
            << "\" that is no Request/Response example; write it as one or list the section as not replayed";
    }

    // Every command the service knows has at least one example.
    QSet<QString> documented;
    for (const example& e : examples) {
        documented.insert(e.command);
    }
    for (const command_row& row : command_table()) {
        EXPECT_TRUE(documented.contains(row.name))
            << row.name.toStdString() << " has no example in docs/api.md";
    }

    send_documented_uplinks();
    for (const example& e : examples) {
        if (!replayed_last.contains(e.command)) {
            replay(e);
        }
    }
    for (const example& e : examples) {
        if (replayed_last.contains(e.command)) {
            replay(e);
        }
    }
    EXPECT_TRUE(m_service.wait_for_exit()) << "exit was replayed last: the service must have ended";
}

// The comparison itself, on hand-written documents.
TEST(DocShapes, KeysAndTypesCountValuesDoNot) {
    shape_check check;
    const QJsonObject doc{{"77", QJsonObject{{"ok", true}, {"bd_id", "x"}}}};
    EXPECT_TRUE(
        check.compare(doc, QJsonObject{{"77", QJsonObject{{"ok", false}, {"bd_id", "y"}}}}, false).isEmpty());
    EXPECT_EQ(check.compare(doc, QJsonObject{{"77", QJsonObject{{"ok", 1}, {"bd_id", "y"}}}}, false),
              QStringList{"/77/ok: documented boolean, got number"});
    EXPECT_EQ(check.compare(doc, QJsonObject{{"77", QJsonObject{{"ok", true}}}}, false),
              QStringList{"/77/bd_id: documented string, got missing"});
    EXPECT_EQ(
        check.compare(doc, QJsonObject{{"77", QJsonObject{{"ok", true}, {"bd_id", "y"}, {"z", 0}}}}, false),
        QStringList{"/77/z: not documented"});
    // Cut examples allow more keys, never fewer.
    EXPECT_TRUE(
        check.compare(doc, QJsonObject{{"77", QJsonObject{{"ok", true}, {"bd_id", "y"}, {"z", 0}}}}, true)
            .isEmpty());
    EXPECT_FALSE(
        check.compare(QJsonObject{{"a", 1}, {"...", "..."}}, QJsonObject{{"b", 1}}, false).isEmpty());
    EXPECT_TRUE(check.compare(QJsonObject{{"a", 1}, {"...", "..."}}, QJsonObject{{"a", 2}, {"b", 1}}, false)
                    .isEmpty());
}

TEST(DocShapes, ArraysMatchElementByElementAndEmptinessCounts) {
    shape_check check;
    const QJsonArray doc{QJsonObject{{"value", 1.5}}, QJsonObject{{"event_code", 4}}};
    EXPECT_TRUE(
        check.compare(doc, QJsonArray{QJsonObject{{"event_code", 9}}, QJsonObject{{"value", 2}}}, false)
            .isEmpty());
    EXPECT_FALSE(check.compare(doc, QJsonArray{QJsonObject{{"other", 9}}}, false).isEmpty());
    EXPECT_FALSE(check.compare(doc, QJsonArray{}, false).isEmpty());
    EXPECT_FALSE(check.compare(QJsonArray{}, QJsonArray{1}, false).isEmpty());
}

TEST(DocShapes, DocumentedIdsStandForTheRealOnesInLaterRequests) {
    shape_check check;
    const QString doc_id = "56c1c3e1-c4d1-4078-954a-1eac539327dd";
    const QString real_id = "0b0a1c2d-0000-4000-8000-000000000001";
    check.learn(QJsonObject{{"77", QJsonObject{{"bd_id", doc_id}}}},
                QJsonObject{{"77", QJsonObject{{"bd_id", real_id}}}});
    EXPECT_EQ(check.substitute(QJsonObject{{"db_id", QJsonArray{doc_id, "no-such-id"}}}),
              QJsonValue(QJsonObject{{"db_id", QJsonArray{real_id, "no-such-id"}}}));
    EXPECT_TRUE(
        check.compare(QJsonObject{{doc_id, QJsonObject{}}}, QJsonObject{{real_id, QJsonObject{}}}, false)
            .isEmpty());
}

TEST(DocShapes, ExamplesAreReadWithTheirCommandAndCut) {
    QStringList errors;
    std::vector<doc_examples::other_block> others;
    const auto examples = doc_examples::read(
        "# x\n\nThe shape, abbreviated:\n\nRequest `get_ids`:\n\n```json\n{\"a\": 1}\n```\n\nResponse:\n\n"
        "```json\n{\"b\": [1]}\n```\n\nRequest `exit`:\n\n```json\n{}\n```\n\nResponse:\n\n```json\n{}\n```\n"
        "Request `get_roll`:\n\n```json\n{broken\n```\n\nResponse:\n\n```json\n{}\n```\n"
        "## Other\n\n```json\n{\"c\": 1}\n```\n",
        errors, &others);
    ASSERT_EQ(examples.size(), 2u);
    EXPECT_EQ(examples[0].command, "get_ids");
    EXPECT_EQ(examples[0].request, QJsonValue(QJsonObject{{"a", 1}}));
    EXPECT_EQ(examples[0].response, QJsonValue(QJsonObject{{"b", QJsonArray{1}}}));
    EXPECT_TRUE(examples[0].abbreviated);
    EXPECT_EQ(examples[1].command, "exit");
    EXPECT_FALSE(examples[1].abbreviated);
    EXPECT_EQ(errors.size(), 1);
    // The broken example's blocks and the stray one are not examples.
    ASSERT_EQ(others.size(), 3u);
    EXPECT_EQ(others[0].heading, "x");
    EXPECT_EQ(others[2].heading, "Other");
}

}  // namespace
