// A camera HAL, as far as this library sees it: five nodes with a thread each record 4K video at 60
// frames per second, at real pace. The threads live as long as their camera, so streams begin and
// are flushed while nodes are at work. All calls of the library are in Booster; copy from there.
//
// Usage: hal [--all] [--busy|--heavy] [--boost] [SECONDS [DROP_EVERY [LOSE_EVERY [LOCK_EVERY]]]]
//     --all         not one recording alone, but all that a HAL does: preview, a recording that is
//                   flushed in the middle, preview again, then a recording by a second camera
//     --busy        each node computes for a fifth of its time and needs a CPU for that; without,
//                   all time is spent waiting, as for hardware
//     --heavy       the same, but VideoStabilizer computes for 14 ms of a frame's 16.7
//     --boost       with the boost service of service/; without, a stand-in boosts nothing
//     SECONDS       how long a recording is, 0.25 unless given
//     DROP_EVERY    the sensor drops every n-th frame, and the HAL knows
//     LOSE_EVERY    a node loses every n-th frame, and the library is not called for that
//     LOCK_EVERY    when every n-th frame has left the sensor, a thread "Tuning" computes for
//                   40 ms with a lock held that the node ToneMapper needs, too
// Its threads have the names of their nodes.
// Exit status: 0 all recordings were boosted, 1 one was refused, 2 bad usage.

#include <cameraframeboost/tarvocameraframeboost.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
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
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Node {
    const char* name;  // Contains the name that the configuration has for a stage,
    int32_t port;      // and the one of the ports listed there that it reports, once a frame.
    std::chrono::milliseconds work;
};
constexpr std::array<Node, 5> NODES = {{{"SensorFrontEnd0", 3, std::chrono::milliseconds(0)},
                                        {"MCTFE0_cam0", 1, std::chrono::milliseconds(9)},
                                        {"ToneMapper", 8, std::chrono::milliseconds(6)},
                                        {"VideoStabilizer", 0, std::chrono::milliseconds(11)},
                                        {"EncoderFeed", 10, std::chrono::milliseconds(8)}}};
constexpr size_t SENSOR = 0;
constexpr size_t LOSING_NODE = 2;
constexpr size_t LOCKING_NODE = 2;
constexpr size_t HEAVY_NODE = 3;

constexpr int32_t FPS = 60;
struct Stream {
    bool isVideo;
    int32_t width;
    int32_t fps;
    int32_t operationMode;  // 0x8001 is one that the configuration lists.
};
constexpr Stream PREVIEW = {false, 1920, FPS, 0x8001};
constexpr Stream VIDEO = {true, 3840, FPS, 0x8001};

constexpr int64_t NO_STREAM = 0;
struct Frame {
    int64_t stream;  // Streams of all cameras are numbered from 1, each has another number.
    int64_t number;  // From 1 in each stream.
};

// The only object of the process, which all cameras share. The service knows of one scene, so one
// camera at a time has it. The others leave the library alone meanwhile: their frames have the same
// numbers, and a description of their streams would end the scene.
//
// Threads. Operations of scenes must not run while another thread is in the library. Nodes do not
// stop for that: reports share a lock, and a scene begins and ends with the lock held alone. A
// report that had to wait for it, or came later, may be of a frame from before a flush, whose
// number a frame of the new scene has as well. So each report says of which stream its frame is,
// and is dropped unless that stream is the one that is boosted.
class Booster {
  public:
    Booster() {
        facade.TcfbtSetVersion(2);
        // Stays from scene to scene and cannot be taken back: so once a process, not at each open.
        facade.TcfbtAddPersistTids("SoloThreadManager", gettid());
    }

    // Before the first frame of each stream, a preview's too: the library decides what to boost.
    // `tids`: the threads that work for the stream. Returns the stream's number.
    int64_t StartStream(const Stream& stream, const std::vector<int32_t>& tids) {
        const std::lock_guard<std::shared_mutex> lock(mutex);
        ++newest;
        if (boosted != NO_STREAM) {
            return newest;
        }
        facade.TcfbtSetSceneInfo(stream.isVideo, stream.width, stream.fps);
        if (facade.TcfbtNotifySceneStart(stream.operationMode) == 0) {
            boosted = newest;
            // Registered for this scene alone, so anew in each; and only in scenes that have
            // started, as nothing would take the threads back from a scene that was refused.
            for (const int32_t tid : tids) {
                facade.TcfbtAddTempTids(tid);
            }
            facade.TcfbtSetTids();
            StartFrame(1);  // Each other frame is started by the node end of the frame before.
        }
        return newest;
    }

    // After the last frame of a stream, or when the frames on their way are to be thrown away.
    // After a flush even when the same recording goes on: frame numbers start again, and only the
    // end of the scene makes the library forget the frames that were on their way. Returns whether
    // the stream was boosted.
    bool EndStream(int64_t stream) {
        const std::lock_guard<std::shared_mutex> lock(mutex);
        if (stream != boosted) {
            return false;
        }
        facade.TcfbtNotifySceneEnd();
        boosted = NO_STREAM;
        return true;
    }

    // On the node's thread, before the next node has the frame: else that node's end may come
    // first, and the frame breaks. Frames and stages follow from it.
    void EndNode(const Frame& frame, const Node& node, int32_t camera) {
        const std::shared_lock<std::shared_mutex> lock(mutex);
        if (frame.stream == boosted) {
            facade.TcfbtNotifyNodeEnd(frame.number, node.name, node.port, camera,
                                      /*isMaterCamera=*/true);
        }
    }

    // On the sensor's thread, before the next frame leaves the sensor. The dropped frame has no
    // node end from which the next frame's start could follow: without the calls here the next two
    // frames would not be boosted either. The next frame is started while this one is still in
    // flight, as it has to follow the newest.
    void DropFrame(const Frame& frame) {
        const std::shared_lock<std::shared_mutex> lock(mutex);
        if (frame.stream == boosted) {
            facade.TcfbtNotifyErrorFrame(frame.number, /*stage=*/0);
            StartFrame(frame.number + 1);
            facade.TcfbtNotifyFrameEnd(frame.number);
        }
    }

  private:
    // With the mutex held.
    void StartFrame(int64_t number) {
        facade.TcfbtNotifyFrameStart(number);
        facade.TcfbtNotifyStageStart(/*stage=*/0, number, /*stageArg1=*/0, /*stageArg2=*/20,
                                     NODES[SENSOR].name);
    }

    TarvoCameraFrameBoost facade;
    std::shared_mutex mutex;
    int64_t newest = NO_STREAM;   // Guarded by mutex.
    int64_t boosted = NO_STREAM;  // The stream that has the scene. Guarded by mutex.
};

// For what a camera's thread shares with one that the service does not know: while a boosted thread
// waits for the lock, its holder is boosted as well. With a std::mutex the holder would get a CPU
// when all other programs have had theirs, and the frame would wait for that.
class InheritingMutex {
  public:
    InheritingMutex() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
        pthread_mutex_init(&mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~InheritingMutex() { pthread_mutex_destroy(&mutex); }
    InheritingMutex(const InheritingMutex&) = delete;
    InheritingMutex& operator=(const InheritingMutex&) = delete;

    void lock() { pthread_mutex_lock(&mutex); }
    void unlock() { pthread_mutex_unlock(&mutex); }

  private:
    pthread_mutex_t mutex{};
};

// Hands things from one thread to another.
template <typename Item>
class Queue {
  public:
    void Push(const Item& item) {
        const std::lock_guard<std::mutex> lock(mutex);
        items.push(item);
        hasItems.notify_one();
    }

    Item Pop() {
        std::unique_lock<std::mutex> lock(mutex);
        hasItems.wait(lock, [this] { return !items.empty(); });
        const Item item = items.front();
        items.pop();
        return item;
    }

  private:
    std::mutex mutex;
    std::condition_variable hasItems;
    std::queue<Item> items;  // Guarded by mutex.
};

// What is wrong with the cameras, and how they spend their time.
struct Manner {
    bool isBusy;
    bool isHeavy;
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

bool IsNth(const Frame& frame, int64_t every) {
    return every > 0 && frame.number % every == 0;
}

class Camera {
  public:
    Camera(Booster& sharedBooster, int32_t cameraId, const Manner& itsManner)
        : booster(sharedBooster), id(cameraId), manner(itsManner) {
        for (size_t node = 0; node < NODES.size(); ++node) {
            threads.emplace_back(&Camera::RunNode, this, node);
        }
        while (tids.size() < NODES.size()) {
            tids.push_back(started.Pop());
        }
        if (manner.lockEvery > 0) {
            threads.emplace_back(&Camera::RunTuning, this);
        }
    }

    ~Camera() {
        queues[SENSOR].Push(CLOSE);
        tunings.Push(CLOSE);
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    // Requests frames, and ends the stream when so many have come back. The others are flushed:
    // thrown away where they are. Returns whether the frames were boosted.
    bool Run(const Stream& stream, int64_t requested, int64_t wanted) {
        const int64_t number = booster.StartStream(stream, tids);
        for (int64_t sent = 0, done = 0; done < wanted;) {
            while (sent < std::min(requested, done + BUFFERS)) {
                queues[SENSOR].Push({number, ++sent});
            }
            done += results.Pop().stream == number ? 1 : 0;
        }
        flushed = number;
        return booster.EndStream(number);
    }

  private:
    // How many buffers the camera has, and so how many frames are on their way at most: fewer than
    // the 16 that the library keeps, so that none is pushed out however late the nodes are.
    static constexpr int64_t BUFFERS = 8;
    static constexpr Frame CLOSE = {NO_STREAM, 0};  // Goes through the nodes behind all frames.

    void RunNode(size_t node) {
        // Traces show the name. The kernel takes none of more than 15 characters.
        pthread_setname_np(pthread_self(), NODES[node].name);
        started.Push(gettid());
        Queue<Frame>& next = node + 1 < NODES.size() ? queues[node + 1] : results;
        for (;;) {
            const Frame frame = queues[node].Pop();
            if (frame.stream == NO_STREAM) {
                next.Push(frame);
                return;
            }
            if (frame.stream <= flushed) {
                continue;
            }
            Work(node, frame);
            if (node == SENSOR && IsNth(frame, manner.dropEvery)) {
                booster.DropFrame(frame);
                results.Push(frame);
            } else if (node == LOSING_NODE && IsNth(frame, manner.loseEvery)) {
                results.Push(frame);
            } else {
                booster.EndNode(frame, NODES[node], id);
                next.Push(frame);
                if (node == SENSOR && IsNth(frame, manner.lockEvery)) {
                    tunings.Push(frame);
                }
            }
        }
    }

    void Work(size_t node, const Frame& frame) {
        if (node == SENSOR) {
            // A frame leaves the sensor each period, from the stream's first request on.
            if (frame.number == 1) {
                due = std::chrono::steady_clock::now();
            }
            due += std::chrono::nanoseconds(std::chrono::seconds(1)) / FPS;
            std::this_thread::sleep_until(due);
            return;
        }
        std::unique_lock<InheritingMutex> lock(tables, std::defer_lock);
        if (node == LOCKING_NODE) {
            lock.lock();
        }
        const std::chrono::nanoseconds work = NODES[node].work;
        std::chrono::nanoseconds computing(0);
        if (manner.isHeavy && node == HEAVY_NODE) {
            computing = std::chrono::milliseconds(14);
        } else if (manner.isHeavy || manner.isBusy) {
            computing = work / 5;
        }
        std::this_thread::sleep_for(work - computing);
        Compute(computing);
    }

    // Makes tables anew that a node uses, and takes too long. The mistake is that its thread is not
    // among those that the service gets, so that the service cannot boost it.
    void RunTuning() {
        pthread_setname_np(pthread_self(), "Tuning");
        while (tunings.Pop().stream != NO_STREAM) {
            const std::lock_guard<InheritingMutex> lock(tables);
            Compute(std::chrono::milliseconds(40));
        }
    }

    Booster& booster;
    std::array<Queue<Frame>, NODES.size()> queues;  // What each node is to work on.
    Queue<Frame> results;                           // Frames that no node will work on any more.
    Queue<Frame> tunings;
    Queue<int32_t> started;                     // The ids of threads, as they start.
    std::atomic<int64_t> flushed{NO_STREAM};    // Frames of streams up to this one are thrown away.
    std::chrono::steady_clock::time_point due;  // When the sensor's frame is. Of its thread alone.
    InheritingMutex tables;  // A node works, or the tables that it uses are made anew.
    const int32_t id;
    const Manner manner;
    std::vector<int32_t> tids;  // Of the nodes.
    std::vector<std::thread> threads;
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
    bool isHeavy = false;
    std::array<double, 4> numbers = {0.25, 0, 0, 0};
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const double value = Number(argv[i]);
        if (argument == "--all") {
            isAll = true;
        } else if (argument == "--busy") {
            isBusy = true;
        } else if (argument == "--heavy") {
            isHeavy = true;
        } else if (argument == "--boost") {
            // Before the library's first call of the service. A phone needs nothing of the kind.
            // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread as yet.
            setenv("TARVO_DESKTOP_SERVICE", "boost", /*replace=*/1);
        } else if (value >= 0 && count < numbers.size()) {
            numbers[count++] = value;
        } else {
            std::fputs(
                "Usage: hal [--all] [--busy|--heavy] [--boost] "
                "[SECONDS [DROP_EVERY [LOSE_EVERY [LOCK_EVERY]]]]\n",
                stderr);
            return 2;
        }
    }
    const auto frames = static_cast<int64_t>(numbers[0] * VIDEO.fps);
    const Manner manner = {isBusy, isHeavy, static_cast<int64_t>(numbers[1]),
                           static_cast<int64_t>(numbers[2]), static_cast<int64_t>(numbers[3])};

    Booster booster;
    Camera rear(booster, 0, manner);
    if (!isAll) {
        return rear.Run(VIDEO, frames, frames) ? 0 : 1;
    }
    Camera front(booster, 1, manner);
    rear.Run(PREVIEW, frames / 4, frames / 4);
    bool areBoosted = rear.Run(VIDEO, 10 * frames, frames / 2);
    // The recording goes on, while the other camera shows a preview beside it.
    std::thread beside([&] { front.Run(PREVIEW, frames / 4, frames / 4); });
    areBoosted = rear.Run(VIDEO, frames / 2, frames / 2) && areBoosted;
    beside.join();
    rear.Run(PREVIEW, frames / 4, frames / 4);
    areBoosted = front.Run(VIDEO, frames, frames) && areBoosted;
    return areBoosted ? 0 : 1;
}
