#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>

#include "tools/output/json.h"

namespace tools {

void WriteCsv(std::ostream& out, const Account& account) {
    int32_t stages = 0;
    for (const Scene& scene : account.scenes) {
        stages = std::max(stages, scene.stageCount);
    }
    std::string row = "scene,frame,status,reason,line,start_ms,end_ms,latency_ms,interval_ms,late";
    for (int32_t stage = 0; stage < stages; ++stage) {
        for (const char* what : {"_start_ms", "_end_ms", "_wait_ms", "_work_ms"}) {
            row += ",stage" + std::to_string(stage) + what;
        }
    }
    out << row << '\n';

    const auto time = [&row](Micros moment, Micros since) {
        row += ',';
        if (moment != NO_TIME && since != NO_TIME) {
            const Micros passed = moment - since;
            row += passed < 0 ? "-" : "";
            row += std::to_string(std::abs(passed) / 1000);
            if (const Micros rest = std::abs(passed) % 1000; rest != 0) {
                row += '.' + std::to_string(1000 + rest).substr(1);
            }
        }
    };
    for (size_t s = 0; s < account.scenes.size(); ++s) {
        const Scene& scene = account.scenes[s];
        for (size_t i = 0; i < scene.frames.size(); ++i) {
            const Frame& frame = scene.frames[i];
            // None of the reasons has a comma but is in quotes all the same: they are sentences.
            row = std::to_string(s + 1) + ',' + std::to_string(frame.number) + ',' +
                  NameOf(frame.status) + ",\"" + ReasonOf(frame.reason) + "\"," +
                  std::to_string(frame.place.line);
            time(frame.start, scene.begin);
            time(frame.end, scene.begin);
            time(frame.end, frame.start);
            time(frame.interval, 0);
            row += frame.interval == NO_TIME ? "," : frame.isLate ? ",1" : ",0";
            for (const StageTimes& times : scene.StagesOf(i)) {
                time(times.start, scene.begin);
                time(times.end, scene.begin);
                time(times.wait, 0);
                time(times.work, 0);
            }
            row.append(static_cast<size_t>(stages - scene.stageCount) * 4, ',');
            out << row << '\n';
        }
    }
}

}  // namespace tools
