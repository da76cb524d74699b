#ifndef COMMON_SIMULATE_OPTION_H
#define COMMON_SIMULATE_OPTION_H

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

#include "common/simulate.h"

/// Adds the option --simulate, whose value `Simulate` takes.
inline void AddSimulateOption(CLI::App* app, std::optional<std::string>* boards) {
    app->add_option("--simulate", *boards,
                    "Simulate so many GPUs, or kinds: desktop,\nlaptop,datacenter,old,workstation")
        ->type_name("[GPUS]")
        ->expected(0, 1)
        ->default_str("1")
        ->check(SimulationError);
}

#endif  // COMMON_SIMULATE_OPTION_H
