// cameraframeboost simulate: the log that a device would have given, from a virtual camera.

#include "tools/play/simulate.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/words.h"
#include "tools/check/nodes.h"
#include "tools/command/command.h"
#include "tools/play/replay.h"

namespace tools {
namespace {

struct Arguments {
    std::string camera;
    std::string output = "-";
    std::string session;
    std::string truth;
    std::string configuration;
    std::string form = "threadtime";
    std::optional<int64_t> frames;
    std::optional<int32_t> fps;
    std::optional<uint64_t> seed;
    std::vector<std::string> faults;
};

// Of which CLI11 would say "Value 59.94 not in range".
CLI::Validator WholeNumber(int64_t lowest, int64_t highest) {
    const auto check = [lowest, highest](const std::string& text) {
        const auto number = ReadDigits<int64_t>(text);
        const bool isGood = number && *number >= lowest && *number <= highest;
        return isGood ? std::string()
                      : Quoted(text) + " is not a whole number from " + std::to_string(lowest) +
                            " to " + std::to_string(highest);
    };
    return CLI::Validator(check, "");
}

Camera ReadCamera(const std::string& path) {
    const Input input(path);
    return ParseCamera(input.ReadAll(), input.Name());
}

Camera CameraOf(const Arguments& arguments) {
    Camera camera;
    try {
        camera = arguments.camera.empty() ? BuiltinCamera() : ReadCamera(arguments.camera);
    } catch (const CameraError& error) {
        throw CommandError(error.what());
    }
    camera.frames = arguments.frames.value_or(camera.frames);
    camera.fps = arguments.fps.value_or(camera.fps);
    camera.seed = arguments.seed.value_or(camera.seed);
    try {
        for (const std::string& fault : arguments.faults) {
            camera.faults.push_back(ParseFault(fault));
        }
        CheckFaults(camera);
    } catch (const CameraError& error) {
        FailUsage(error.what());
    }
    return camera;
}

void ShowSummary(const Camera& camera, const Simulated& simulated) {
    std::cerr << simulated.frames;
    if (simulated.frames < camera.frames) {
        std::cerr << " of " << camera.frames;
    }
    std::cerr << " frames at " << camera.fps << " fps through " << camera.Stages().size()
              << " stages (seed " << camera.seed << "): " << simulated.completed << " came out\n";
    for (const Fault& fault : camera.faults) {
        if (fault.frame < simulated.frames) {
            std::cerr << "  " << FramesOf(fault) << ": " << Describe(fault, camera) << " ["
                      << ToString(fault) << "]\n";
        }
    }
    if (simulated.overruns != 0) {
        std::cerr << "  " << simulated.overruns << " frames dropped by the sensor: all "
                  << camera.buffers << " buffers were taken\n";
    }
    if (!simulated.isBoosted) {
        std::cerr << "  the library boosted nothing: it takes video at 60 fps, of a width and in a "
                     "mode that it is configured for\n";
    }
    std::cerr << simulated.lines << " lines of log";
    if (simulated.linesLost != 0) {
        std::cerr << ", and " << simulated.linesLost << " missing";
    }
    std::cerr << '\n';
}

int RunSimulate(const Arguments& arguments) {
    const Camera camera = CameraOf(arguments);
    SimulateOptions options;
    if (const auto format = FormatOf(arguments.form)) {
        options.format = *format;
    } else {
        FailUsage("--form is \"" + arguments.form +
                  "\", expected threadtime or time, and modifiers, such as threadtime,year,usec");
    }
    std::optional<NamedText> configuration;
    if (!arguments.configuration.empty()) {
        const Input file(arguments.configuration);
        configuration = {file.Name(), file.ReadAll()};
    }
    const auto tell = [&configuration](const Finding& finding) {
        std::cerr << ToString(finding, configuration->name) << '\n';
    };
    if (!PreparePlatform(configuration, tell)) {
        return BAD_INPUT;
    }
    if (configuration) {
        std::vector<ReportedNode> nodes;
        for (const CameraNode& node : camera.nodes) {
            nodes.push_back({.node = node.name, .port = node.ports.front()});
        }
        for (const Finding& finding :
             CheckNodes(CheckConfiguration(configuration->text).table, nodes)) {
            tell(finding);
        }
    }

    const std::vector<std::string> outputs = {arguments.output, arguments.session, arguments.truth};
    const auto toStandardOutput = std::count(outputs.begin(), outputs.end(), "-");
    if (toStandardOutput > 1) {
        FailUsage("of --output, --session and --truth only one can be standard output");
    }
    Output capture(arguments.output);
    const auto open = [](const std::string& path) {
        return path.empty() ? nullptr : std::make_unique<Output>(path);
    };
    const std::unique_ptr<Output> session = open(arguments.session);
    const std::unique_ptr<Output> truth = open(arguments.truth);
    options.session = session.get();
    options.truth = truth.get();
    CatchInterrupts();
    ProgressLine progress("frames", toStandardOutput > 0);
    options.onProgress = [&progress](int64_t done, int64_t all) {
        progress.Show(done, all);
        return InterruptStatus() == 0;
    };
    const Simulated simulated = Simulate(camera, capture, options);
    capture.Close();
    for (const auto& file : {session.get(), truth.get()}) {
        if (file != nullptr) {
            file->Close();
        }
    }
    progress.Clear();
    ShowSummary(camera, simulated);
    return NOTHING_FOUND;
}

}  // namespace

void AddSimulate(CLI::App& app, Run& run) {
    CLI::App* command = app.add_subcommand(
        "simulate", "Runs a virtual camera with faults of your choice and writes a device's log");
    command->footer(
        "\nA sensor hands frames to a chain of nodes, which report them to the library, in "
        "virtual "
        "time. The camera file describes them, in TOML; the built-in camera, which fits the "
        "sample "
        "configuration, is installed as cameras/video-4k60.toml to copy from. Frames and stages "
        "count from 0; frame 0 opens the pipeline, and faults are for those behind it. What can "
        "go wrong with a frame:\n\n" +
        DescribeFaults() +
        "\nExample: ten seconds of video in which frame 200 takes long and frame 400 is lost:\n\n"
        "  cameraframeboost simulate -o capture.log \\\n"
        "      --fault slow:200:2:40 --fault lost:400:3\n");
    // Lives as long as the command that refers to it.
    const auto arguments = std::make_shared<Arguments>();
    command
        ->add_option("CAMERA", arguments->camera, "The camera file; left out: the built-in camera")
        ->type_name("");
    command
        ->add_option("--frames", arguments->frames,
                     "How many frames the sensor delivers; the built-in camera's: 600")
        ->check(WholeNumber(1, MAX_FRAMES))
        ->type_name("N");
    command->add_option("--fps", arguments->fps, "Frames per second; the built-in camera's: 60")
        ->check(WholeNumber(1, 1000))
        ->type_name("N");
    command
        ->add_option("--seed", arguments->seed,
                     "Chooses the nodes' times; the same seed gives the same log; else 1")
        ->check(WholeNumber(0, std::numeric_limits<int64_t>::max()))
        ->type_name("N");
    command->add_option("--fault", arguments->faults, "What goes wrong, see below; may be repeated")
        ->type_name("KIND:FRAME[:MORE]")
        ->expected(1)
        ->take_all();
    command->add_option("--config", arguments->configuration,
                        "A TOML file for the configuration store instead of the built-in sample");
    command
        ->add_option("--form", arguments->form,
                     "The log's form, as logcat's -v has it: threadtime, which is the default, or "
                     "time, with modifiers such as threadtime,year,usec: year, usec, nsec, zone, "
                     "UTC, epoch, monotonic, uid")
        ->type_name("FORM");
    command->option_defaults()->group(OUTPUTS);
    command->add_option("-o,--output", arguments->output,
                        "Where the log goes; left out: standard output");
    command->add_option(
        "--session", arguments->session,
        "Writes the calls here, as a session that replay plays with the same --config");
    command->add_option("--truth", arguments->truth,
                        "Writes here, as JSON, what was injected and what came of it: when each "
                        "frame came out, what was late, what was boosted");
    command->callback([arguments, &run] { run = [arguments] { return RunSimulate(*arguments); }; });
}

}  // namespace tools
