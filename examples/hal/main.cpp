// A camera HAL, as far as this library sees it: five nodes with a thread each record 4K video at 60
// frames per second, at real pace. What a HAL does for the library is in Camera; copy from there.
//
// Usage: hal [SECONDS [DROP_EVERY [LOSE_EVERY]]]
//     DROP_EVERY    the sensor drops every so-manieth frame, and the HAL knows
//     LOSE_EVERY    a node loses every so-manieth frame, and nobody tells the library
// Exit status: 0 the scene was boosted, 1 it was refused, 2 bad usage.

#include <cameraframeboost/tarvocameraframeboost.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <queue>
#include <string>
#include <thread>

namespace {

constexpr int32_t OPERATION_MODE = 0x8001;  // One that the configuration lists.
constexpr int32_t FPS = 60;
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

bool IsNth(int64_t frame, int64_t every) {
    return every > 0 && frame > 0 && frame % every == 0;
}

class Camera {
  public:
    Camera(int64_t framesDroppedEvery, int64_t framesLostEvery)
        : dropEvery(framesDroppedEvery), loseEvery(framesLostEvery) {
        boost.TcfbtSetVersion(2);
        boost.TcfbtAddPersistTids("SoloThreadManager", gettid());  // Stays from scene to scene.
    }

    // Returns whether the recording was boosted.
    bool Record(int64_t frames) {
        boost.TcfbtSetSceneInfo(/*isVideo=*/true, /*resolution=*/3840, FPS);
        // When refused, that is only of interest to threads: all else that follows does nothing
        // then.
        isBoosted = boost.TcfbtNotifySceneStart(OPERATION_MODE) == 0;
        std::array<std::thread, NODES.size()> threads;
        threads[0] = std::thread(&Camera::RunSensor, this, frames);
        for (size_t node = 1; node < NODES.size(); ++node) {
            threads[node] = std::thread(&Camera::RunNode, this, node);
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        // Only when no other thread is in the library any more.
        boost.TcfbtNotifySceneEnd();
        return isBoosted;
    }

  private:
    // Each frame leaves the first node when its time is over. Frame 0 only opens frame 1.
    void RunSensor(int64_t frames) {
        RegisterThread();
        auto due = std::chrono::steady_clock::now();
        for (int64_t frame = 0; frame <= frames; ++frame) {
            due += std::chrono::nanoseconds(std::chrono::seconds(1)) / FPS;
            std::this_thread::sleep_until(due);
            if (IsNth(frame, dropEvery)) {
                OnSensorDrop(frame);
                continue;
            }
            OnNodeEnd(NODES[0], frame);
            if (frame > 0) {
                queues[1].Push(frame);
            }
        }
        queues[1].Push(NO_MORE);
    }

    void RunNode(size_t node) {
        RegisterThread();
        const bool isLast = node + 1 == NODES.size();
        for (int64_t frame = 0; frame != NO_MORE;) {
            frame = queues[node].Pop();
            if (frame != NO_MORE) {
                std::this_thread::sleep_for(NODES[node].work);
                if (node == LOSING_NODE && IsNth(frame, loseEvery)) {
                    continue;
                }
                OnNodeEnd(NODES[node], frame);
            }
            if (!isLast) {
                queues[node + 1].Push(frame);
            }
        }
    }

    // A thread that works for this scene: the service hears of it with the next TcfbtSetTids.
    // Without a scene it would hear of it too, and nothing would take the thread back.
    void RegisterThread() {
        if (isBoosted) {
            boost.TcfbtAddTempTids(gettid());
            boost.TcfbtSetTids();
        }
    }

    // On the node's thread, before the next node has the frame. Frame and stages follow from it.
    void OnNodeEnd(const Node& node, int64_t frame) {
        boost.TcfbtNotifyNodeEnd(frame, node.name, node.port, /*currentCameraId=*/0,
                                 /*isMaterCamera=*/true);
    }

    // The frame never leaves the first node, so nothing follows from that: without the rest of this
    // the next two frames would be lost as well. The next frame is started while this one is still
    // known, as it has to follow the newest.
    void OnSensorDrop(int64_t frame) {
        boost.TcfbtNotifyErrorFrame(frame, /*stage=*/0);
        boost.TcfbtNotifyFrameStart(frame + 1);
        boost.TcfbtNotifyStageStart(/*stage=*/0, frame + 1, /*stageArg1=*/0, /*stageArg2=*/20,
                                    NODES[0].name);
        boost.TcfbtNotifyFrameEnd(frame);
    }

    TarvoCameraFrameBoost boost;  // One per open camera.
    bool isBoosted = false;       // Written while no thread of a recording runs.
    std::array<FrameQueue, NODES.size()> queues;
    const int64_t dropEvery;
    const int64_t loseEvery;
};

// A number that is not negative; -1 for any other text.
double Number(const char* text) {
    char* end = nullptr;
    const double number = std::strtod(text, &end);
    return end != text && *end == '\0' && number >= 0 ? number : -1;
}

}  // namespace

int main(int argc, char** argv) {
    std::array<double, 3> numbers = {0.25, 0, 0};
    for (int i = 1; i < argc; ++i) {
        const double number = Number(argv[i]);
        if (i > 3 || number < 0) {
            std::fputs("Usage: hal [SECONDS [DROP_EVERY [LOSE_EVERY]]]\n", stderr);
            return 2;
        }
        numbers[static_cast<size_t>(i - 1)] = number;
    }
    Camera camera(static_cast<int64_t>(numbers[1]), static_cast<int64_t>(numbers[2]));
    return camera.Record(static_cast<int64_t>(numbers[0] * FPS)) ? 0 : 1;
}
