// The grouping of a burst's deliveries over store back ends, with back ends that record
// what they were asked and can fail their commit.

#include <gtest/gtest.h>

#include <stdexcept>

#include "engine/delivery_batch.h"

namespace {

class recording_batch : public interfaces::IWriteBatch {
public:
    QStringList m_calls;
    bool m_fail_commit = false;
    bool m_open = false;

    void begin_batch() override {
        m_calls << "begin";
        m_open = true;
    }
    void begin_item() override { m_calls << "item"; }
    void end_item(bool keep) override { m_calls << (keep ? "keep" : "undo"); }
    void commit_batch() override {
        m_calls << "commit";
        m_open = false;
        if (m_fail_commit) {
            throw std::runtime_error("disk I/O error");
        }
    }
    bool batch_open() const override { return m_open; }
};

delivery_batch::delivery delivery(quint64 tag, bool accepted) {
    return {QJsonObject{{"n", int(tag)}}, tag, accepted};
}

}  // namespace

TEST(DeliveryBatch, WithoutBatchingStoresNothingIsOpenedOrDeferred) {
    delivery_batch batch;
    batch.add_store(nullptr);
    EXPECT_FALSE(batch.enabled());
    batch.begin_message();
    EXPECT_FALSE(batch.is_open());
    EXPECT_FALSE(batch.in_message());
    batch.end_message(false);
}

TEST(DeliveryBatch, EachBackEndIsAskedOnceAndSettlementFollowsTheCommitInArrivalOrder) {
    recording_batch a;
    recording_batch b;
    delivery_batch batch;
    batch.add_store(&a);
    batch.add_store(&b);
    batch.add_store(&a);  // a second store object of the same back end

    batch.begin_message();
    EXPECT_TRUE(batch.in_message());
    batch.end_message(true);
    batch.defer(delivery(7, true));
    batch.begin_message();
    batch.end_message(false);
    batch.defer(delivery(8, false));
    EXPECT_EQ(batch.deferred(), 2u);

    std::vector<quint64> settled;
    QStringList commits_at_settlement;
    batch.commit(
        [&](const delivery_batch::delivery& d) {
            settled.push_back(d.tag);
            commits_at_settlement << QString::number(a.m_calls.count("commit") + b.m_calls.count("commit"));
        },
        [&](const delivery_batch::delivery&, const QString&) { ADD_FAILURE() << "no commit failed"; });

    EXPECT_EQ(a.m_calls, (QStringList{"begin", "item", "keep", "item", "undo", "commit"}));
    EXPECT_EQ(b.m_calls, a.m_calls);
    EXPECT_EQ(settled, (std::vector<quint64>{7, 8}));
    EXPECT_EQ(commits_at_settlement, (QStringList{"2", "2"}));
    EXPECT_FALSE(batch.is_open());
    EXPECT_EQ(batch.deferred(), 0u);

    // The next message opens a new batch.
    batch.begin_message();
    EXPECT_EQ(a.m_calls.count("begin"), 2);
}

TEST(DeliveryBatch, AFailedCommitHandsEveryDeliveryToTheFailurePathWithTheReason) {
    recording_batch a;
    recording_batch b;
    b.m_fail_commit = true;
    delivery_batch batch;
    batch.add_store(&a);
    batch.add_store(&b);
    for (quint64 tag : {1, 2}) {
        batch.begin_message();
        batch.end_message(true);
        batch.defer(delivery(tag, true));
    }

    std::vector<quint64> failed;
    QString reason;
    batch.commit([&](const delivery_batch::delivery&) { ADD_FAILURE() << "settled after a failed commit"; },
                 [&](const delivery_batch::delivery& d, const QString& why) {
                     failed.push_back(d.tag);
                     reason = why;
                 });
    EXPECT_EQ(failed, (std::vector<quint64>{1, 2}));
    EXPECT_EQ(reason, "disk I/O error");
    // Every back end was still asked to commit.
    EXPECT_EQ(a.m_calls.count("commit"), 1);
    EXPECT_FALSE(batch.is_open());
}
