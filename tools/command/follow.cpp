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

#include "tools/account/account.h"
#include "tools/account/reader.h"
#include "tools/command/explain.h"

namespace tools {
namespace {

using Clock = std::chrono::steady_clock;

// What is judged again each second, and how much more it may be before some is forgotten.
constexpr Micros WINDOW = 30 * SECOND;
constexpr Micros STEP = 10 * SECOND;
// A finding is printed when the log goes on for so long behind its moment.
constexpr Micros SETTLING = SECOND;
// Findings that near to where the window begins were printed before, with more of the log behind
// them.
constexpr Micros EDGE = 2 * SECOND;

class Follower {
  public:
    Follower(Output& output, const JudgeOptions& judgeOptions)
        : out(output), options(judgeOptions) {
        options.namedOneByOne = std::numeric_limits<size_t>::max();
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
    // The time of the last line, as scenes have it.
    Micros Now() const { return std::max<Micros>(reader.Summary().last, 0); }

    Account Judged() const {
        // Findings about the capture as a whole are printed at its end.
        CaptureSummary summary;
        summary.resolution = reader.Summary().resolution;
        Account account = Judge(scenes.Look(reader.Summary().last), summary, inputs, options);
        MakeFindings(account, options);
        return account;
    }

    void JudgeWindow() {
        Account account = Judged();
        Print(account, false);
        Totals all = forgotten;
        all.Add(account);
        status.Show(fmt::format("{} frames, {} never out, {} late; {} findings", all.frames,
                                all.neverOut, all.late, findings));
        if (Now() - windowBegin > WINDOW + STEP) {
            // What the window now has less than before.
            forgotten.Add(account);
            windowBegin = Now() - WINDOW;
            scenes.Forget(windowBegin);
            forgotten.Add(Judged(), -1);
        }
    }

    int Finish() {
        const CaptureSummary& summary = reader.Summary();
        status.Clear();
        RequireLibraryLines(summary, inputs);
        Account account = Judge(scenes.Finish(summary.last), summary, inputs, options);
        MakeFindings(account, options);
        Print(account, true);
        forgotten.Add(account);
        forgotten.worst = worst;
        out << VerdictOf(forgotten) << '\n';
        out.Close();
        return StatusOf(worst, account.configurations);
    }

    // Prints findings that were not printed before. `isAll`: those too that more lines may change.
    void Print(Account& account, bool isAll) {
        for (JudgedScene& scene : account.scenes) {
            // A scene begins where it did, whatever has been forgotten.
            scene.begin =
                begins.try_emplace({scene.process, scene.from.line}, scene.begin).first->second;
            for (const SceneFinding& finding : scene.findings) {
                Print(account, &scene, finding, isAll);
            }
        }
        for (const SceneFinding& finding : account.findings) {
            Print(account, nullptr, finding, isAll);
        }
        out.flush();
    }

    void Print(const Account& account, const JudgedScene* scene, const SceneFinding& finding,
               bool isAll) {
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

    bool IsDue(const JudgedScene* scene, const SceneFinding& finding) {
        if (!finding.frame && scene != nullptr && finding.severity == Severity::Note) {
            return scene->HasEnd();  // They count what there is in the scene.
        }
        if (finding.time == NO_TIME) {
            // Those that were there a second ago.
            return !waiting.insert(KeyOf(scene, finding, finding.frame.value_or(0))).second;
        }
        const bool isOver = scene != nullptr && scene->HasEnd() && idle >= SETTLING;
        return isOver || finding.time + SETTLING <= Now();
    }

    // Findings are the same by process, scene, kind and stage, and by the line where they are about
    // no frame.
    using Key = std::tuple<int32_t, uint32_t, Kind, int32_t, int64_t>;
    static Key KeyOf(const JudgedScene* scene, const SceneFinding& finding, int64_t frame) {
        return {scene == nullptr ? -1 : scene->process, scene == nullptr ? 0 : scene->from.line,
                finding.kind, finding.stage,
                finding.frame ? frame : -static_cast<int64_t>(finding.place.line)};
    }

    // By the finding's first frame. When that is forgotten, a finding that goes on begins with a
    // later frame, which is among those that were printed with it.
    bool IsNew(const JudgedScene* scene, const SceneFinding& finding) {
        std::vector<FrameRange>& ranges = printed[KeyOf(scene, finding, 0)];
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
        for (const FrameRange& range : RangesOf(finding.own)) {
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
    SceneReader scenes;
    CaptureReader reader{{&scenes}};
    ProgressLine status{"", false};
    std::vector<std::string> inputs = {NameOfInput("-")};
    Micros idle = 0;  // How long nothing has come.
    Micros windowBegin = 0;
    Totals forgotten;  // Of what is not in the window any more.
    int64_t findings = 0;
    Severity worst = Severity::Note;
    std::map<std::pair<int32_t, uint32_t>, Micros> begins;
    std::set<Key> waiting;
    std::map<Key, std::vector<FrameRange>> printed;
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
