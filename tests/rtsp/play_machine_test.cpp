// The play machine against scripted blocks. In a script, a picture is the second of the recording that it was
// taken in; every fifth is an I-picture, and nothing was recorded between 29 and 40.
#include <gmock/gmock.h>
#include <sstream>

#include "daemon/rtsp_request.h"
#include "rtsp/play_machine.h"

namespace {

Picture pictureOf(int second) {
    Picture picture;
    const std::string bytes = std::to_string(second);
    picture.bytes = std::make_shared<const std::vector<char>>(bytes.begin(), bytes.end());
    picture.stamp = static_cast<uint32_t>(second) * 90'000;
    picture.iPicture = second % 5 == 0;
    picture.time = second * 1000;
    if (second != 59) picture.next = second == 29 ? 40'000 : second * 1000 + 1000;
    picture.gapBefore = second == 40;
    picture.gapAfter = second == 29;
    return picture;
}

class Scripted : public PlayOutput {
public:
    /// "at 20", "newest 55", "here", "x20" (tenths), "-25" (until 25), "unread", "held": several words.
    static PlayOrder order(std::istringstream& words) {
        PlayOrder order;
        for (std::string word; words >> word;) {
            if (word[0] == 'x') order.scale = std::stoi(word.substr(1));
            if (word[0] == '-') order.until = std::stoi(word.substr(1)) * 1000;
            if (word == "held") order.holdBack = true;
            if (word == "unread") order.target.reset();
            if (word != "at" && word != "newest") continue;
            order.start = word == "at" ? PlayOrder::Start::at : PlayOrder::Start::newest;
            int second = 0;
            words >> second;
            order.from = second * 1000;
            order.clock = std::to_string(second);
            order.target = pictureOf(second);
        }
        return order;
    }

    /// What comes of one line, in words.
    std::string feed(const std::string& line) {
        m_said.clear();
        std::istringstream words(line);
        std::string what, picture;
        words >> what;
        uint32_t number = 0;
        if (what == "play") m_machine.play(order(words), m_now);
        if (what == "pause") m_machine.pause(m_now);
        if (what == "halt") m_machine.halt(m_now);
        if (what == "lost") m_machine.picturesLost();
        if (what == "done" && words >> number) m_machine.controlDone(RTSP_REQ_PLAY, number, "", m_now);
        if (what == "status" && words >> picture) m_machine.controlDone(RTSP_REQ_STATUS, 0, picture, m_now);
        if (what == "live") m_live = true;
        if (what == "missed" && m_machine.follows()) {
            std::vector<Picture> pictures;
            while (words >> picture) pictures.emplace_back(pictureOf(std::stoi(picture))).stamp.reset();
            m_machine.catchUp(pictures, picture, m_now);
        }
        if (what == "after" && words >> number) {
            m_now += number * 1000;
            m_machine.tick(m_now);
        }
        if (what == "block" && words >> number >> picture) {
            const Picture came = pictureOf(picture == "PAUSE" ? 0 : std::stoi(picture));
            m_machine.block(number, picture == "PAUSE" ? nullptr : &came, m_now);
        }
        return m_said.empty() ? "" : m_said.substr(1);
    }

private:
    void control(int32_t type, const std::string& name, const std::string& value) override {
        const char* kind = type == RTSP_REQ_PLAY ? " <play" : type == RTSP_REQ_PAUSE ? " <pause" : " <status";
        m_said += kind + (name.empty() ? "" : " " + name + ":" + value) + ">";
    }
    void reply(const PlayReply& reply) override {
        m_said += " ok";
        if (reply.from) m_said += " from " + std::to_string(*reply.from / 1000);
        if (reply.firstFollows) m_said += " first";
    }
    void picture(const Picture& picture, const Standing& standing) override {
        m_said += " " + std::string(picture.bytes->data(), picture.bytes->size());
        EXPECT_EQ(*picture.stamp, *picture.time * 90) << "the daemon's, or what it would have given";
        if (standing.endOfSection) m_said += 'E';
        if (standing.discontinuity) m_said += 'D';
        if (standing.terminal) m_said += 'T';
    }
    void goodBye() override { m_said += " bye"; }
    bool recordingGoesOn() override { return m_live; }

    std::string m_said;
    int64_t m_now = 1'000'000;
    bool m_live = false;
    PlayMachine m_machine{*this};
};

struct Script {
    const char* what;
    std::vector<std::pair<const char*, const char*>> lines;
};

const Script kScripts[] = {
    {"a session's first picture comes once; elsewhere, it goes at once, and the daemon's is known by its "
     "bytes",
     {{"block 1 50", ""},
      {"play here", "<play> ok from 50 first 50D"},
      {"block 3 PAUSE", ""},
      {"done 3", ""},
      {"block 4 50", ""},
      {"block 5 51", "51"},
      {"play here", "ok from 51"},
      {"play at 10", "<play Range:clock=10-> ok from 10 first 10D"},
      {"block 6 52", ""}, // of the play before
      {"done 6", ""},
      {"block 7 10", ""}, // before it is certain by number
      {"block 8 11", "11"},
      {"lost", ""}, // and with it what follows, up to the next I-picture
      {"block 9 13", ""},
      {"block 10 15", "15D"}}},
    {"the daemon begins at an earlier I-picture of the second, or at another",
     {{"play at 20", "<play Range:clock=20-> ok from 20 first 20D"},
      {"done 1", ""},
      {"block 3 15", ""},
      {"block 5 20", ""},
      {"block 6 21", "21"},
      {"play at 30", "<play Range:clock=30-> ok from 30 first 30D"},
      {"done 6", ""},
      {"block 8 45", "45D"}}},
    {"without its picture beforehand, it begins with an I-picture that certainly follows",
     {{"play at 20 unread", "<play Range:clock=20->"},
      {"block 2 7", ""},
      {"done 2", ""},
      {"block 4 21", "ok from 21 first"},
      {"block 5 25", "25D"}}},
    {"a scale elsewhere is a jump, and the scale once that is reached",
     {{"play x-20 at 20", "<play Jump:clock=20> ok from 20 first 20D"},
      {"block 2 20", ""},
      {"done 2", "<play Scale:-2.0>"},
      {"block 3 PAUSE", ""},
      {"done 3", ""},
      {"block 5 PAUSE", ""}, // a turn that has not moved on
      {"block 6 15", "15"},
      {"play newest 55", "<play Jump:latest> ok from 55 first 55D"},
      {"done 6", ""},
      {"block 8 PAUSE", "<play>"}, // it stands there already
      {"done 8", ""},
      {"block 9 56", "56"}}},
    {"fast play from here begins with a picture that leaps, normal play with any",
     {{"play at 10", "<play Range:clock=10-> ok from 10 first 10D"},
      {"done 1", ""},
      {"play x20 here", ""}, // waits for the one before
      {"block 2 10", "<play Scale:2.0>"},
      {"block 3 11", ""},
      {"block 5 20", "ok from 20 first 20D"},
      {"done 5", ""},
      {"play here", "<play>"},
      {"block 6 21", "ok from 21 first 21D"}}},
    {"a pause is answered when it has been taken, and goes on with the next picture",
     {{"play at 10", "<play Range:clock=10-> ok from 10 first 10D"},
      {"pause", ""},
      {"done 1", ""},
      {"block 2 10", "<pause>"},
      {"block 3 11", "11"},
      {"done 3", ""},
      {"block 4 PAUSE", ""},
      {"block 5 PAUSE", "ok"},
      {"pause", "ok"},
      {"play here", "<play>"},
      {"done 5", ""},
      {"block 6 11", ""}, // shown once more, as after a Range
      {"block 7 12", "ok from 12 first 12D"}}},
    {"before a gap, behind it, and at the end of the recording and of a range",
     {{"play at 25", "<play Range:clock=25-> ok from 25 first 25D"},
      {"done 1", ""},
      {"block 2 25", ""},
      {"block 3 29", "29E"},
      {"block 3 40", "40D"},
      {"block 4 59", "59ET"},
      {"block 5 PAUSE", "<status>"},
      {"status play", ""},
      {"block 6 PAUSE", "<status>"},
      {"status pause(eof)", "bye"},
      {"play at 10 -10", "<play Range:clock=10-> ok from 10 first 10DT bye <pause>"}}},
    {"at the live edge it plays on, makes up at once what it is late by, and says good-bye after five "
     "seconds",
     {{"live", ""},
      {"play at 50", "<play Range:clock=50-> ok from 50 first 50D"},
      {"done 1", ""},
      {"block 2 50", ""},
      {"missed 51 55", ""}, // it has not been at the edge
      {"block 3 51", "51"},
      {"block 4 PAUSE", "<status>"},
      {"status pause(eof)", ""},
      {"after 300", "<play>"},
      {"done 5", ""},
      {"block 6 52", "52"},
      {"missed 53 54 55", "53 54 55 <play Range:clock=55->"},
      {"block 7 55", ""}, // of the play before, which goes on until it is told
      {"block 8 56", "56"},
      {"done 8", ""},
      {"block 10 55", ""},
      {"block 11 56", ""},
      {"block 12 57", "57"},
      {"block 13 PAUSE", "<status>"},
      {"status pause(eof)", ""},
      {"after 5100", "bye"}}},
    {"reverse play holds each picture back until it is known how it stands",
     {{"play x-10 at 20 held -5", "<play Jump:clock=20> ok from 20 first"},
      {"block 2 20", ""},
      {"done 2", "<play Scale:-1.0>"},
      {"done 3", ""},
      {"block 4 15", "20D"},
      {"block 5 5", "15"},
      {"block 6 0", "5T bye <pause>"},
      {"play at 10 held", ""},
      {"done 6", ""},
      {"block 8 PAUSE", "<play Range:clock=10-> ok from 10 first"},
      {"halt", ""}, // nothing comes any more, not even what is held back
      {"done 8", ""},
      {"block 10 11", "<pause>"}}},
    {"no picture: answered after a second and a half; a session kept alive",
     {{"play here", "<play>"}, {"done 1", ""}, {"after 1600", "ok"}, {"after 19000", "<status>"}}},
};

TEST(PlayMachine, KeepsToItsScripts) {
    for (const Script& script : kScripts) {
        Scripted machine;
        for (const auto& [line, expected] : script.lines)
            EXPECT_EQ(machine.feed(line), expected) << script.what << ": " << line;
    }
}

} // namespace
