// Start and stop against stand-in switches: a refusal during start undoes
// the switches already enabled, a refusal during stop skips only that switch.

#include <memory>

#include <gtest/gtest.h>

#include "provider_test_support.h"
#include "support/quil_mock.h"

using provider_test::LogCapture;
using provider_test::FreeUdpPort;
using provider_test::Options;
using provider_test::Provider;

namespace {

bool HasEvent(const QuilMock& mock, const std::string& event) {
  for (const auto& entry : mock.Journal())
    if (entry.event == event) return true;
  return false;
}

// The PATCH bodies sent to the HFT subtree, in order.
std::vector<std::string> HftPatches(const QuilMock& mock) {
  std::vector<std::string> bodies;
  for (const auto& entry : mock.Journal())
    if (entry.method == "PATCH" && entry.path == "/quil_v1/system/telemetry/hft")
      bodies.push_back(entry.body);
  return bodies;
}

class SwitchStartTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ipfix_port_ = FreeUdpPort();
    ASSERT_NE(ipfix_port_, 0);
  }

  std::unique_ptr<QuilMock> StartMock(std::vector<std::string> faults = {}) {
    QuilMock::Options options;
    options.faults = std::move(faults);
    options.ipfix_port = ipfix_port_;
    auto mock = std::make_unique<QuilMock>(options);
    EXPECT_TRUE(mock->ok());
    return mock;
  }

  void AddSwitch(Options& options, int n, const QuilMock& mock) {
    const std::string prefix = "switch-" + std::to_string(n) + "-";
    options.Add((prefix + "ip").c_str(), "127.0.0.1");
    options.Add((prefix + "port").c_str(), std::to_string(mock.port()));
  }

  void AddBaseOptions(Options& options) {
    options.Add("ipfix-receiver-port", std::to_string(ipfix_port_))
        .Add("ipfix-receiver-workers", "1")
        .Add("collector-ip", "127.0.0.1")
        .Add("switch-interfaces", "Ethernet1/1");
  }

  uint16_t ipfix_port_ = 0;
};

}  // namespace

TEST_F(SwitchStartTest, SecondSwitchRefusingUndoesTheFirstAndSparesTheThird) {
  auto first = StartMock();
  auto second = StartMock({"POST ^/quil_v1/revision$ 500 refused"});
  auto third = StartMock();
  ASSERT_TRUE(first->ok() && second->ok() && third->ok());

  Options options;
  AddBaseOptions(options);
  AddSwitch(options, 1, *first);
  AddSwitch(options, 2, *second);
  AddSwitch(options, 3, *third);
  LogCapture log;
  Provider provider(options.get());
  ASSERT_NE(provider.get(), nullptr);
  ASSERT_EQ(provider.context().switches.size(), 3u);

  EXPECT_FALSE(provider->start(provider.get()));

  EXPECT_FALSE(provider.context().receiver->running());
  EXPECT_EQ(LogCapture::LevelOf("[ipfix bin data provider] failed to configure switch 2: "),
            DTL_LOG_LEVEL_ERROR);
  EXPECT_EQ(LogCapture::Count("failed to configure switch"), 1u);
  // Switch 1 was enabled, then disabled again: its last HFT patch stops the
  // export and the export it started is gone.
  const std::vector<std::string> patches = HftPatches(*first);
  ASSERT_FALSE(patches.empty());
  EXPECT_NE(patches.back().find("\"disabled\""), std::string::npos) << patches.back();
  EXPECT_TRUE(HasEvent(*first, "hft-sim started")) << first->LogText();
  EXPECT_TRUE(HasEvent(*first, "hft-sim stopped")) << first->LogText();
  EXPECT_TRUE(third->Journal().empty());
}

TEST_F(SwitchStartTest, StopGoesOnPastASwitchThatRefuses) {
  auto first = StartMock();
  auto second = StartMock();
  ASSERT_TRUE(first->ok() && second->ok());

  Options options;
  AddBaseOptions(options);
  AddSwitch(options, 1, *first);
  AddSwitch(options, 2, *second);
  LogCapture log;
  Provider provider(options.get());
  ASSERT_NE(provider.get(), nullptr);
  ASSERT_TRUE(provider->start(provider.get())) << first->LogText();
  EXPECT_TRUE(provider.context().receiver->running());
  const size_t second_patches = HftPatches(*second).size();

  first->Stop();  // switch 1 no longer answers
  EXPECT_FALSE(provider->stop(provider.get()));

  EXPECT_EQ(LogCapture::LevelOf("[ipfix bin data provider] failed to disable HFT on switch 1: "),
            DTL_LOG_LEVEL_ERROR);
  const std::vector<std::string> patches = HftPatches(*second);
  ASSERT_GT(patches.size(), second_patches);
  EXPECT_NE(patches.back().find("\"disabled\""), std::string::npos);
  EXPECT_FALSE(provider.context().receiver->running());
}
