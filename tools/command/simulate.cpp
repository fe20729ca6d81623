// cameraframeboost simulate: the log that a device would have given, from a virtual camera.

#include "tools/play/simulate.h"

#include <fmt/format.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/words.h"
#include "tools/check/nodes.h"
#include "tools/command/command.h"
#include "tools/command/subcommands.h"
#include "tools/play/replay.h"

namespace tools {
namespace {

Camera CameraOf(const SimulateArguments& arguments) {
    const std::optional<NamedText> file = ReadOption(arguments.camera);
    Camera camera;
    try {
        camera = file ? ParseCamera(file->text, file->name) : BuiltinCamera();
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
    const bool isWhole = simulated.frames == camera.frames;
    std::cerr << fmt::format("{}{} frames at {} fps through {} stages (seed {}): {} came out\n",
                             simulated.frames, isWhole ? "" : fmt::format(" of {}", camera.frames),
                             camera.fps, camera.Stages().size(), camera.seed, simulated.completed);
    for (const Fault& fault : camera.faults) {
        if (fault.frame < simulated.frames) {
            std::cerr << fmt::format("  {} [{}]\n", Describe(fault, camera), ToString(fault));
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
    const auto lost = simulated.linesLost;
    std::cerr << fmt::format("{} lines of log{}\n", simulated.lines,
                             lost == 0 ? "" : fmt::format(", and {} missing", lost));
}

}  // namespace

int RunSimulate(const SimulateArguments& arguments) {
    const Camera camera = CameraOf(arguments);
    SimulateOptions options;
    if (const auto format = FormatOf(arguments.form)) {
        options.format = *format;
    } else {
        FailUsage("--form is \"" + arguments.form +
                  "\", expected threadtime or time, and modifiers, such as threadtime,year,usec");
    }
    const std::optional<NamedText> configuration = ReadOption(arguments.configuration);
    const auto complain = [&configuration](const Finding& finding) {
        Complain(ToString(finding, configuration->name));
    };
    if (!PreparePlatform(configuration, complain)) {
        return BAD_INPUT;
    }
    if (configuration) {
        std::vector<ReportedNode> nodes;
        for (const CameraNode& node : camera.nodes) {
            nodes.push_back({.node = node.name, .port = node.ports.front()});
        }
        for (const Finding& finding :
             CheckNodes(CheckConfiguration(configuration->text).table, nodes)) {
            complain(finding);
        }
    }

    const auto outputs = {arguments.output, arguments.session, arguments.truth};
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
    for (Output* file : {session.get(), truth.get()}) {
        if (file != nullptr) {
            file->Close();
        }
    }
    progress.Clear();
    ShowSummary(camera, simulated);
    return NOTHING_FOUND;
}

}  // namespace tools
