// Puts steps, which come when their last line has been read, into the order of their first lines.

#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <vector>

#include "tools/account/step.h"

namespace tools {

// Steps are held back until so many have followed them. Memory is flat.
class StepOrder : public StepSink {
  public:
    explicit StepOrder(StepSink& stepSink) : sink(stepSink) {}

    void OnStep(const Step& step) override;
    void OnDisturbance(const Disturbance& disturbance) override;
    // Hands on what is held back.
    void Flush();

  private:
    // A thread whose last event left no line is waited for until it logs again, which takes a frame
    // period or two: more node ends than that do not come meanwhile.
    static constexpr size_t HELD = 64;

    struct Entry {
        Step step;  // Or, when there is one:
        std::optional<Disturbance> disturbance;

        const Place& WhereIs() const { return disturbance ? disturbance->place : step.place; }
    };

    Entry& Insert(const Place& place);
    void HandOnFirst();

    StepSink& sink;
    std::deque<Entry> held;    // In order.
    std::vector<Entry> spare;  // For their memory.
};

}  // namespace tools
