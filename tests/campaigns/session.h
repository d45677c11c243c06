// A session that a campaign damages: it asks for everything, again and again, and looks at what comes.
#pragma once

#include <chrono>
#include <random>

#include "tests/engine/engine_fixture.h"

namespace test {

inline constexpr int kDamages = TAVIRN_SANITIZED ? 150 : 1000;

class CampaignTest : public EngineTest {
protected:
    CampaignTest() {
        card.stream(1).from("12:00:00").pictures(90).gop(10).closed();
        card.stream(2).from("12:00:05").fps(10).pictures(40).gop(5).closed();
        card.stream(3).from("12:00:20").fps(25).pictures(60).gop(25).closed();
        card.alarm("12:00:01", "12:00:02");
        card.alarm("12:00:21", "12:00:22");
        chunk = card.chunkPath(1);
        soundChunk = readFile(chunk);
        soundIndex = readFile(paths().index);
        testing::internal::CaptureStdout(); // the engine says each speed there
    }
    ~CampaignTest() override { testing::internal::GetCapturedStdout(); }

    /// Some of every kind of movement. Each block shown is PAUSE, or lies on the card where the header that
    /// was accepted says.
    void useEverything() {
        for (const auto& [name, value] : {std::pair{"Jump", "oldest"},
                                          {"Scale", "1"},
                                          {"Jump", "next-alarm"},
                                          {"Scale", "4"},
                                          {"Step", "3"},
                                          {"Jump", "clock=20240102T120006Z"},
                                          {"Scale", "-2"},
                                          {"Step", "-1"},
                                          {"Jump", "prev-alarm"},
                                          {"Scale", "-0.5"},
                                          {"Jump", "latest"},
                                          {"Scale", "0.5"}}) {
            engine.play({{name, value}});
            for (int pass = 0; pass < 3; ++pass) look(engine.turn());
        }
    }
    void look(const std::string& block) {
        if (block.empty() || block == kPauseBlock) return;
        PICTURE_HEADER picture;
        engine.video().getPicH(&picture);
        EXPECT_EQ(block.size(), picture.size);
        if (!fileExists(chunk)) return; // shown from the file that was open
        std::string ring = readFile(chunk);
        if (picture.size > soundChunk.size()) return;
        ring.resize(soundChunk.size(), '\0'); // what is cut off comes as zeros, or not at all
        EXPECT_TRUE(block == (ring + ring).substr(picture.offset % ring.size(), picture.size))
            << picture.offset;
    }
    /// Plays again, from the first picture on.
    bool works() {
        engine.play({{"Jump", "oldest"}});
        return engine.turn() == pictureBytes(1, 0, true) && engine.play() >= 0 &&
               engine.turn() == pictureBytes(1, 1, false);
    }

    std::string chunk, soundChunk, soundIndex;
    uint32_t seed = 20'240'102;
    std::mt19937 chance{seed};
    uint32_t below(uint64_t limit) { return static_cast<uint32_t>(chance() % limit); }
    Engine engine{1};
};

} // namespace test
