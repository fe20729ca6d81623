// cameraframeboost simulate: the log that a device would have given, from a virtual camera.

#include "tools/play/simulate.h"

#include <fmt/format.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "tools/base/words.h"
#include "tools/check/check.h"
#include "tools/command/command.h"
#include "tools/command/subcommands.h"
#include "tools/play/replay.h"

namespace tools {
namespace {

Camera CameraOf(const SimulateArguments& arguments) {
    const std::optional<NamedText> file = ReadOption(arguments.camera);
    Camera camera = file ? ParseCamera(file->text, file->name) : BuiltinCamera();
    camera.frames = arguments.frames.value_or(camera.frames);
    camera.fps = arguments.fps.value_or(camera.fps);
    camera.seed = arguments.seed.value_or(camera.seed);
    try {
        for (const std::string& fault : arguments.faults) {
            camera.faults.push_back(ParseFault(fault));
        }
        CheckFaults(camera);
    } catch (const LineError& error) {
        FailUsage(error.what());
    }
    return camera;
}

std::string SummaryOf(const Camera& camera, const Simulated& simulated) {
    const bool isWhole = simulated.frames == camera.frames;
    std::string text = fmt::format(
        "{}{} frames (number 0 only opens the pipeline) at {} fps through {} stages "
        "(seed {}): {} came out\n",
        simulated.frames, isWhole ? "" : fmt::format(" of {}", camera.frames), camera.fps,
        camera.Stages().size(), camera.seed, simulated.completed);
    for (const Fault& fault : camera.faults) {
        if (fault.frame < simulated.frames) {
            text += fmt::format("  {} [{}]\n", Describe(fault, camera), ToString(fault));
        }
    }
    if (simulated.overruns != 0) {
        text += fmt::format("  {} frames dropped by the sensor: all {} buffers were taken\n",
                            simulated.overruns, camera.buffers);
    }
    if (!simulated.isBoosted) {
        text +=
            "  the library boosted nothing: it takes video at 60 fps, of a width and in a mode "
            "that it is configured for\n";
    }
    return text + fmt::format("{} lines of log\n", simulated.lines);
}

}  // namespace

int RunSimulate(const SimulateArguments& arguments) {
    const Camera camera = CameraOf(arguments);
    SimulateOptions options;
    options.format = *FormatOf(arguments.form);
    const std::optional<NamedText> configuration = ReadOption(arguments.configuration);
    if (!PreparePlatform(configuration, Complain)) {
        return BAD_INPUT;
    }
    if (configuration) {
        std::vector<ReportedNode> nodes;
        for (const CameraNode& node : camera.nodes) {
            nodes.push_back({.node = node.name, .port = node.ports.front()});
        }
        for (const Finding& finding :
             CheckNodes(CheckConfiguration(configuration->text).table, nodes)) {
            Complain(ToString(finding, configuration->name));
        }
    }

    Output capture(arguments.output);
    const auto session = OpenOutput(arguments.session), truth = OpenOutput(arguments.truth);
    options.session = session.get();
    options.truth = truth.get();
    CatchInterrupts();
    const bool showsProgress = arguments.output != "-" || isatty(STDOUT_FILENO) == 0;
    options.onProgress = [showsProgress](int64_t done, int64_t all) {
        if (showsProgress) {
            ShowProgress(fmt::format("{} of {} frames", done, all));
        }
        return InterruptStatus() == 0;
    };
    const Simulated simulated = Simulate(camera, capture, options);
    for (Output* const output : {&capture, session.get(), truth.get()}) {
        if (output != nullptr) {
            output->Close();
        }
    }
    Complain(SummaryOf(camera, simulated));
    return NOTHING_FOUND;
}

}  // namespace tools
