// cameraframeboost: for those who integrate the library, and look after it in the field.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <iostream>
#include <string>

#include "tools/command/command.h"

namespace {

int RunCommand(int argc, char** argv) {
    CLI::App app("Shows what the camera frame boost library does, without a phone.",
                 "cameraframeboost");
    app.footer(
        "\nEach subcommand has a --help of its own. Files may be - for standard input or output.\n"
        "Exit status: 0 nothing found, 1 faults found, 2 bad usage or input, 130 interrupted.");
    app.set_version_flag("--version", "cameraframeboost " CAMERAFRAMEBOOST_VERSION);
    app.get_formatter()->label("REQUIRED", "(required)");
    app.get_formatter()->label("TEXT", "FILE");  // Of options that have no name of their own.
    app.require_subcommand(1);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return "cameraframeboost: error: " + std::string(error.what()) +
               "\nTry --help, of the command or of a subcommand.\n";
    });
    tools::Run run;
    tools::AddExplain(app, run);
    tools::AddReplay(app, run);
    tools::AddCheck(app, run);
    tools::AddSimulate(app, run);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help and version come this way, too.
        tools::Output out("-");
        const int status = app.exit(error, out, std::cerr);
        out.Close();
        return status == 0 ? tools::NOTHING_FOUND : tools::BAD_INPUT;
    }
    const int status = run();
    return tools::IsInterrupted() ? tools::INTERRUPTED : status;
}

}  // namespace

int main(int argc, char** argv) {
    // A standard stream that is closed stays unusable: no file that is opened takes its place.
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) == -1) {
            open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
    // A reader that goes away shows as a write that fails.
    std::signal(SIGPIPE, SIG_IGN);  // NOLINT(cert-err33-c): cannot fail for this signal.
    try {
        return RunCommand(argc, argv);
    } catch (const tools::CommandError& error) {
        std::cerr << error.what() << '\n';
    } catch (const std::exception& error) {
        std::cerr << "cameraframeboost: error: " << error.what() << '\n';
    }
    return tools::BAD_INPUT;
}
