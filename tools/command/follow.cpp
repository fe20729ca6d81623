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
#include <tuple>
#include <utility>

#include "tools/account/account.h"
#include "tools/account/reader.h"
#include "tools/command/command.h"
#include "tools/command/subcommands.h"
#include "tools/output/naming.h"

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
    explicit Follower(const JudgeOptions& judgeOptions) : options(judgeOptions) {
        options.namedOneByOne = std::numeric_limits<size_t>::max();
    }

    int Run() {
        const Input in("-");
        reader.Begin(in.name);
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
        const CaptureSummary& summary = reader.Summary();
        RequireLibraryLines(summary, {in.name});
        Account account = Judged(scenes.Finish(summary.last), summary);
        Print(account, true);
        seen.Add(account);
        seen.worst = worst;
        Show(VerdictOf(seen) + '\n');
        return StatusOf(worst, account.configurations);
    }

  private:
    // The time of the last line, as scenes have it.
    Micros Now() const { return std::max<Micros>(reader.Summary().last, 0); }

    Account Judged(Readings readings, const CaptureSummary& summary) const {
        Account account = Judge(std::move(readings), summary, {NameOfInput("-")}, options);
        MakeFindings(account, options);
        return account;
    }

    Account JudgedSoFar() const {
        // Findings about the capture as a whole are printed at its end.
        CaptureSummary summary;
        summary.resolution = reader.Summary().resolution;
        return Judged(scenes.Look(reader.Summary().last), summary);
    }

    void JudgeWindow() {
        Account account = JudgedSoFar();
        Print(account, false);
        Totals all = seen;
        all.Add(account);
        ShowProgress(fmt::format("{} frames, {} never out, {} late; {} findings", all.frames,
                                 all.neverOut, all.late, findings));
        if (Now() - windowBegin > WINDOW + STEP) {
            // What the window now has less than before.
            windowBegin = Now() - WINDOW;
            scenes.Forget(windowBegin);
            seen = all;
            seen.Add(JudgedSoFar(), -1);
            printedBefore = std::exchange(printed, {});
        }
    }

    // Prints findings that were not printed before. `isAll`: those too that more lines may change.
    void Print(Account& account, bool isAll) {
        for (JudgedScene& scene : account.scenes) {
            // A scene begins where it did, whatever has been forgotten.
            scene.begin =
                begins.try_emplace({scene.process, scene.from.line}, scene.begin).first->second;
        }
        for (const PlacedFinding& placed : FindingsOf(account)) {
            const SceneFinding& finding = *placed.finding;
            const JudgedScene* const scene =
                placed.scene ? &account.scenes[*placed.scene] : nullptr;
            if ((isAll || IsDue(scene, finding)) && IsNew(scene, finding) && !IsAtEdge(finding)) {
                Show(LineOf(account, scene, finding) + '\n');
                worst = std::max(worst, SeverityOf(finding));
                ++findings;
            }
        }
    }

    bool IsAtEdge(const SceneFinding& finding) const {
        return windowBegin > 0 && finding.at.time != NO_TIME &&
               finding.at.time < windowBegin + EDGE;
    }

    bool IsDue(const JudgedScene* scene, const SceneFinding& finding) const {
        if (scene == nullptr) {
            return finding.at.time + SETTLING <= Now();
        }
        if (!finding.frame && SeverityOf(finding) == Severity::Note) {
            return scene->HasEnd();  // They count what there is in the scene.
        }
        const Micros moment = finding.at.time == NO_TIME ? scene->begin : finding.at.time;
        return moment + SETTLING <= Now() || (scene->HasEnd() && idle >= SETTLING);
    }

    // Findings are the same by process, scene, kind, stage and any of their frames, or by the line
    // where they are about none. When the first frame is forgotten, a finding that goes on begins
    // with a later one.
    bool IsNew(const JudgedScene* scene, const SceneFinding& finding) {
        Key key{scene == nullptr ? -1 : scene->process, scene == nullptr ? 0 : scene->from.line,
                KindOf(finding.what), finding.stage,
                finding.frame.value_or(-static_cast<int64_t>(finding.at.place.line))};
        const bool isNew = !printedBefore.contains(key) && !printed.contains(key);
        printed.insert(key);
        for (const int64_t frame : finding.own) {
            std::get<int64_t>(key) = frame;
            printed.insert(key);
        }
        return isNew;
    }

    using Key = std::tuple<int32_t, uint32_t, Kind, int32_t, int64_t>;

    JudgeOptions options;
    SceneReader scenes;
    CaptureReader reader{{&scenes}};
    Micros idle = 0;  // How long nothing has come.
    Micros windowBegin = 0;
    Totals seen;  // Of what is not in the window any more.
    int64_t findings = 0;
    Severity worst = Severity::Note;
    std::map<std::pair<int32_t, uint32_t>, Micros> begins;
    std::set<Key> printed, printedBefore;  // Since something was last forgotten, and before.
};

}  // namespace

int Follow(const JudgeOptions& options) {
    return Follower(options).Run();
}

}  // namespace tools
