#include <gtest/gtest.h>

#include <QJsonArray>
#include <thread>
#include <vector>

#include "model/deferred_document.h"
#include "model/json.h"
#include "model/json_text.h"

namespace {

using model::deferred_document;

QJsonDocument sample() {
    return QJsonDocument(
        QJsonObject{{"records", QJsonArray{QJsonObject{{"value", 12.5}}}}, {"status", "ok"}});
}

// A deferred document that counts how often it was built.
deferred_document counted(int& builds) {
    return deferred_document::built_by([&builds] {
        ++builds;
        return sample();
    });
}

TEST(DeferredDocument, IsBuiltOnFirstReadOnlyAndOnceForAllCopies) {
    int builds = 0;
    const deferred_document d = counted(builds);
    const deferred_document copy = d;
    EXPECT_EQ(builds, 0);
    EXPECT_FALSE(d.is_built());

    EXPECT_EQ(copy.object().value("status").toString(), "ok");
    EXPECT_EQ(builds, 1);
    EXPECT_TRUE(d.is_built());
    EXPECT_EQ(d.object()["records"].toArray().at(0).toObject().value("value").toDouble(), 12.5);
    EXPECT_TRUE(d.isObject());
    EXPECT_FALSE(d.isArray());
    EXPECT_FALSE(d.isNull());
    EXPECT_EQ(builds, 1);
}

TEST(DeferredDocument, ReadsAsTheDocumentItStandsFor) {
    int builds = 0;
    const deferred_document d = counted(builds);
    const QJsonDocument& as_document = d;
    EXPECT_EQ(as_document, sample());
    EXPECT_TRUE(d == sample());
    EXPECT_TRUE(sample() == d);
    EXPECT_FALSE(d != sample());
    EXPECT_EQ(d.toJson(QJsonDocument::Compact), QByteArray(R"({"records":[{"value":12.5}],"status":"ok"})"));
    EXPECT_EQ(d.toJson(), sample().toJson());
    EXPECT_EQ(d.toVariant(), sample().toVariant());
    EXPECT_TRUE(d == deferred_document(sample()));
    EXPECT_TRUE(d != deferred_document(QJsonDocument(QJsonObject{{"status", "ok"}})));
}

TEST(DeferredDocument, DefaultAndAssignedDocumentsAreThoseDocuments) {
    const deferred_document none;
    EXPECT_TRUE(none.isNull());
    EXPECT_TRUE(none.isEmpty());
    EXPECT_TRUE(none.is_built());
    EXPECT_TRUE(none == QJsonDocument());

    deferred_document d;
    d = QJsonDocument(QJsonArray{1, 2});
    EXPECT_TRUE(d.isArray());
    EXPECT_EQ(d.array().size(), 2);
    EXPECT_TRUE(d.is_built());
}

TEST(DeferredDocument, AssigningReplacesTheDocumentOfThisCopyOnly) {
    int builds = 0;
    const deferred_document original = counted(builds);
    deferred_document changed = original;
    changed = QJsonDocument(QJsonObject{{"status", "changed"}});
    EXPECT_EQ(changed.object().value("status").toString(), "changed");
    EXPECT_EQ(original.object().value("status").toString(), "ok");
    EXPECT_EQ(builds, 1);
}

TEST(DeferredDocument, ConcurrentFirstReadsBuildOnce) {
    int builds = 0;
    const deferred_document d = counted(builds);
    std::vector<std::thread> readers;
    std::vector<QString> seen(4);
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([&, i] { seen[size_t(i)] = d.object().value("status").toString(); });
    }
    for (auto& t : readers) {
        t.join();
    }
    EXPECT_EQ(builds, 1);
    for (const QString& s : seen) {
        EXPECT_EQ(s, "ok");
    }
}

// The message's writers see the deferred data as they saw a document set directly.
TEST(DeferredDocument, MessageWritersGiveTheSameTextAsWithTheDocumentItself) {
    model::ul_message eager;
    eager.modem_id = 7;
    eager.data = sample();
    model::ul_message deferred = eager;
    deferred.data = deferred_document::built_by(sample);
    EXPECT_EQ(QJsonDocument(model::to_json(deferred)).toJson(QJsonDocument::Compact),
              QJsonDocument(model::to_json(eager)).toJson(QJsonDocument::Compact));
    EXPECT_EQ(model::json_text(deferred), model::json_text(eager));
    EXPECT_TRUE(model::json_text(eager).contains(R"("data":{"records":[{"value":12.5}],"status":"ok"})"));
}

}  // namespace
