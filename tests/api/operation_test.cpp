#include <gtest/gtest.h>

#include <stdexcept>

#include "api/base_operation.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using Announcement = std::pair<std::string, Operation::ChangePhase>;
constexpr auto kWill = Operation::ChangePhase::will;
constexpr auto kDid = Operation::ChangePhase::did;

// An operation whose main leaves it running until asked to finish, or throws; it records what it
// announces (start runs on the test's thread here, so no lock is needed).
class ManualOperation : public BaseOperation {
 public:
  enum class Main { leaveRunning, raise };
  explicit ManualOperation(Main behaviour) : behaviour_(behaviour) {
    addObserver([this](Operation&, std::string_view key, ChangePhase phase) {
      seen.emplace_back(std::string(key), phase);
    });
  }
  void finish() {
    setExecuting(false);
    setFinished(true);
  }

  std::vector<Announcement> seen;
  int mainRuns = 0;

 protected:
  void main() override {
    ++mainRuns;
    if (behaviour_ == Main::raise) {
      throw std::runtime_error("boom");
    }
  }

 private:
  const Main behaviour_;
};

TEST(BaseOperation, AnnouncesEachRealChangeOnceAndStartDependsOnCancellationAndState) {
  const std::vector<Announcement> startedAndFinished = {
      {"isExecuting", kWill}, {"isExecuting", kDid}, {"isExecuting", kWill},
      {"isExecuting", kDid},  {"isFinished", kWill}, {"isFinished", kDid}};
  auto operation = std::make_shared<ManualOperation>(ManualOperation::Main::leaveRunning);
  operation->start();
  EXPECT_EQ(operation->seen.size(), 2u);
  operation->finish();
  // The value it already has announces nothing, and a finished operation does not run again.
  operation->finish();
  operation->start();
  EXPECT_TRUE(operation->isFinished() && !operation->isExecuting());
  EXPECT_EQ(operation->seen, startedAndFinished);
  EXPECT_EQ(operation->mainRuns, 1);

  // Cancelled and never started: not run, and not reported finished by its own start.
  auto neverStarted = std::make_shared<ManualOperation>(ManualOperation::Main::leaveRunning);
  neverStarted->cancel();
  neverStarted->start();
  EXPECT_EQ(neverStarted->mainRuns, 0);
  EXPECT_TRUE(neverStarted->seen.empty());

  // Cancelled while executing: the next start finishes it without running main again.
  auto running = std::make_shared<ManualOperation>(ManualOperation::Main::leaveRunning);
  running->start();
  running->cancel();
  running->start();
  EXPECT_EQ(running->mainRuns, 1);
  EXPECT_EQ(running->seen, startedAndFinished);

  // A main that throws is logged and finishes, or its queue's only slot would be held for ever.
  auto log = testing::CapturedLog::install();
  auto raising = std::make_shared<ManualOperation>(ManualOperation::Main::raise);
  raising->start();
  EXPECT_EQ(raising->seen, startedAndFinished);
  EXPECT_TRUE(log->contains("Exception escaped an API operation: boom"));
  log->uninstall();
}

}  // namespace
}  // namespace kestrova
