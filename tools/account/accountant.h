// Makes the account of what happened, from steps as they come.

#pragma once

#include <functional>
#include <memory>

#include "tools/account/account.h"
#include "tools/account/step.h"

namespace tools {

struct AccountOptions {
    double latePeriods = 1.5;  // An output interval of more frame periods than that is late.
    // False: frames that are through are forgotten, so that memory stays flat however long it goes
    // on; scenes then have counts and findings but neither frames nor statistics.
    bool keepsFrames = true;
    // Is told of each finding as soon as its consequences are known, about a second after the
    // moment. Scenes of the account hold the same, sorted and many of a kind made one.
    std::function<void(const Scene&, const AccountedFinding&)> onFinding;
};

class Accountant : public StepSink {
  public:
    explicit Accountant(AccountOptions options = {});
    ~Accountant() override;

    void OnStep(const Step& step) override;
    void OnDisturbance(const Disturbance& disturbance) override;

    // Nothing comes for now: what is held until it is known to be in order is handed on.
    void Settle();

    // The scene that was last heard of; null before the first.
    const Scene* Current() const;

    // Ends what is still going on and gives the account away. What steps do not tell (inputs, times
    // of the clock, counts of lines, the checker's findings) is the caller's to fill in. To be
    // called once, last.
    Account Finish();

  private:
    class Implementation;
    std::unique_ptr<Implementation> implementation;
};

}  // namespace tools
