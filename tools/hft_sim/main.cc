// hft-sim: a switch that exports high-frequency counters as IPFIX over UDP.
#include <signal.h>

#include <cinttypes>
#include <cstdio>
#include <string>

#include "tools/hft_sim/hft_simulator.h"
#include "tools/hft_sim/sim_options.h"

namespace {

dtl::hftsim::HftSimulator* g_simulator = nullptr;

// Only sets the simulator's atomic stop flag; the run loop ends cleanly.
void OnStopSignal(int) {
  if (g_simulator != nullptr) g_simulator->RequestStop();
}

void InstallStopHandlers() {
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a blocked send or sleep returns and sees the stop flag.
  action.sa_flags = 0;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

int main(int argc, char* argv[]) {
  using dtl::hftsim::SimOptionsResult;
  const std::string program = argc > 0 ? argv[0] : "hft-sim";
  dtl::hftsim::SimConfig config;
  std::string error;
  switch (dtl::hftsim::ParseSimOptions(argc, argv, config, error)) {
    case SimOptionsResult::kHelp:
      std::fputs(dtl::hftsim::SimUsageText(program).c_str(), stdout);
      return 0;
    case SimOptionsResult::kError:
      std::fprintf(stderr, "hft-sim: %s\nTry '%s --help'.\n", error.c_str(), program.c_str());
      return 2;
    case SimOptionsResult::kRun:
      break;
  }

  dtl::hftsim::HftSimulator simulator(config);
  g_simulator = &simulator;
  InstallStopHandlers();
  const dtl::hftsim::SimRunResult result = simulator.Run();
  g_simulator = nullptr;
  if (!result.ok()) {
    std::fprintf(stderr, "hft-sim: %s\n", result.error.c_str());
    return 1;
  }
  const dtl::hftsim::SimTotals& t = result.totals;
  std::printf("hft-sim: sent %" PRIu64 " samples from %u exporter(s) to %s in %.3f s: %" PRIu64 " datagrams, %" PRIu64
              " bytes, %" PRIu64 " announcements, %" PRIu64 " fragments dropped, %" PRIu64 " swapped, %" PRIu64
              " send errors%s\n",
              t.samples, config.exporters, config.target.c_str(), result.elapsed_sec, t.datagrams, t.bytes,
              t.announcements, t.fragments_dropped, t.fragment_swaps, t.send_errors,
              simulator.stop_requested() ? " (stopped)" : "");
  std::fflush(stdout);
  return 0;
}
