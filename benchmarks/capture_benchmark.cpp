// What it costs to explain a device's log, compared with reading its lines.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tools/account/account.h"
#include "tools/account/reader.h"
#include "tools/log/capture.h"
#include "tools/play/replay.h"
#include "tools/play/simulate.h"

namespace {

// Ten minutes of 4K at 60 frames per second, in a file that is removed at the end.
class Capture {
  public:
    Capture() {
        tools::PreparePlatform({}, [](const std::string&) {});
        tools::Camera camera = tools::BuiltinCamera();
        camera.frames = 36'000;
        std::ofstream file(path);
        lines = tools::Simulate(camera, file).lines;
    }
    ~Capture() { std::remove(path.c_str()); }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    const std::string path = "capture_benchmark.log";
    int64_t lines = 0;
};

const Capture& TenMinutes() {
    static const Capture capture;
    return capture;
}

// Reads the capture, for a sink to be told of its messages.
void Read(std::vector<tools::MessageSink*> sinks) {
    tools::CaptureReader reader(std::move(sinks));
    const int file = open(TenMinutes().path.c_str(), O_RDONLY | O_CLOEXEC);
    reader.Begin("capture");
    tools::ReadText(reader, "capture", file, [](int64_t, int64_t) { return true; });
    reader.Finish();
    close(file);
}

double Seconds(const std::function<void()>& work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void ReadLines() {
    std::ifstream file(TenMinutes().path);
    for (std::string line; std::getline(file, line);) {
        benchmark::DoNotOptimize(line);
    }
}

// Times `work` and reading the lines with std::getline in turns. Reports how many times as long
// `work` takes, and the most memory that the program has used so far.
void Compare(benchmark::State& state, const std::function<void()>& work) {
    ReadLines();  // From here on the file is cached.
    double ofLines = 0;
    double ofWork = 0;
    for (const auto _ : state) {
        ofLines += Seconds(ReadLines);
        ofWork += Seconds(work);
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    state.counters["times_getline"] = ofWork / ofLines;
    state.counters["peak_MB"] = static_cast<double>(usage.ru_maxrss) / 1024;
    state.counters["lines"] = static_cast<double>(TenMinutes().lines);
}

void ReadMessages(benchmark::State& state) {
    Compare(state, [] { Read({}); });
}
BENCHMARK(ReadMessages)->Unit(benchmark::kMillisecond);

void Explain(benchmark::State& state) {
    Compare(state, [] {
        tools::SceneReader scenes;
        Read({&scenes});
        tools::Account account = tools::Judge(scenes.Finish(tools::NO_TIME), {}, {"capture"}, {});
        tools::MakeFindings(account, {});
        benchmark::DoNotOptimize(account);
    });
}
BENCHMARK(Explain)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
