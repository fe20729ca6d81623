// cameraframeboost: for those who integrate the library, and look after it in the field.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <exception>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "tools/base/finding.h"
#include "tools/command/command.h"

namespace {

namespace fs = std::filesystem;

// ": did you mean explain?", where one of the known words is near.
std::string Suggestion(std::string_view typed, const std::vector<std::string>& known) {
    const std::vector<std::string_view> views(known.begin(), known.end());
    const auto meant = tools::Meant(typed, views);
    return meant ? ": did you mean " + std::string(*meant) + "?" : "";
}

void RequireSubcommand(const CLI::App& app, const std::vector<std::string>& words) {
    std::vector<std::string> names;
    for (const CLI::App* subcommand : app.get_subcommands({})) {
        names.push_back(subcommand->get_name());
    }
    const std::string expected = "one of " + CLI::detail::join(names, ", ") + " is expected";
    if (words.empty()) {
        tools::FailUsage(expected + "; see --help");
    }
    const std::string& name = words.front();
    if (!name.starts_with('-') && std::find(names.begin(), names.end(), name) == names.end()) {
        const std::string meant = Suggestion(name, names);
        tools::FailUsage("there is no subcommand " + tools::Quoted(name) +
                         (meant.empty() ? ": " + expected : meant));
    }
}

// How help shows what follows an option's name; paths have no type name of their own.
std::string FormOf(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    return (type.empty() ? "" : " " + (type == "TEXT" ? "FILE" : type)) +
           (option.get_expected_max() > 1 ? " ..." : "") +
           (option.get_required() ? " (required)" : "");
}

class HelpFormatter : public CLI::Formatter {
    std::string make_option_opts(const CLI::Option* option) const override {
        return FormOf(*option);
    }
};

// What is wrong with the words that were typed.
std::string Explanation(const CLI::ParseError& error, const CLI::App& app,
                        const CLI::App& command) {
    for (const std::string& word : app.remaining(true)) {
        if (!word.starts_with('-')) {
            return tools::Quoted(word) + " is one argument too many";
        }
        std::vector<std::string> names;
        for (const CLI::Option* option : command.get_options()) {
            names.push_back(option->get_name());
        }
        return "there is no option " + tools::Printable(word) + Suggestion(word, names);
    }
    std::string text = error.what();
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ArgumentMismatch)) {
        const std::string name = text.substr(0, text.find(':'));  // "--late: 1 required ..."
        const CLI::Option* const option = command.get_option_no_throw(name);
        return name + " needs a value" + (option == nullptr ? "" : ": " + name + FormOf(*option));
    }
    text = CLI::detail::find_and_replace(text, " excludes ", " does not go with ");
    return CLI::detail::find_and_replace(text, " requires ", " goes with ");
}

// No file that is written may be one that another option names; nor is standard input read twice.
void RequireApart(const CLI::App& command) {
    std::map<fs::path, const CLI::Option*> users;
    for (const CLI::Option* option : command.get_options(
             [](const CLI::Option* any) { return any->get_items_expected_max() != 0; })) {
        const bool isOutput = option->get_group() == tools::OUTPUTS;
        for (const std::string& path : option->results()) {
            std::error_code error;
            const fs::path file =
                fs::weakly_canonical(fs::absolute(path == "-" ? "/dev/stdin" : path, error), error);
            if (path == "-" ? isOutput : fs::is_other(file, error)) {
                continue;  // A device or a pipe keeps nothing.
            }
            const auto [user, isNew] = users.try_emplace(file, option);
            if (!isNew &&
                (isOutput || path == "-" || user->second->get_group() == tools::OUTPUTS)) {
                throw tools::CommandError(tools::NameOfInput(path) +
                                          ": error: " + user->second->get_name() + " and " +
                                          option->get_name() + " both use it");
            }
        }
    }
}

int RunCommand(std::vector<std::string> words) {
    CLI::App app("Shows what the camera frame boost library does, without a phone.",
                 "cameraframeboost");
    app.footer(
        "Each subcommand has a --help of its own. Files may be - for standard input or output.\n"
        "Exit status: 0 nothing found, 1 faults found, 2 bad usage or input, 130 interrupted (143 "
        "by SIGTERM).");
    app.set_version_flag("--version", "cameraframeboost " CAMERAFRAMEBOOST_VERSION);
    app.formatter(std::make_shared<HelpFormatter>());
    app.require_subcommand(1);
    tools::Run run;
    tools::AddExplain(app, run);
    tools::AddReplay(app, run);
    tools::AddCheck(app, run);
    tools::AddSimulate(app, run);
    for (CLI::App* command : app.get_subcommands({})) {
        command
            ->add_option("--color", tools::ColorOption(),
                         "Colours for severities; auto: on terminals, unless NO_COLOR is set")
            ->check(CLI::IsMember({"auto", "always", "never"}).description(""))
            ->type_name("auto|always|never")
            ->group("Options");
    }
    if (!words.empty() && words.front() == "help") {
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    RequireSubcommand(app, words);
    try {
        app.parse(std::vector(words.rbegin(), words.rend()));
    } catch (const CLI::ParseError& error) {
        const std::vector<CLI::App*> chosen = app.get_subcommands();
        const CLI::App& command = chosen.empty() ? app : *chosen.front();
        if (error.get_exit_code() != 0) {
            tools::FailUsage(Explanation(error, app, command) + "\nTry cameraframeboost " +
                             (chosen.empty() ? "" : command.get_name() + " ") + "--help.");
        }
        // Help and version come this way, too.
        std::ostringstream text;
        app.exit(error, text, std::cerr);
        tools::Output out("-");
        out << tools::StyledHelp(text.str());
        out.Close();
        return tools::NOTHING_FOUND;
    }
    RequireApart(*app.get_subcommands().front());
    const int status = run();
    return tools::InterruptStatus() != 0 ? tools::InterruptStatus() : status;
}

}  // namespace

int main(int argc, char** argv) {
    // A standard stream that is closed stays unusable: no file that is opened takes its place.
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) == -1) {
            open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
    // A reader that goes away shows as a write that fails, and so does a limit of files' sizes.
    std::signal(SIGPIPE, SIG_IGN);  // NOLINT(cert-err33-c): cannot fail for these signals.
    std::signal(SIGXFSZ, SIG_IGN);  // NOLINT(cert-err33-c)
    try {
        return RunCommand({argv + 1, argv + argc});
    } catch (const tools::CommandError& error) {
        std::cerr << tools::Styled(error.what(), tools::StyleOf(STDERR_FILENO));
        return error.Status();
    } catch (const std::exception& error) {
        std::cerr << "cameraframeboost: error: " << error.what() << '\n';
    }
    return tools::BAD_INPUT;
}
