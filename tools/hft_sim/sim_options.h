// Command-line options of hft-sim, read with getopt_long into a SimConfig.
#pragma once

#include <string>

#include "tools/hft_sim/sim_config.h"

namespace dtl::hftsim {

enum class SimOptionsResult {
  kRun,    // config is filled in and valid
  kHelp,   // --help was given
  kError,  // bad usage; error says why
};

// Parses argv[1..argc-1] over the values already in config. Not thread-safe
// (getopt state is global); it can be called more than once.
SimOptionsResult ParseSimOptions(int argc, char* argv[], SimConfig& config, std::string& error);

// The --help text, with the program name in the usage line.
std::string SimUsageText(const std::string& program);

}  // namespace dtl::hftsim
