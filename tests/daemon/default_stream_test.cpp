#include "daemon/default_stream.h"

#include <gtest/gtest.h>

#include "platform/paths.h"
#include "shm/shm_server.h"
#include "tests/daemon/said.h"
#include "tests/support/card.h"

namespace {

TEST(DefaultStream, IsTheNewestRecordedElseTheOneBeingRecorded) {
    const std::string unreadable = "0/4: 3 searchDefaultStream() file-open err\n";
    const std::string none = "0/0: 3 searchDefaultStream() apiDB setSql not found record\n";
    const std::string found = "/0: 6 searchDefaultStream() apiDB setSql found stream ID = ";
    const struct {
        char detect, readOnly; ///< '\0' = an empty file
        unsigned long hint;
        uint32_t recStreamID, recPictures;
        std::string result; ///< "id/error number: " and what is logged
    } cases[] = {
        {'1', '1', kNoStreamHint, 13, 30, "0/6: "},
        {'\0', '0', kNoStreamHint, 13, 30, unreadable},
        {'0', '\0', kNoStreamHint, 13, 30, unreadable},
        {'0', '1', kNoStreamHint, 13, 30, "12" + found + "12\n"},
        {'1', '0', 12, 13, 30, "12" + found + "12\n"},
        {'1', '0', 11, 13, 30, "7" + found + "7\n"},
        {'1', '0', 6, 13, 30, "13/0: "}, // the bound is not for the stream under recording
        {'1', '0', 6, 13, 0, none},      // nothing in it yet
        {'1', '0', 6, 0, 30, none},
        {'1', '0', 6, 14, 30, none}, // not in the index
    };
    test::World world;
    CtavirnShmServer status;
    status.openStatus(world.statusKey());
    const auto search = [&](unsigned long hint) {
        const test::LogRecorder log;
        unsigned long errorNo = 99;
        const std::string id = std::to_string(searchDefaultStream(hint, &errorNo, &status));
        return id + "/" + std::to_string(errorNo) + ": " + said(log);
    };
    EXPECT_EQ(search(kNoStreamHint), "0/5: ");
    test::Card card(world);
    card.stream(7).from("12:00:00").pictures(30).closed();
    card.stream(12).from("12:01:00").pictures(30).closed();
    card.stream(13).from("12:02:00").pictures(30).recording();
    card.sql("UPDATE STREAM SET recSize = 0 WHERE streamID = 13");
    for (const auto& [detect, readOnly, hint, recStreamID, recPictures, result] : cases) {
        world.setCardState(detect, readOnly);
        status.m_status->recStreamID = recStreamID;
        status.m_status->recPictures = recPictures;
        EXPECT_EQ(search(hint), result) << detect << readOnly << " " << hint << " " << recStreamID;
    }
    test::writeFile(paths().index, "no database");
    EXPECT_EQ(search(kNoStreamHint), "0/1: 3 searchDefaultStream() apiDB setSql error\n");
}

} // namespace
