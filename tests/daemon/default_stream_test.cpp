#include "daemon/default_stream.h"

#include <gtest/gtest.h>

#include "platform/paths.h"
#include "shm/shm_server.h"
#include "tests/support/card.h"
#include "tests/support/log_recorder.h"

namespace {

struct DefaultStream : testing::Test {
    void SetUp() override { status.m_status = static_cast<REC_STATUS*>(status.creat(world.statusKey())); }

    /// "id/error number: message", the one message there may be.
    std::string search(unsigned long hint = kNoStreamHint) {
        const test::LogRecorder log;
        unsigned long errorNo = 99;
        const unsigned long id = searchDefaultStream(hint, &errorNo, &status);
        const auto lines = log.lines();
        EXPECT_LE(lines.size(), 1u) << log.dump();
        const std::string text = lines.empty() ? "searchDefaultStream() " : lines[0].text;
        EXPECT_EQ(text.rfind("searchDefaultStream(", 0), 0u) << text;
        return std::to_string(id) + "/" + std::to_string(errorNo) + ": " + text.substr(text.find(' ') + 1);
    }

    test::World world;
    CtavirnShmServer status;
};

TEST_F(DefaultStream, NeedsAnIndexAndAUsableCard) {
    EXPECT_EQ(search(), "0/5: ");
    test::Card(world).stream(3).from("12:00:00").pictures(30).closed();
    const auto searchWith = [&](char detect, char readOnly) {
        world.setCardState(detect, readOnly);
        return search();
    };
    EXPECT_EQ(searchWith('1', '1'), "0/6: ");
    EXPECT_EQ(searchWith('0', '1'), "3/0: apiDB setSql found stream ID = 3");
    EXPECT_EQ(searchWith('1', '0'), "3/0: apiDB setSql found stream ID = 3");
    EXPECT_EQ(searchWith('\0', '0'), "0/4: file-open err");
    ASSERT_EQ(remove(paths().cardReadOnly), 0);
    EXPECT_EQ(search(), "0/4: file-open err");
    test::writeFile(paths().index, "no database");
    EXPECT_EQ(searchWith('0', '0'), "0/1: apiDB setSql error");
}

TEST_F(DefaultStream, IsTheNewestRecordedElseTheOneBeingRecorded) {
    test::Card card(world);
    card.stream(7).from("12:00:00").pictures(30).closed();
    card.stream(12).from("12:01:00").pictures(30).closed();
    card.stream(13).from("12:02:00").pictures(30).recording();
    card.sql("UPDATE STREAM SET recSize = 0 WHERE streamID = 13");
    const std::string none = "0/0: apiDB setSql not found record";
    const std::string seven = "7/0: apiDB setSql found stream ID = 7";
    const std::string twelve = "12/0: apiDB setSql found stream ID = 12";
    const struct {
        unsigned long hint;
        uint32_t recStreamID, recPictures;
        std::string result;
    } cases[] = {
        {kNoStreamHint, 13, 30, twelve},
        {12, 13, 30, twelve},
        {11, 13, 30, seven},
        {6, 13, 30, "13/0: "}, // the bound is not for the stream under recording
        {6, 13, 0, none},      // nothing in it yet
        {6, 0, 30, none},
        {6, 14, 30, none}, // not in the index
    };
    for (const auto& [hint, recStreamID, recPictures, result] : cases) {
        status.m_status->recStreamID = recStreamID;
        status.m_status->recPictures = recPictures;
        EXPECT_EQ(search(hint), result) << hint << " " << recStreamID << " " << recPictures;
    }
}

} // namespace
