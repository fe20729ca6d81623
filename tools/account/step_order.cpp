#include "tools/account/step_order.h"

#include <iterator>
#include <utility>

namespace tools {

StepOrder::Entry& StepOrder::Insert(const Place& place) {
    if (held.size() == HELD) {
        HandOnFirst();
    }
    const auto isBefore = [](const Place& one, const Place& other) {
        return std::pair(one.input, one.line) < std::pair(other.input, other.line);
    };
    // Most come in order.
    auto next = held.end();
    while (next != held.begin() && isBefore(place, std::prev(next)->WhereIs())) {
        --next;
    }
    if (spare.empty()) {
        return *held.emplace(next);
    }
    Entry& entry = *held.insert(next, std::move(spare.back()));
    spare.pop_back();
    return entry;
}

void StepOrder::HandOnFirst() {
    Entry& first = held.front();
    if (first.disturbance) {
        sink.OnDisturbance(*first.disturbance);
    } else {
        sink.OnStep(first.step);
    }
    spare.push_back(std::move(first));
    held.pop_front();
}

void StepOrder::OnStep(const Step& step) {
    Entry& entry = Insert(step.place);
    entry.step = step;
    entry.disturbance.reset();
}

void StepOrder::OnDisturbance(const Disturbance& disturbance) {
    Insert(disturbance.place).disturbance = disturbance;
}

void StepOrder::Flush() {
    while (!held.empty()) {
        HandOnFirst();
    }
}

}  // namespace tools
