// cameraframeboost explain --follow: says what goes wrong while it does.

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "tools/account/summary.h"
#include "tools/command/explain.h"

namespace tools {
namespace {

using Clock = std::chrono::steady_clock;

// What is judged again each second, and how much more it may be before some is forgotten.
constexpr Micros WINDOW = 30 * SECOND;
constexpr Micros STEP = 10 * SECOND;
// So much is to be known of what came after a moment before it is spoken of.
constexpr Micros SETTLING = SECOND;
// What is that near to where the window begins was told before, when more was known of it.
constexpr Micros EDGE = 2 * SECOND;

class Follower {
  public:
    Follower(Output& output, const JudgeOptions& judgeOptions)
        : out(output), options(judgeOptions) {
        options.toldOneByOne = std::numeric_limits<size_t>::max();
    }

    int Run() {
        const Input in("-");
        reader.Begin(inputs.front());
        std::array<char, 1 << 16> bytes{};
        Clock::time_point judgedAt = Clock::now();
        Micros judgedTime = 0;
        while (InterruptStatus() == 0) {
            pollfd input{STDIN_FILENO, POLLIN, 0};
            if (poll(&input, 1, 1000) == 0) {
                idle += SECOND;
            } else if (const size_t size = in.Read(bytes); size != 0) {
                reader.Read({bytes.data(), size});
                idle = 0;
            } else {
                break;
            }
            // What comes faster than it was logged is judged by its own time.
            if (Clock::now() - judgedAt >= std::chrono::seconds(1) || Now() - judgedTime >= STEP) {
                JudgeWindow();
                judgedAt = Clock::now();
                judgedTime = Now();
            }
        }
        reader.End();
        reader.Finish();
        return Finish();
    }

  private:
    // The time of the last line, as facts have it.
    Micros Now() const { return std::max<Micros>(reader.Summary().last, 0); }

    Account Judged() const {
        Account account = facts.Look(reader.Summary().last);
        account.inputs = inputs;
        account.resolution = reader.Summary().resolution;
        Judge(account, options);
        return account;
    }

    void JudgeWindow() {
        Account account = Judged();
        Tell(account, false);
        Totals all = forgotten;
        all.Add(account);
        status.Show(fmt::format("{} frames, {} never out, {} late; {} findings", all.frames,
                                all.neverOut, all.late, findings));
        if (Now() - windowBegin > WINDOW + STEP) {
            // What the window now has less than before.
            forgotten.Add(account);
            windowBegin = Now() - WINDOW;
            facts.Forget(windowBegin);
            forgotten.Add(Judged(), -1);
        }
    }

    int Finish() {
        const CaptureSummary& summary = reader.Summary();
        status.Clear();
        RequireLibraryLines(summary, inputs);
        Account account = MakeAccount(facts, summary, inputs, options);
        Tell(account, true);
        forgotten.Add(account);
        forgotten.worst = worst;
        out << VerdictOf(forgotten) << '\n';
        out.Close();
        return StatusOf(worst, account.configurations);
    }

    // Tells what was not told before. `isAll`: also what more may still become known of.
    void Tell(Account& account, bool isAll) {
        for (Scene& scene : account.scenes) {
            // A scene begins where it did, whatever has been forgotten.
            scene.begin =
                begins.try_emplace({scene.process, scene.from.line}, scene.begin).first->second;
            for (const SceneFinding& finding : scene.findings) {
                Tell(account, &scene, finding, isAll);
            }
        }
        for (const SceneFinding& finding : account.findings) {
            Tell(account, nullptr, finding, isAll);
        }
        out.flush();
    }

    void Tell(const Account& account, const Scene* scene, const SceneFinding& finding, bool isAll) {
        if ((isAll || IsDue(scene, finding)) && !IsAtEdge(finding) && IsNew(scene, finding)) {
            status.Clear();
            out << LineOf(account, scene, finding) << '\n';
            worst = std::max(worst, finding.severity);
            ++findings;
        }
    }

    bool IsAtEdge(const SceneFinding& finding) const {
        return windowBegin > 0 && finding.time != NO_TIME && finding.time < windowBegin + EDGE;
    }

    bool IsDue(const Scene* scene, const SceneFinding& finding) {
        if (!finding.frame && scene != nullptr && finding.severity == Severity::Note) {
            return scene->hasEnd;  // They count what there is in the scene.
        }
        if (finding.time == NO_TIME) {
            // Those that were there a second ago.
            return !waiting.insert(KeyOf(scene, finding, finding.frame.value_or(0))).second;
        }
        const bool isOver = scene != nullptr && scene->hasEnd && idle >= SETTLING;
        return isOver || finding.time + SETTLING <= Now();
    }

    // Known by process, scene, check and stage, and by the line where it is about no frame.
    using Key = std::tuple<int32_t, uint32_t, Check, int32_t, int64_t>;
    static Key KeyOf(const Scene* scene, const SceneFinding& finding, int64_t frame) {
        return {scene == nullptr ? -1 : scene->process, scene == nullptr ? 0 : scene->from.line,
                finding.check, finding.stage,
                finding.frame ? frame : -static_cast<int64_t>(finding.place.line)};
    }

    // By its first frame: what goes on has another one when that is forgotten, among those that it
    // was told of.
    bool IsNew(const Scene* scene, const SceneFinding& finding) {
        std::vector<FrameRange>& ranges = told[KeyOf(scene, finding, 0)];
        const auto find = [&ranges](int64_t frame) {
            return std::find_if(ranges.begin(), ranges.end(), [frame](const FrameRange& range) {
                return range.first <= frame && frame <= range.last;
            });
        };
        const int64_t first = finding.frame.value_or(0);
        const bool isKnown = find(first) != ranges.end();
        if (!isKnown) {
            ranges.push_back({first, first});
        }
        for (const FrameRange& range : finding.frames) {
            if (const auto known = find(range.first); known != ranges.end()) {
                known->last = std::max(known->last, range.last);
            } else {
                ranges.push_back(range);
            }
        }
        return !isKnown;
    }

    Output& out;
    JudgeOptions options;
    FactsMaker facts;
    CaptureReader reader{{&facts}};
    ProgressLine status{"", false};
    std::vector<std::string> inputs = {NameOfInput("-")};
    Micros idle = 0;  // How long nothing has come.
    Micros windowBegin = 0;
    Totals forgotten;  // Of what is not in the window any more.
    int64_t findings = 0;
    Severity worst = Severity::Note;
    std::map<std::pair<int32_t, uint32_t>, Micros> begins;
    std::set<Key> waiting;
    std::map<Key, std::vector<FrameRange>> told;
};

}  // namespace

int Follow(const JudgeOptions& options) {
    Output out("-", StyleOf(STDOUT_FILENO));
    try {
        return Follower(out, options).Run();
    } catch (const LinesError& error) {
        throw CommandError(error.what());
    }
}

}  // namespace tools
