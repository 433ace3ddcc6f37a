// The grouping of a burst's deliveries over store back ends, with back ends that record
// what they were asked and can fail their commit or lose their transaction.

#include <gtest/gtest.h>

#include <stdexcept>

#include "engine/burst_policy.h"
#include "engine/delivery_batch.h"

namespace {

class recording_batch : public interfaces::IWriteBatch {
public:
    QStringList m_calls;
    bool m_fail_commit = false;
    bool m_lose_transaction = false;
    bool m_open = false;

    void begin_batch() override {
        m_calls << "begin";
        m_open = true;
    }
    void begin_item() override { m_calls << "item"; }
    bool end_item(bool keep) override {
        m_calls << (keep ? "keep" : "undo");
        return !m_lose_transaction;
    }
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
    return {QJsonObject{{"n", int(tag)}}, tag, accepted, QString()};
}

std::vector<quint64> tags(const std::vector<delivery_batch::delivery>& deliveries) {
    std::vector<quint64> out;
    for (const auto& d : deliveries) {
        out.push_back(d.tag);
    }
    return out;
}

}  // namespace

TEST(DeliveryBatch, WithoutBatchingStoresNothingIsOpenedOrDeferred) {
    delivery_batch batch;
    batch.add_store(nullptr);
    EXPECT_FALSE(batch.enabled());
    batch.begin_unit();
    EXPECT_FALSE(batch.is_open());
    EXPECT_FALSE(batch.in_unit());
    EXPECT_TRUE(batch.end_unit(false));
    EXPECT_TRUE(batch.commit().committed());
}

TEST(DeliveryBatch, EachBackEndIsAskedOnceAndUnitsNestInsideOneTransaction) {
    recording_batch a;
    recording_batch b;
    delivery_batch batch;
    batch.add_store(&a);
    batch.add_store(&b);
    batch.add_store(&a);  // a second store object of the same back end

    batch.begin_unit();
    EXPECT_TRUE(batch.in_unit());
    batch.begin_unit();  // a step after the message's own writes
    EXPECT_TRUE(batch.end_unit(false));
    EXPECT_TRUE(batch.end_unit(true));
    EXPECT_FALSE(batch.in_unit());
    batch.defer(delivery(7, true));
    batch.begin_unit();
    EXPECT_TRUE(batch.end_unit(false));
    batch.defer(delivery(8, false));
    EXPECT_EQ(batch.deferred(), 2u);

    const delivery_batch::commit_result done = batch.commit();
    EXPECT_TRUE(done.committed());
    EXPECT_TRUE(done.error.isEmpty());
    EXPECT_EQ(a.m_calls, (QStringList{"begin", "item", "item", "undo", "keep", "item", "undo", "commit"}));
    EXPECT_EQ(b.m_calls, a.m_calls);
    EXPECT_FALSE(batch.is_open());
    EXPECT_EQ(tags(batch.take_deferred()), (std::vector<quint64>{7, 8}));
    EXPECT_EQ(batch.deferred(), 0u);

    // The next unit opens a new batch.
    batch.begin_unit();
    EXPECT_EQ(a.m_calls.count("begin"), 2);
}

TEST(DeliveryBatch, AFailedCommitIsReportedWithTheReasonAndKeepsTheDeliveries) {
    recording_batch a;
    recording_batch b;
    b.m_fail_commit = true;
    delivery_batch batch;
    batch.add_store(&a);
    batch.add_store(&b);
    for (quint64 tag : {1, 2}) {
        batch.begin_unit();
        batch.end_unit(true);
        batch.defer(delivery(tag, true));
    }

    const delivery_batch::commit_result done = batch.commit();
    EXPECT_FALSE(done.committed());
    EXPECT_EQ(done.error, "disk I/O error");
    // Every back end was still asked to commit.
    EXPECT_EQ(a.m_calls.count("commit"), 1);
    EXPECT_FALSE(batch.is_open());
    EXPECT_EQ(tags(batch.take_deferred()), (std::vector<quint64>{1, 2}));
}

TEST(DeliveryBatch, ALostTransactionIsToldWhenTheUnitEnds) {
    recording_batch a;
    delivery_batch batch;
    batch.add_store(&a);
    batch.begin_unit();
    a.m_lose_transaction = true;
    EXPECT_FALSE(batch.end_unit(true));
}

// What ends a burst: half the prefetch window, never less than one delivery and never
// more than 64; the loop's turn and exclusive work end any burst, even an empty one.
TEST(BurstPolicy, HalfThePrefetchWindowBoundedByOneAndSixtyFour) {
    using event = burst_policy::event;
    EXPECT_EQ(burst_policy(1).window(), 1u);
    EXPECT_EQ(burst_policy(0).window(), 1u);
    EXPECT_EQ(burst_policy(7).window(), 3u);
    EXPECT_EQ(burst_policy(128).window(), 64u);
    EXPECT_EQ(burst_policy(1000).window(), 64u);

    const burst_policy six(6);
    EXPECT_FALSE(six.ends(event::delivery_handled, 2));
    EXPECT_TRUE(six.ends(event::delivery_handled, 3));
    EXPECT_TRUE(six.ends(event::loop_turned, 1));
    EXPECT_TRUE(six.ends(event::loop_turned, 0));
    EXPECT_TRUE(six.ends(event::exclusive_work, 0));
}
