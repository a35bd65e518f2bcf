// The plug-in's log lines as dtl-host receives them: printed the way the
// framework's standard-error logger prints them, at the level the user asked
// for, and watched for the collector's final status line, which dtl-host
// repeats as its own summary at exit.
#pragma once

#include <string>

namespace dtl_host {

// Reads the plug-in's log level (from the environment, as the plug-in
// would) and hands the plug-in our log function. False when the plug-in
// lacks the logger functions; its lines then go to standard error as before.
bool WatchPluginLog(void* plugin);

// What the collector's final status line says about the whole collector
// ("0 session(s); 2814 samples stored ..."), empty when none was logged.
std::string FinalCollectorStatus();

}  // namespace dtl_host
