// postwell log stats: the traffic by hours, days or months.

#ifndef POSTWELL_PROGRAMS_LOG_STATS_H_
#define POSTWELL_PROGRAMS_LOG_STATS_H_

#include <CLI/CLI.hpp>

void addLogStats(CLI::App &noun);

#endif  // POSTWELL_PROGRAMS_LOG_STATS_H_
