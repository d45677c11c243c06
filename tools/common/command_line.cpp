#include "tools/common/command_line.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string_view>

#include "platform/paths.h"
#include "platform/paths_rooted.h"

namespace {

/// CLI11 has sentences of several lines; a tool's has one.
std::string inOneLine(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    for (char& character : text)
        if (character == '\n') character = ' ';
    return text;
}

/// The words that stand where a command is expected, followed by the commands there are.
std::string unknownCommand(const CLI::App& app) {
    std::string text;
    for (const std::string& word : app.remaining()) {
        if (word.starts_with('-')) return ""; // an option that is not known
        if (text.empty()) text = "'" + word + "' is no command; there are";
    }
    const char* separator = " ";
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        text += separator + command->get_name();
        separator = ", ";
    }
    return text;
}

std::string wrongUsage(const CLI::App* app, const CLI::Error& error) {
    std::string sentence;
    const bool hasCommands = !app->get_subcommands([](const CLI::App*) { return true; }).empty();
    if (hasCommands && app->get_subcommands().empty() && dynamic_cast<const CLI::ExtrasError*>(&error))
        sentence = unknownCommand(*app);
    if (sentence.empty()) sentence = inOneLine(error.what());
    return app->get_name() + ": " + sentence + "; see " + app->get_name() + " --help\n";
}

int tell(const CLI::App& app, const std::exception& error, int code) {
    std::fprintf(stderr, "%s: %s\n", app.get_name().c_str(), error.what());
    return code;
}

} // namespace

int runTool(CLI::App& app, int argc, char** argv, const std::function<int()>& work) {
    app.add_option_function<std::string>(
           "--root", [](const std::string& root) { setPathsRoot(root.c_str()); },
           "Directory that stands for / (TAVIRN_ROOT when not given)")
        ->check([](const std::string& root) { return root.empty() ? "name a directory" : ""; })
        ->type_name("DIR");
    app.set_version_flag("--version", app.get_name() + " " TAVIRN_VERSION, "Print the version and exit");
    app.failure_message(wrongUsage);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kDone : kUsage; // standard output for help and version, else error
    }
    try {
        return work();
    } catch (const Failure& failure) {
        return tell(app, failure, failure.code);
    } catch (const std::exception& error) {
        return tell(app, error, kFailed);
    }
}

bool pathsAreRooted() {
    return std::string_view(paths().card) != kFixedPaths.card;
}
