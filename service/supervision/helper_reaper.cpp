#include "supervision/helper_reaper.hpp"

#include <algorithm>
#include <utility>

#include "common/service_log.hpp"

namespace brisola {

HelperReaper::HelperReaper(Clock& clock, Clock::duration gracePeriod)
    : clock_(clock), gracePeriod_(gracePeriod) {}

void HelperReaper::adopt(std::unique_ptr<ChildProcess> process, std::string summary) {
  if (!process) return;
  helpers_.push_back(Helper{.process = std::move(process),
                            .summary = std::move(summary),
                            .killDate = clock_.now() + gracePeriod_});
}

void HelperReaper::collect() {
  reapEnded();
  const Clock::time_point now = clock_.now();
  for (Helper& helper : helpers_) {
    if (!helper.killed && now >= helper.killDate) kill(helper);
  }
}

void HelperReaper::drain() {
  waitUntil(clock_.now() + gracePeriod_);
  if (helpers_.empty()) return;
  for (Helper& helper : helpers_) {
    if (!helper.killed) kill(helper);
  }
  waitUntil(clock_.now() + killedHelperReapLimit);
}

void HelperReaper::reapEnded() {
  // isRunning() reaps the child when it has ended.
  std::erase_if(helpers_, [](Helper& helper) { return !helper.process->isRunning(); });
}

void HelperReaper::kill(Helper& helper) {
  BrisolaServiceLog::write("Killing " + helper.summary +
                           ": still running after the terminate request");
  helper.process->kill();
  helper.killed = true;
}

void HelperReaper::waitUntil(Clock::time_point deadline) {
  for (;;) {
    reapEnded();
    if (helpers_.empty() || clock_.now() >= deadline) return;
    clock_.sleepFor(terminationPollInterval);
  }
}

}  // namespace brisola
