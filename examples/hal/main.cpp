// A camera HAL, as far as this library sees it: five nodes with a thread each record 4K video at 60
// frames per second, at real pace. What a HAL does for the library is in Booster and Camera; copy
// from there.
//
// Usage: hal [--all] [--busy] [SECONDS [DROP_EVERY [LOSE_EVERY [LOCK_EVERY]]]]
//     --all         not one recording alone, but all that a HAL does: preview, a recording that is
//                   flushed in the middle, preview again, then a recording by a second camera
//     --busy        each node computes for a fifth of its time and needs a CPU for that; without,
//                   all time is spent waiting, as for hardware
//     SECONDS       how long a recording is, 0.25 unless given
//     DROP_EVERY    the sensor drops every n-th frame, and the HAL knows
//     LOSE_EVERY    a node loses every n-th frame, and nobody tells the library
//     LOCK_EVERY    from when every n-th frame leaves the sensor, a thread "Tuning" computes for
//                   40 ms with a lock held that the node ToneMapper needs, too
// Its threads have the names of their nodes.
// Exit status: 0 all recordings were boosted, 1 one was refused, 2 bad usage.

#include <cameraframeboost/tarvocameraframeboost.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <queue>
#include <string>
#include <thread>

namespace {

constexpr int64_t NO_MORE = -1;  // Goes through the nodes behind the last frame.

// Hands frames from one node to the next.
class FrameQueue {
  public:
    void Push(int64_t frame) {
        const std::lock_guard<std::mutex> lock(mutex);
        frames.push(frame);
        hasFrames.notify_one();
    }

    int64_t Pop() {
        std::unique_lock<std::mutex> lock(mutex);
        hasFrames.wait(lock, [this] { return !frames.empty(); });
        const int64_t frame = frames.front();
        frames.pop();
        return frame;
    }

  private:
    std::mutex mutex;
    std::condition_variable hasFrames;
    std::queue<int64_t> frames;  // Guarded by mutex.
};

struct Node {
    const char* name;  // Contains the name that the configuration has for a stage,
    int32_t port;      // and of the ports listed there it reports this one, once a frame.
    std::chrono::milliseconds work;
};
constexpr std::array<Node, 5> NODES = {{{"SensorFrontEnd0", 3, std::chrono::milliseconds(0)},
                                        {"MCTFE0_cam0", 1, std::chrono::milliseconds(9)},
                                        {"ToneMapper", 8, std::chrono::milliseconds(6)},
                                        {"VideoStabilizer", 0, std::chrono::milliseconds(11)},
                                        {"EncoderFeed", 10, std::chrono::milliseconds(8)}}};
constexpr size_t LOSING_NODE = 2;
constexpr size_t LOCKING_NODE = 2;

struct Stream {
    bool isVideo;
    int32_t width;
    int32_t fps;
    int32_t operationMode;  // 0x8001 is one that the configuration lists.
};
constexpr Stream PREVIEW = {false, 1920, 60, 0x8001};
constexpr Stream VIDEO = {true, 3840, 60, 0x8001};

// What is wrong with the cameras, and how they spend their time.
struct Manner {
    bool isBusy;
    int64_t dropEvery;
    int64_t loseEvery;
    int64_t lockEvery;
};

// Returns when this thread has had a CPU for that long.
void Compute(std::chrono::nanoseconds time) {
    const auto used = [] {
        timespec cpu{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
        return std::chrono::seconds(cpu.tv_sec) + std::chrono::nanoseconds(cpu.tv_nsec);
    };
    for (const auto end = used() + time; used() < end;) {
    }
}

bool IsNth(int64_t frame, int64_t every) {
    return every > 0 && frame > 0 && frame % every == 0;
}

// The only object of the process, which all cameras share. The service knows of one scene, so one
// camera at a time has it. The others leave the object alone meanwhile: their frames have the same
// numbers, and a description of their streams would end the scene.
struct Booster {
    Booster() {
        facade.TcfbtSetVersion(2);
        // Stays from scene to scene and cannot be taken back: so once a process, not at each open.
        facade.TcfbtAddPersistTids("SoloThreadManager", gettid());
    }

    TarvoCameraFrameBoost facade;
    std::mutex mutex;
    bool hasScene = false;  // Guarded by mutex.
};

class Camera {
  public:
    Camera(Booster& sharedBooster, int32_t cameraId, const Manner& itsManner)
        : booster(sharedBooster), id(cameraId), manner(itsManner) {}

    // Sends that many frames through the pipeline, numbered from 1. A flush throws away those that
    // are still on their way in the end. Returns whether the frames were boosted.
    bool Run(const Stream& stream, int64_t frames, bool isFlushed = false) {
        StartScene(stream);
        isFlushing = false;
        std::array<std::thread, NODES.size()> threads;
        threads[0] = std::thread(&Camera::RunSensor, this, stream.fps, frames, isFlushed);
        for (size_t node = 1; node < NODES.size(); ++node) {
            threads[node] = std::thread(&Camera::RunNode, this, node);
        }
        std::thread tuning;
        if (manner.lockEvery > 0) {
            tuning = std::thread(&Camera::RunTuning, this);
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        if (tuning.joinable()) {
            tuning.join();
        }
        EndScene();
        return isBoosted;
    }

  private:
    // Before the pipeline starts. For each stream, the preview too: the library knows what to
    // boost.
    void StartScene(const Stream& stream) {
        const std::lock_guard<std::mutex> lock(booster.mutex);
        isBoosted = false;
        if (!booster.hasScene) {
            booster.facade.TcfbtSetSceneInfo(stream.isVideo, stream.width, stream.fps);
            isBoosted = booster.facade.TcfbtNotifySceneStart(stream.operationMode) == 0;
            booster.hasScene = isBoosted;
        }
    }

    // When the pipeline has stopped and none of its threads is in the library any more. After a
    // flush as well, even when the same recording goes on: frame numbers start again, and only the
    // end of the scene makes the library forget the frames that were on their way.
    void EndScene() {
        if (isBoosted) {
            const std::lock_guard<std::mutex> lock(booster.mutex);
            booster.facade.TcfbtNotifySceneEnd();
            booster.hasScene = false;
        }
    }

    // Each frame leaves the first node when its time is over. Frame 0 only opens frame 1.
    void RunSensor(int32_t fps, int64_t frames, bool isFlushed) {
        RegisterThread(NODES[0].name);
        auto due = std::chrono::steady_clock::now();
        for (int64_t frame = 0; frame <= frames; ++frame) {
            due += std::chrono::nanoseconds(std::chrono::seconds(1)) / fps;
            std::this_thread::sleep_until(due);
            if (IsNth(frame, manner.dropEvery)) {
                OnSensorDrop(frame);
                continue;
            }
            OnNodeEnd(NODES[0], frame);
            if (IsNth(frame, manner.lockEvery)) {
                tunings.Push(frame);
            }
            if (frame > 0) {
                queues[1].Push(frame);
            }
        }
        isFlushing = isFlushed;
        tunings.Push(NO_MORE);
        queues[1].Push(NO_MORE);
    }

    void RunNode(size_t node) {
        RegisterThread(NODES[node].name);
        const bool isLast = node + 1 == NODES.size();
        for (int64_t frame = 0; frame != NO_MORE;) {
            frame = queues[node].Pop();
            if (frame != NO_MORE) {
                Work(node);
                if (isFlushing || (node == LOSING_NODE && IsNth(frame, manner.loseEvery))) {
                    continue;
                }
                OnNodeEnd(NODES[node], frame);
            }
            if (!isLast) {
                queues[node + 1].Push(frame);
            }
        }
    }

    void Work(size_t node) {
        std::unique_lock<std::mutex> lock(tables, std::defer_lock);
        if (node == LOCKING_NODE) {
            lock.lock();
        }
        const std::chrono::nanoseconds work = NODES[node].work;
        const auto computing = manner.isBusy ? work / 5 : work * 0;
        std::this_thread::sleep_for(work - computing);
        Compute(computing);
    }

    // Makes tables anew that a node uses, and takes too long. No thread of the scene's: that is the
    // mistake, as the service hears nothing of a thread that frames wait for.
    void RunTuning() {
        pthread_setname_np(pthread_self(), "Tuning");
        while (tunings.Pop() != NO_MORE) {
            const std::lock_guard<std::mutex> lock(tables);
            Compute(std::chrono::milliseconds(40));
        }
    }

    // A thread that works for this scene: the service hears of it with the next TcfbtSetTids.
    // Without a scene it would hear of it too, and nothing would take the thread back. A trace has
    // its name, of which the kernel keeps 15 characters and refuses more.
    void RegisterThread(const char* name) {
        pthread_setname_np(pthread_self(), name);
        if (isBoosted) {
            booster.facade.TcfbtAddTempTids(gettid());
            booster.facade.TcfbtSetTids();
        }
    }

    // On the node's thread, before the next node has the frame. Frame and stages follow from it.
    void OnNodeEnd(const Node& node, int64_t frame) {
        if (isBoosted) {
            booster.facade.TcfbtNotifyNodeEnd(frame, node.name, node.port, id,
                                              /*isMaterCamera=*/true);
        }
    }

    // The frame never leaves the first node, so nothing follows from that: without the rest of this
    // the next two frames would be lost as well. The next frame is started while this one is still
    // known, as it has to follow the newest.
    void OnSensorDrop(int64_t frame) {
        if (isBoosted) {
            booster.facade.TcfbtNotifyErrorFrame(frame, /*stage=*/0);
            booster.facade.TcfbtNotifyFrameStart(frame + 1);
            booster.facade.TcfbtNotifyStageStart(/*stage=*/0, frame + 1, /*stageArg1=*/0,
                                                 /*stageArg2=*/20, NODES[0].name);
            booster.facade.TcfbtNotifyFrameEnd(frame);
        }
    }

    Booster& booster;
    bool isBoosted = false;  // This camera has the scene. Written while none of its threads runs.
    std::atomic<bool> isFlushing{false};
    std::array<FrameQueue, NODES.size()> queues;
    FrameQueue tunings;
    std::mutex tables;  // A node works, or the tables that it uses are made anew.
    const int32_t id;
    const Manner manner;
};

// A number that is not negative; -1 for any other text.
double Number(const char* text) {
    char* end = nullptr;
    const double number = std::strtod(text, &end);
    return end != text && *end == '\0' && number >= 0 ? number : -1;
}

}  // namespace

int main(int argc, char** argv) {
    bool isAll = false;
    bool isBusy = false;
    std::array<double, 4> numbers = {0.25, 0, 0, 0};
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const double value = Number(argv[i]);
        if (argument == "--all") {
            isAll = true;
        } else if (argument == "--busy") {
            isBusy = true;
        } else if (value >= 0 && count < numbers.size()) {
            numbers[count++] = value;
        } else {
            std::fputs(
                "Usage: hal [--all] [--busy] "
                "[SECONDS [DROP_EVERY [LOSE_EVERY [LOCK_EVERY]]]]\n",
                stderr);
            return 2;
        }
    }
    const auto frames = static_cast<int64_t>(numbers[0] * VIDEO.fps);
    const Manner manner = {isBusy, static_cast<int64_t>(numbers[1]),
                           static_cast<int64_t>(numbers[2]), static_cast<int64_t>(numbers[3])};

    Booster booster;
    Camera rear(booster, 0, manner);
    if (!isAll) {
        return rear.Run(VIDEO, frames) ? 0 : 1;
    }
    Camera front(booster, 1, manner);
    rear.Run(PREVIEW, frames / 4);
    bool areBoosted = rear.Run(VIDEO, frames / 2, /*isFlushed=*/true);
    // The recording goes on, while the other camera shows a preview beside it.
    std::thread beside([&] { front.Run(PREVIEW, frames / 4); });
    areBoosted = rear.Run(VIDEO, frames - frames / 2) && areBoosted;
    beside.join();
    rear.Run(PREVIEW, frames / 4);
    areBoosted = front.Run(VIDEO, frames) && areBoosted;
    return areBoosted ? 0 : 1;
}
