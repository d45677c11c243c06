// tavirn-ctl: sends the daemon one request, as the RTSP server would, and says what the answer means.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/paths.h"
#include "tools/client/control_client.h"
#include "tools/common/command_line.h"
#include "tools/common/json.h"
#include "tools/ctl/index_listing.h"
#include "tools/ctl/play_value.h"

namespace {

constexpr int kUnreachable = 3;

constexpr char kExitCodes[] =
    "Exit codes: 0 done, 1 the daemon refused or answered nonsense, 2 wrong usage, 3 the daemon or the index "
    "cannot be reached.\n"
    "The daemon answers only open and status. It ignores requests of another session without a word: ask for "
    "the status to see what became of one.";

struct Options {
    std::function<void()> command; ///< what the command line asks for
    uint32_t session = 1;
    std::string scale;
    std::string step;
    std::string range;
    std::string jump;
    uint32_t skipMs = 0;
    bool json = false;
};

std::string ask(const ControlRequest& request) {
    if (std::optional<std::string> answer = exchange(paths().controlSocket, request.record)) return *answer;
    const std::string daemon = std::string("the daemon at ") + paths().controlSocket;
    if (errno == ETIMEDOUT) throw Failure(kUnreachable, daemon + " does not answer in time");
    throw Failure(kUnreachable, "cannot reach " + daemon + ": " + std::strerror(errno));
}

ControlRequest ofSession(const Options& options, int32_t type) {
    return std::move(ControlRequest(type).with("Session", std::to_string(options.session)));
}

void send(const Options& options, int32_t type) {
    ask(ofSession(options, type));
}

void print(const std::string& text) {
    std::fputs(text.c_str(), stdout);
}

std::string hexText(const std::string& bytes) {
    std::string text;
    char digits[3];
    for (const char byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(byte) & 0xFF);
        text += digits;
    }
    return text;
}

void open(const Options& options) {
    struct Meaning {
        const char* word;
        const char* sentence;
    };
    const auto meaning = [](OpenAnswer answer) -> Meaning {
        switch (answer) {
        case OpenAnswer::opened:
            return {"opened", ""};
        case OpenAnswer::noStream:
            return {"noStream", "nothing has been recorded yet"};
        case OpenAnswer::alreadyOpen:
            return {"alreadyOpen", "a session is already open; end it with: tavirn-ctl teardown --session 0"};
        case OpenAnswer::searchFailed:
            return {"searchFailed",
                    "the daemon cannot search the recordings: look at the card and the index"};
        case OpenAnswer::setUpFailed:
            return {"setUpFailed", "the start of the newest stream or its parameter sets cannot be read; "
                                   "the next open tries the stream before it"};
        case OpenAnswer::malformed:
            break;
        }
        return {"malformed", "the answer is none that the daemon gives"};
    };

    const std::string answer = ask(ControlRequest(RTSP_REQ_OPEN));
    const OpenAnswer result = readOpenAnswer(answer);
    const bool opened = result == OpenAnswer::opened;
    const std::string sets = opened ? hexText(answer) : "";
    if (options.json)
        print(jsonLine({{"result", meaning(result).word}, {"parameterSets", sets}}));
    else if (opened)
        print(sets + '\n');
    if (!opened) throw Failure(kFailed, meaning(result).sentence);
}

void play(const Options& options) {
    ControlRequest request = ofSession(options, RTSP_REQ_PLAY);
    const auto target = [](const char* option, const std::string& typed, const auto& value) {
        if (!value)
            throw Failure(kUsage,
                          std::string(option) + " " + typed + " is no target; see tavirn-ctl play --help");
        return *value;
    };
    if (!options.scale.empty()) request.with("Scale", options.scale);
    if (!options.step.empty()) request.with("Step", options.step);
    if (!options.range.empty())
        request.with("Range", target("--range", options.range, rangeValue(options.range)));
    if (!options.jump.empty()) request.with("Jump", target("--jump", options.jump, jumpValue(options.jump)));
    ask(request);
}

void status(const Options& options) {
    const std::string word = readStatusAnswer(ask(ofSession(options, RTSP_REQ_STATUS)));
    if (word.empty() || word.find_first_not_of("abcdefghijklmnopqrstuvwxyz()") != std::string::npos)
        throw Failure(kFailed, "the answer is none that the daemon gives");
    print(options.json ? jsonLine({{"status", word}}) : word + '\n');
}

void setSkipTime(const Options& options) {
    ask(ofSession(options, RTSP_REQ_FFTIME).with("FFTime", std::to_string(options.skipMs)));
}

void list(const Options& options) {
    try {
        const IndexListing listing = readIndex();
        print(options.json ? asJson(listing) : asTable(listing));
    } catch (const std::runtime_error& error) {
        throw Failure(kUnreachable, error.what());
    }
}

void addSession(CLI::App* command, Options& options) {
    command->add_option("--session", options.session,
                        "Session number, 0 for a request that names none (1, as 'session' registers)");
}

void addPlay(CLI::App& app, Options& options) {
    auto* command =
        app.add_subcommand("play", "Play from where the session stands, at normal speed unless told");
    addSession(command, options);
    auto* how = command->add_option_group("how", "At most one of:")->require_option(0, 1);
    how->add_option("--scale", options.scale, "Speed, negative for backward: 2, 0.5, -4")->check(CLI::Number);
    how->add_option("--step", options.step, "Pictures to step, negative for backward")
        ->check(CLI::TypeValidator<int>("INT"));
    how->add_option("--range", options.range,
                    "Play from a time: clock=20240102T030405Z, which the daemon reads as local time without "
                    "daylight saving, or \"2024-01-02 03:04:05\" by the local clock");
    how->add_option("--jump", options.jump,
                    "Go to oldest, latest, next-alarm, prev-alarm or a time written as for --range, and "
                    "pause there");
    command->callback([&options] { options.command = [&options] { play(options); }; });
}

void addCommands(CLI::App& app, Options& options) {
    const auto json = [&](CLI::App* command) { command->add_flag("--json", options.json, "Print JSON"); };
    const auto add = [&](const char* name, const char* what, auto&& action) {
        auto* command = app.add_subcommand(name, what);
        command->callback([&options, action] { options.command = [&options, action] { action(options); }; });
        return command;
    };
    json(add("open", "Open a session on the newest recording; prints its parameter sets in hex", open));

    auto* session = add("session", "Register the session number that later requests carry",
                        [](const Options& o) { send(o, RTSP_REQ_SESSION); });
    session->add_option("number", options.session, "Session number (1)")
        ->check(CLI::Range(1u, 0xFFFFFFFFu).description("1..4294967295"));

    addPlay(app, options);
    addSession(add("pause", "Pause", [](const Options& o) { send(o, RTSP_REQ_PAUSE); }), options);
    auto* statusCommand = add("status", "Print play, pause, pause(sof), pause(eof), init or error", status);
    addSession(statusCommand, options);
    json(statusCommand);
    auto* skipTime = add("fftime", "Set the time between two pictures of fast play", setSkipTime);
    addSession(skipTime, options);
    skipTime->add_option("ms", options.skipMs, "Milliseconds; the daemon keeps it within its limits")
        ->required();
    addSession(add("teardown", "End the session (--session 0: whichever is open)",
                   [](const Options& o) { send(o, RTSP_REQ_TEARDOWN); }),
               options);
    json(add("list", "List the recordings and alarms of the index; does not ask the daemon", list));
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Sends the playback daemon one request, as the RTSP server would.", "tavirn-ctl");
    app.footer(kExitCodes);
    app.require_subcommand(0, 1);
    app.fallthrough(); // --root may stand behind the command
    addCommands(app, options);
    return runTool(app, argc, argv, [&] {
        if (!options.command) throw Failure(kUsage, "name a command; see tavirn-ctl --help");
        options.command();
        return kDone;
    });
}
