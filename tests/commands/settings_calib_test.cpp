#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>
#include <QVariantMap>

#include "commands/ReadCalib.h"
#include "commands/ReadSetting.h"
#include "commands/WriteCalib.h"
#include "commands/WriteSetting.h"
#include "history_fakes.h"

using namespace history_fakes;

namespace {

const QJsonObject fail{{"status", "fail"}};

}  // namespace

// --- write_setting -------------------------------------------------------------------

TEST(WriteSetting, OnlyOwnedModemsReachTheDriver) {
    fixture f;
    f.own(10);
    f.foreign(20);
    const QJsonObject reply = WriteSetting(f.context).execute(
        command({{"settings",
                  QJsonObject{{"10", QJsonObject{{"period", 60}}}, {"20", QJsonObject{{"period", 5}}}}}}));
    EXPECT_EQ(reply, (QJsonObject{{"10", "ok"}}));
    ASSERT_EQ(f.driver->m_written_settings.size(), 1u);
    const auto& written = f.driver->m_written_settings[0];
    ASSERT_EQ(written.size(), 1u);
    ASSERT_EQ(written.count(10), 1u);
    ASSERT_EQ(written.at(10).size(), 1);
    EXPECT_EQ(written.at(10)[0].name, "period");
    EXPECT_EQ(written.at(10)[0].value.toInt(), 60);
}

TEST(WriteSetting, StructuredValuesTravelAsDocumentsAndScalarsAsVariants) {
    fixture f;
    f.own(1);
    WriteSetting(f.context).execute(
        command({{"settings", QJsonObject{{"1", QJsonObject{
                                                    {"schedule", QJsonObject{{"h", 3}}},
                                                    {"list", QJsonArray{1, 2}},
                                                    {"name", "north"},
                                                    {"on", true},
                                                }}}}}));
    const QList<model::setting_item> items = f.driver->m_written_settings.at(0).at(1);
    ASSERT_EQ(items.size(), 4);
    std::map<QString, model::setting_item> by_name;
    for (const auto& item : items) {
        by_name[item.name] = item;
    }
    EXPECT_EQ(by_name["schedule"].document.object(), (QJsonObject{{"h", 3}}));
    EXPECT_FALSE(by_name["schedule"].value.isValid());
    EXPECT_EQ(by_name["list"].document.array(), (QJsonArray{1, 2}));
    EXPECT_TRUE(by_name["name"].document.isNull());
    EXPECT_EQ(by_name["name"].value.toString(), "north");
    EXPECT_EQ(by_name["on"].value, QVariant(true));
}

TEST(WriteSetting, MissingSettingsFails) {
    fixture f;
    EXPECT_EQ(WriteSetting(f.context).execute(command({{"modem_id", QJsonArray{1}}})), fail);
    EXPECT_TRUE(f.driver->m_written_settings.empty());
}

TEST(WriteSetting, KeyThatIsNotANumberIsSkipped) {
    fixture f;
    f.own(3);
    const QJsonObject reply = WriteSetting(f.context).execute(
        command({{"settings", QJsonObject{{"x3", QJsonObject{{"a", 1}}}, {"3", QJsonObject{{"a", 2}}}}}}));
    EXPECT_EQ(reply, (QJsonObject{{"3", "ok"}}));
    EXPECT_EQ(f.driver->m_written_settings.at(0).size(), 1u);
}

// --- write_calib ---------------------------------------------------------------------

TEST(WriteCalib, TextValueReachesTheDriverAsZero) {
    fixture f;
    f.own(4);
    f.foreign(5);
    const QJsonObject reply = WriteCalib(f.context).execute(command(
        {{"calibs", QJsonObject{{"4", QJsonObject{{"ch1", QJsonObject{{"gain", 1.5}, {"offset", "abc"}}},
                                                  {"ch2", QJsonObject{{"gain", -2}}}}},
                                {"5", QJsonObject{{"ch1", QJsonObject{{"gain", 9}}}}}}}}));
    EXPECT_EQ(reply, (QJsonObject{{"4", "ok"}}));
    ASSERT_EQ(f.driver->m_written_calibs.size(), 1u);
    const auto& written = f.driver->m_written_calibs[0];
    ASSERT_EQ(written.size(), 1u);
    const QList<model::calib_item> items = written.at(4);
    ASSERT_EQ(items.size(), 3);
    EXPECT_EQ(items[0].group, "ch1");
    EXPECT_EQ(items[0].name, "gain");
    EXPECT_EQ(items[0].value, 1.5);
    EXPECT_EQ(items[1].name, "offset");
    EXPECT_EQ(items[1].value, 0.0);
    EXPECT_EQ(items[2].group, "ch2");
    EXPECT_EQ(items[2].value, -2.0);
}

TEST(WriteCalib, MissingCalibsFails) {
    fixture f;
    EXPECT_EQ(WriteCalib(f.context).execute(command({{"settings", QJsonObject{}}})), fail);
    EXPECT_TRUE(f.driver->m_written_calibs.empty());
}

// --- read_setting --------------------------------------------------------------------

TEST(ReadSetting, NamedSettingsNestUnderTheirModem) {
    fixture f;
    f.own(1);
    f.own(2);
    f.foreign(3);
    f.driver->m_setting_results = {{1, "period", 60}, {1, "mode", "eco"}, {2, "period", 30}};
    const QJsonObject reply = ReadSetting(f.context).execute(
        command({{"modem_id", QJsonArray{1, 2, 3}}, {"settings", QJsonArray{"period", "mode"}}}));
    EXPECT_EQ(f.driver->m_read_modems, (QList<int>{1, 2}));
    EXPECT_EQ(f.driver->m_read_names, (QStringList{"period", "mode"}));
    EXPECT_EQ(reply, (QJsonObject{{"1", QJsonObject{{"period", 60}, {"mode", "eco"}}},
                                  {"2", QJsonObject{{"period", 30}}}}));
}

TEST(ReadSetting, WithoutNamesEachModemGetsItsWholeMap) {
    fixture f;
    f.own(1);
    f.driver->m_setting_results = {{1, "", QVariantMap{{"period", 60}, {"mode", "eco"}}}};
    const QJsonObject reply = ReadSetting(f.context).execute(command({{"modem_id", QJsonArray{1}}}));
    EXPECT_TRUE(f.driver->m_read_names.isEmpty());
    EXPECT_EQ(reply, (QJsonObject{{"1", QJsonObject{{"period", 60}, {"mode", "eco"}}}}));
}

TEST(ReadSetting, MissingModemIdFails) {
    fixture f;
    EXPECT_EQ(ReadSetting(f.context).execute(command({{"settings", QJsonArray{"a"}}})), fail);
    EXPECT_EQ(ReadCalib(f.context).execute(command({{"calibs", QJsonArray{"a"}}})), fail);
}

// --- read_calib ----------------------------------------------------------------------

TEST(ReadCalib, NestsModemGroupNameNumber) {
    fixture f;
    f.own(6);
    f.own(7);
    f.driver->m_calib_results = {
        {6, "ch1", "gain", 1.25}, {6, "ch1", "offset", -3}, {6, "ch2", "gain", 2}, {7, "ch1", "gain", 0.5}};
    const QJsonObject reply = ReadCalib(f.context).execute(
        command({{"modem_id", QJsonArray{6, 7}}, {"calibs", QJsonArray{"ch1", "ch2"}}}));
    EXPECT_EQ(f.driver->m_read_names, (QStringList{"ch1", "ch2"}));
    EXPECT_EQ(reply, (QJsonObject{
                         {"6", QJsonObject{{"ch1", QJsonObject{{"gain", 1.25}, {"offset", -3}}},
                                           {"ch2", QJsonObject{{"gain", 2}}}}},
                         {"7", QJsonObject{{"ch1", QJsonObject{{"gain", 0.5}}}}},
                     }));
}
