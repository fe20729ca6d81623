// What came of a capture, in a sentence.

#include <fmt/format.h>

#include <algorithm>

#include "tools/account/account.h"
#include "tools/base/text.h"

namespace tools {

void Totals::Add(const Account& account, int64_t sign) {
    worst = std::max(worst, WorstOf(account));
    for (const JudgedScene& judged : account.scenes) {
        const Figures& figures = judged.figures;
        frames += sign * (figures.frameCount - figures.onlyOpened);
        mixed += sign * (judged.columns.isMixed ? figures.frameCount - figures.onlyOpened : 0);
        neverOut += sign * std::ssize(figures.neverOut);
        notBoosted += sign * figures.notBoosted;
        unknown += sign * figures.unknown;
        late += sign * figures.late;
        if (judged.isStarted) {
            lateThreshold = std::max(lateThreshold, judged.columns.lateThreshold);
            isStarted = true;
        }
    }
}

std::string LateText(Micros lateThreshold) {
    return Fixed(static_cast<double>(lateThreshold) / 1000, 1);
}

std::string VerdictOf(const Account& account) {
    Totals totals;
    totals.Add(account);
    return VerdictOf(totals);
}

// What a viewer of the video would see comes first: frames that never came out, and late ones.
std::string VerdictOf(const Totals& totals) {
    const auto& [frames, mixed, neverOut, notBoosted, unknown, late, lateThreshold, isStarted,
                 worst] = totals;
    if (!isStarted) {
        return "Nothing was boosted: no scene was started.";
    }
    const bool isWell = worst == Severity::Note;
    if (frames <= 0) {
        return fmt::format("Nothing was boosted: no frame was reported{}.",
                           isWell ? "" : ", and there is something to look at");
    }
    const std::string all = Counted(frames, "frame");
    std::vector<std::string> parts;
    const auto add = [&parts](int64_t count, const std::string& text) {
        if (count > 0) {
            parts.push_back(fmt::format(fmt::runtime(text), count));
        }
    };
    add(neverOut, "{} never came out");
    add(late,
        "{} came out late, more than " + LateText(lateThreshold) + " ms after the frame before");
    add(notBoosted, notBoosted == 1 ? "{} was not boosted from start to end"
                                    : "{} were not boosted from start to end");
    add(unknown, "what became of {} is not known, as lines of the log are missing");
    add(mixed, "what became of {} is not known, as two objects record at once");
    if (!parts.empty()) {
        return fmt::format("Of {} {}.", all, fmt::join(parts, "; "));
    }
    return isWell
               ? fmt::format("All is well: {}, all boosted, none late.", all)
               : fmt::format("{}, all boosted, none late, but there is something to look at.", all);
}

std::string LineOf(const Account& account, const JudgedScene* scene, const SceneFinding& finding) {
    Finding shown{NameOf(finding.kind), finding.severity, finding.message, finding.place};
    if (scene != nullptr && finding.time > scene->begin) {
        shown.message += fmt::format(" ({:.3f} s into the scene)",
                                     static_cast<double>(finding.time - scene->begin) / 1e6);
    }
    if (finding.place.line == 0) {
        return fmt::format("{}: {} [{}]", NameOf(shown.severity), shown.message, shown.check);
    }
    return ToString(shown, finding.place.input < account.inputs.size()
                               ? account.inputs[finding.place.input]
                               : "line");
}

}  // namespace tools
