// tavirn-ctl: sends the daemon one request, as the RTSP server would, and says what the answer means.
#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/ioctl.h>
#include <unistd.h>

#include "tools/common/command_line.h"
#include "tools/common/formatted.h"
#include "tools/common/json.h"
#include "tools/ctl/daemon.h"
#include "tools/ctl/index_listing.h"
#include "tools/ctl/index_timeline.h"
#include "tools/ctl/play_value.h"

namespace {

constexpr char kNotes[] =
    "A command returns when its effect has been seen, so that the next one builds on it: open with the\n"
    "first picture; play and pause when the playback thread has taken the request.\n"
    "Exit codes: 0 done, 1 no such session, or the daemon refused, 2 wrong usage, 3 the daemon or the\n"
    "index cannot be reached, 4 sent, but no effect was seen in time.";

constexpr char kNoSession[] = "no session is open; open one with: tavirn-ctl open";
constexpr char kEndAny[] = "end whichever is open with: tavirn-ctl teardown --session 0";

struct Options {
    std::function<void()> command; ///< what the command line asks for
    uint32_t session = 1;
    std::string scale;
    std::string step;
    std::string range;
    std::string jump;
    uint32_t skipMs = 0;
    double waitSeconds = 5;
    bool noWait = false;
    bool json = false;
};

Daemon daemonOf(const Options& options) {
    return Daemon(std::chrono::milliseconds(static_cast<int64_t>(options.waitSeconds * 1000)));
}

ControlRequest ofSession(const Options& options, int32_t type) {
    return ControlRequest(type).with("Session", std::to_string(options.session));
}

std::string named(uint32_t session) {
    return "session " + std::to_string(session);
}

/// What became of a request, told unless all is well.
void tellEffect(Effect effect, const Options& options, const std::string& notSeen) {
    if (effect == Effect::ended) throw Failure(kFailed, "the session has ended meanwhile");
    if (effect == Effect::notSeen)
        throw Failure(kNotSeen, notSeen + " within " + formatted("%g", options.waitSeconds) +
                                    " s; ask for the status, or give a longer --wait");
}

/// Sends a request that an open session has to take.
void send(const Daemon& daemon, const Options& options, const ControlRequest& request) {
    const Reach reach = daemon.reach(options.session);
    if (reach == Reach::none) throw Failure(kFailed, kNoSession);
    if (reach == Reach::unnumbered)
        throw Failure(kFailed, "the open session has no number yet; register one with: tavirn-ctl session " +
                                   std::to_string(options.session));
    daemon.ask(request); // also when it is unclear: a session that has failed may be led on by it
    if (reach == Reach::unclear)
        throw Failure(kFailed, named(options.session) + " has not taken it: another number is registered, or "
                                                        "the index or the card failed");
}

/// The same, and waits until the playback thread has acted on it. `pauses`: where it leads to.
void sendAndSee(const Options& options, const ControlRequest& request, bool pauses) {
    const Daemon daemon = daemonOf(options);
    send(daemon, options, request);
    if (options.noWait) return;
    Effect effect = daemon.requestTaken();
    if (effect == Effect::hidden) effect = daemon.statusBecomes(options.session, pauses);
    tellEffect(effect, options, "sent, but no effect was seen");
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

struct Meaning {
    const char* word;
    const char* sentence;
};
Meaning meaningOf(OpenAnswer answer) {
    switch (answer) {
    case OpenAnswer::opened:
        return {"opened", ""};
    case OpenAnswer::noStream:
        return {"noStream", "nothing has been recorded yet"};
    case OpenAnswer::alreadyOpen:
        return {"alreadyOpen", "a session is already open; end it with: tavirn-ctl teardown --session 0"};
    case OpenAnswer::searchFailed:
        return {"searchFailed", "the daemon cannot search the recordings: look at the card and the index"};
    case OpenAnswer::setUpFailed:
        return {"setUpFailed", "the start of the newest stream or its parameter sets cannot be read; "
                               "the next open tries the stream before it"};
    case OpenAnswer::malformed:
        break;
    }
    return {"malformed", "the answer is none that the daemon gives"};
}

void open(const Options& options) {
    const Daemon daemon = daemonOf(options);
    const std::string answer = daemon.ask(ControlRequest(RTSP_REQ_OPEN));
    const OpenAnswer result = readOpenAnswer(answer);
    const bool opened = result == OpenAnswer::opened;
    const std::string sets = opened ? hexText(answer) : "";
    if (options.json)
        print(jsonLine({{"result", meaningOf(result).word}, {"parameterSets", sets}}));
    else if (opened)
        print(sets + '\n');
    if (!opened) throw Failure(kFailed, meaningOf(result).sentence);
    std::fflush(stdout);
    if (!options.noWait)
        tellEffect(daemon.firstPictureShown(), options, "the session is open, but no picture has come");
}

void registerNumber(const Options& options) {
    const Daemon daemon = daemonOf(options);
    // Not sent then: the number would stay, and keep any other from the next session.
    if (daemon.reach(options.session) == Reach::none) throw Failure(kFailed, kNoSession);
    daemon.ask(ofSession(options, RTSP_REQ_SESSION));
    if (daemon.reach(options.session) != Reach::session)
        throw Failure(kFailed, named(options.session) +
                                   " is not registered: another number is, or the index "
                                   "or the card failed; " +
                                   kEndAny);
}

void tearDown(const Options& options) {
    const Daemon daemon = daemonOf(options);
    const Reach before = daemon.reach(options.session);
    daemon.ask(ofSession(options, RTSP_REQ_TEARDOWN)); // the daemon closes when the session has ended
    if (before == Reach::none) throw Failure(kFailed, "no session is open");
    if (daemon.reach(options.session) != Reach::none)
        throw Failure(kFailed, "the open session is not " + named(options.session) + "; " + kEndAny);
}

void play(const Options& options) {
    ControlRequest request = ofSession(options, RTSP_REQ_PLAY);
    const auto target = [](const char* option, const std::string& typed, const auto& value) {
        if (!value)
            throw Failure(kUsage,
                          std::string(option) + " " + typed + " is no target; see tavirn-ctl play --help");
        return *value;
    };
    const double scale = options.scale.empty() ? 1 : std::strtod(options.scale.c_str(), nullptr);
    if (!std::isfinite(scale))
        throw Failure(kUsage, "--scale " + options.scale + " is no speed; see tavirn-ctl play --help");
    if (!options.scale.empty()) request.with("Scale", options.scale);
    if (!options.step.empty()) request.with("Step", options.step);
    if (!options.range.empty())
        request.with("Range", target("--range", options.range, rangeValue(options.range)));
    if (!options.jump.empty()) request.with("Jump", target("--jump", options.jump, jumpValue(options.jump)));
    const bool pauses = !options.step.empty() || !options.jump.empty() || std::fabs(scale) < 0.1;
    sendAndSee(options, request, pauses);
}

void pause(const Options& options) {
    sendAndSee(options, ofSession(options, RTSP_REQ_PAUSE), true);
}

void status(const Options& options) {
    const Daemon daemon = daemonOf(options);
    std::string word = daemon.status(options.session);
    // While no number is registered, a request that names none is the one to be answered.
    if (word == "error" && options.session != 0) word = daemon.status(0);
    print(options.json ? jsonLine({{"status", word}}) : word + '\n');
    if (word == "init") std::fputs("no session is open\n", stderr);
    if (word != "error") return;
    throw Failure(kFailed, daemon.reach(options.session) == Reach::none
                               ? "no session is open, and the last open failed, or a number is registered"
                               : "another session number is registered, or the index or the card failed");
}

void setSkipTime(const Options& options) {
    send(daemonOf(options), options,
         ofSession(options, RTSP_REQ_FFTIME).with("FFTime", std::to_string(options.skipMs)));
}

/// As wide as the terminal is, or the environment says.
unsigned terminalColumns() {
    constexpr unsigned kNoTerminal = 80;
    if (const char* said = std::getenv("COLUMNS"); said && std::atoi(said) > 0)
        return static_cast<unsigned>(std::atoi(said));
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kNoTerminal;
}

void list(const Options& options) {
    try {
        const IndexListing listing = readIndex();
        if (options.json) return print(asJson(listing));
        const uint64_t nowMs = static_cast<uint64_t>(std::time(nullptr)) * 1000;
        const std::string timeline = asTimeline(listing, nowMs, terminalColumns());
        print(asTable(listing) + (timeline.empty() ? "" : '\n' + timeline));
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
    const auto add = [&](const char* name, const char* what, void (*action)(const Options&)) {
        auto* command = app.add_subcommand(name, what);
        command->callback([&options, action] { options.command = [&options, action] { action(options); }; });
        return command;
    };
    json(add("open", "Open a session on the newest recording; prints its parameter sets in hex", open));

    auto* session = add("session", "Register the session number that later requests carry", registerNumber);
    session->add_option("number", options.session, "Session number (1)")
        ->check(CLI::Range(1u, 0xFFFFFFFFu).description("1..4294967295"));

    addPlay(app, options);
    addSession(add("pause", "Pause", pause), options);
    auto* statusCommand = add("status", "Print play, pause, pause(sof), pause(eof), init or error", status);
    addSession(statusCommand, options);
    json(statusCommand);
    auto* skipTime = add("fftime", "Set the time between two pictures of fast play", setSkipTime);
    addSession(skipTime, options);
    skipTime->add_option("ms", options.skipMs, "Milliseconds; the daemon keeps it within its limits")
        ->required();
    addSession(add("teardown", "End the session (--session 0: whichever is open)", tearDown), options);
    json(add("list", "List the recordings and alarms of the index; does not ask the daemon", list));
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Sends the playback daemon one request, as the RTSP server would.", "tavirn-ctl");
    app.footer(kNotes);
    app.require_subcommand(0, 1);
    app.fallthrough(); // --root and --wait may stand behind the command
    app.add_option("--wait", options.waitSeconds,
                   "Seconds to wait for the daemon to come up, and for a request to take effect (5)")
        ->check(CLI::Range(0.0, 1e6).description(""))
        ->type_name("SECONDS");
    app.add_flag("--no-wait", options.noWait, "Do not wait for a request to take effect");
    addCommands(app, options);
    return runTool(app, argc, argv, [&] {
        if (!options.command) throw Failure(kUsage, "name a command; see tavirn-ctl --help");
        options.command();
        return kDone;
    });
}
