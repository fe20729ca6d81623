// cameraframeboost-replay: shows what the boost service would be told of a camera session.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "host/desktop.h"
#include "tools/play/replay.h"
#include "tools/session/session.h"

namespace {

// Shows how far a long recording has come, on a terminal that nothing else is being written to.
class ProgressLine {
  public:
    void Show(int64_t done, int64_t all) {
        const auto now = std::chrono::steady_clock::now();
        if (done != all && now - lastShown < std::chrono::milliseconds(100)) {
            return;
        }
        lastShown = now;
        std::cerr << '\r' << done << " of " << all << " frames" << (done == all ? "\r\033[K" : "")
                  << std::flush;
    }

  private:
    std::chrono::steady_clock::time_point lastShown = std::chrono::steady_clock::now();
};

// "cfbtFrameStart=7"
std::pair<desktop::ServiceFunction, int32_t> ParseStatus(const std::string& text) {
    const size_t equals = text.find('=');
    const auto function = desktop::ServiceFunctionOf(text.substr(0, equals));
    int32_t status = 0;
    if (!function || equals == std::string::npos ||
        !CLI::detail::lexical_cast(text.substr(equals + 1), status)) {
        throw CLI::ValidationError("--status", "'" + text +
                                                   "' is not a service function and a number, "
                                                   "expected such as cfbtFrameStart=7");
    }
    return {*function, status};
}

int Run(int argc, char** argv) {
    CLI::App app(
        "Plays a camera session against the camera frame boost library and shows, under each HAL\n"
        "call, what the boost service was told. Exit status: 0 played, 2 bad input.\n");
    app.footer("\n" + tools::DescribeFormat());

    tools::Options options;
    std::string sessionFile;
    std::vector<std::string> statuses;
    app.add_option("SESSION", sessionFile, "The session file; - for standard input")->required();
    app.add_option("--config", options.configuration,
                   "A TOML file for the configuration store instead of the built-in sample");
    app.add_flag("--debug", options.withDebug,
                 "Debug property and trace tags on: show log lines and trace counters");
    app.add_option("--status", statuses, "What a service call answers, such as cfbtFrameStart=7")
        ->expected(1)
        ->take_all();
    app.add_flag("--real-time", options.isRealTime, "Play recordings at the scene's frame rate");
    app.add_flag("--quiet", options.isQuiet, "Show the summary alone");
    app.add_flag("--json", options.isJson, "Show JSON objects, one a line");
    try {
        app.parse(argc, argv);
        for (const std::string& status : statuses) {
            options.statuses.push_back(ParseStatus(status));
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? tools::PLAYED : tools::BAD_INPUT;
    }

    ProgressLine progress;
    const bool isTerminalFree = options.isQuiet || isatty(STDOUT_FILENO) == 0;
    if (isatty(STDERR_FILENO) != 0 && isTerminalFree) {
        options.onProgress = [&progress](int64_t done, int64_t all) { progress.Show(done, all); };
    }
    if (sessionFile == "-") {
        return tools::Replay(options, std::cin, "standard input", std::cout, std::cerr);
    }
    std::ifstream file(sessionFile);
    // Peeking, not opening, is what fails for a directory.
    if (!file || (file.peek(), file.bad())) {
        std::cerr << sessionFile << ":1: cannot be read, expected a session file\n";
        return tools::BAD_INPUT;
    }
    return tools::Replay(options, file, sessionFile, std::cout, std::cerr);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        std::ios::sync_with_stdio(false);
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "cameraframeboost-replay: " << error.what() << '\n';
        return 1;
    }
}
