// Missing samples found from the run of sample times: holes, late samples
// that fill them, an interval learnt late, pauses and duplicates.
#include "ipfix/sample_ledger.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using dtl::ipfix::DiscardCause;
using dtl::ipfix::SampleLedger;
using dtl::ipfix::SessionAccount;

constexpr uint32_t kBase = 1'700'000'000;

TEST(SampleLedger, CountsSamplesMissingFromTheRunOfSampleTimes) {
  struct Case {
    const char* what;
    std::vector<uint64_t> steps;  // sample times, in 100 µs steps from kBase
    int64_t missing;
    bool loss_possible = true;  // what the exporter's numbering says
  };
  const Case cases[] = {
      {"a regular run", {0, 1, 2, 3, 4}, 0},
      {"one hole", {0, 1, 3, 4}, 1},
      {"a hole of three", {0, 1, 5, 6}, 3},
      {"the second sample lost before the interval is known", {0, 2, 3, 4}, 1},
      {"a late sample fills its hole", {0, 1, 3, 2, 4}, 0},
      {"an older sample before the first one", {5, 6, 7, 3}, 1},
      {"the same sample twice", {0, 1, 1, 2}, 0},
      {"a pause of two minutes starts a new run", {0, 1, 2, 1200000, 1200001, 1200003}, 1},
      {"holes before and after a pause add up", {0, 2, 3, 1200000, 1200002, 1200003}, 2},
      {"a gap with nothing lost by the numbering is a pause", {0, 1, 2, 50000, 50001, 50002}, 0, false},
  };
  for (const Case& c : cases) {
    auto account = std::make_shared<SessionAccount>(0, "test");
    SampleLedger ledger(account);
    for (uint64_t step : c.steps) {
      const uint64_t ns = step * 100000;
      ledger.Opened(kBase + static_cast<uint32_t>(ns / 1000000000), static_cast<uint32_t>(ns % 1000000000),
                    c.loss_possible);
    }
    EXPECT_EQ(account->missing.load(), c.missing) << c.what;
  }
}

TEST(SampleLedger, StoredIsWholeMinusWhatStorageLost) {
  auto account = std::make_shared<SessionAccount>(0, "test");
  SampleLedger ledger(account);
  for (int i = 0; i < 10; ++i) ledger.Committed();
  ledger.Discarded(DiscardCause::kNoSlot, kBase, 0);
  account->Discard(DiscardCause::kStorageError, 3);
  EXPECT_EQ(account->stored(), 7u);
  EXPECT_EQ(account->discarded_by(DiscardCause::kNoSlot), 1u);
  EXPECT_EQ(account->discarded_by(DiscardCause::kFragmentLost), 0u);
}

}  // namespace
