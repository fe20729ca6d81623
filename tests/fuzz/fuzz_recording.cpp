// Any bytes as a recording of Perfetto: it is read in pieces as at once, what threads did adds up,
// and all outputs can be written.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <protozero/buffer_string.hpp>
#include <protozero/pbf_reader.hpp>
#include <protozero/varint.hpp>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/fuzz/outputs.h"
#include "tools/account/account.h"
#include "tools/account/reader.h"
#include "tools/log/capture.h"
#include "tools/sched/scheduling.h"
#include "tools/sched/trace.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t most);

namespace {

std::string Explain(const std::string& bytes, size_t piece) {
    tools::SceneReader scenes;
    tools::CountedLines lines;
    lines.isOn = true;
    tools::SchedReader recorded;
    tools::CaptureReader reader({&scenes, &lines});
    reader.SetPacketSink([&](std::string_view packet) { recorded.TakePacket(packet); });
    reader.Begin("name");
    try {
        ReadInPieces(reader, bytes, piece);
    } catch (const tools::CommandError& error) {
        return error.what();
    }
    reader.Finish();
    tools::SchedTrace trace = recorded.Finish();
    if (!trace.events.empty()) {
        RequireSums(trace);
    }
    const tools::CaptureSummary& summary = reader.Summary();
    tools::Account account = tools::Judge(scenes.Finish(summary.last), summary, {"name"}, {});
    std::unique_ptr<tools::Scheduling> made;
    std::vector<tools::Knot> clocks;
    if (summary.ahead) {
        clocks = {{0, *summary.ahead}};
    }
    try {
        if (!trace.events.empty()) {
            made = std::make_unique<tools::Scheduling>(
                MakeScheduling(account, std::move(trace), lines, clocks));
        }
    } catch (const tools::CommandError& error) {
        return error.what();
    }
    tools::MakeFindings(account, {});
    return OutputsOf(std::move(account), std::move(made));
}

// Changes a field somewhere within a message, or all of it, and makes the lengths around it right
// again: what is within is not looked at otherwise.
std::string Changed(const std::string& message, std::minstd_rand& random) {
    std::vector<std::string_view> parts;
    try {
        for (protozero::pbf_reader fields(message); fields.next();) {
            if (fields.wire_type() == protozero::pbf_wire_type::length_delimited) {
                parts.push_back(fields.get_view());
            } else {
                fields.skip();
            }
        }
    } catch (const protozero::exception&) {
        // As far as it goes.
    }
    if (parts.empty() || random() % 4 == 0) {
        std::string changed = message;
        changed.resize(message.size() + 64);
        changed.resize(LLVMFuzzerMutate(reinterpret_cast<uint8_t*>(changed.data()), message.size(),
                                        changed.size()));
        return changed;
    }
    const std::string_view part = parts[random() % parts.size()];
    const auto begin = static_cast<size_t>(part.data() - message.data());
    const auto length = static_cast<size_t>(protozero::length_of_varint(part.size()));
    const std::string changed = Changed(std::string(part), random);
    std::string whole = message.substr(0, begin - length);
    protozero::add_varint_to_buffer(&whole, changed.size());
    whole += changed;
    whole += message.substr(begin + part.size());
    return whole;
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t most,
                                          unsigned int seed) {
    std::minstd_rand random(seed);
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string changed = Changed(text, random).substr(0, most);
    std::copy(changed.begin(), changed.end(), data);
    return changed.size();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    Require(Explain(bytes, size + 1) == Explain(bytes, size % 97 + 1), "pieces are another thing");
    return 0;
}
