#ifndef COMMON_OPTIONS_H
#define COMMON_OPTIONS_H

#include <CLI/CLI.hpp>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "common/failure.h"
#include "common/simulate.h"

// What command lines of the programs have in common.

/// Empty when `text` is a whole number, otherwise why it is not. The parser would read a number with a leading zero as
/// an octal one, and would ignore an option with an empty text, as a shell variable that is not set gives it.
inline std::string WholeNumberError(const std::string& text) {
    const bool bDigits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    const bool bWhole = bDigits && (text == "0" || text.front() != '0');
    return bWhole ? "" : "'" + text + "' is not a whole number";
}

/// Empty when `text` has only the characters of a decimal number, otherwise what is wrong. The parser would also take
/// infinity, for example.
inline std::string DecimalError(const std::string& text) {
    const bool bDecimal = !text.empty() && text.find_first_not_of("0123456789.") == std::string::npos;
    return bDecimal ? "" : "'" + text + "' is not a decimal number";
}

/// Empty when `path` may name a file, otherwise what is wrong.
inline std::string FileNameError(const std::string& path) {
    return path.empty() ? "the name of the file is empty" : "";
}

/// A range that the help does not mention: the description of the option does.
template <typename Number>
CLI::Validator InRange(Number lowest, Number highest) {
    return CLI::Range(lowest, highest).description("");
}

/// Adds the option --interval.
inline void AddIntervalOption(CLI::App* app, int* milliseconds) {
    app->add_option("--interval", *milliseconds, "Wait between two cycles, 100 to 10000 milliseconds")
        ->type_name("MS")
        ->check(WholeNumberError)
        ->check(InRange(100, 10000))
        ->capture_default_str();
}

/// Adds the option --simulate, whose value `Simulate` takes.
inline void AddSimulateOption(CLI::App* app, std::optional<std::string>* boards) {
    app->add_option(
           "--simulate", *boards,
           "Simulate so many GPUs, or kinds: desktop,\nlaptop,datacenter,old,workstation; or play\nrecording:FILE")
        ->type_name("[GPUS]")
        ->expected(0, 1)
        ->default_str(DefaultBoards())
        ->check(SimulationError);
}

/// A command line that the program does not take. `problem` is a sentence without its period.
inline Failure UsageFailure(const CLI::App& app, const std::string& problem) {
    return Failure(problem + ". Run " + app.get_name() + " --help for usage.", kExitUsage);
}

/// Reads the command line. Result: the help or the version where that is asked for, which is then all that the program
/// prints; otherwise empty. Throws `Failure`.
inline std::string ReadCommandLine(CLI::App* app, int argc, char** argv) {
    std::ostringstream help;
    try {
        app->parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // The parser reports a misspelt command as a missing one, which would not help the user.
        const std::vector<std::string> unexpected = app->remaining();
        const bool bNoCommand = error.get_name() == "RequiredError" && app->get_subcommands().empty();
        if (bNoCommand && !unexpected.empty()) throw UsageFailure(*app, "Not a command: " + unexpected.front());
        if (error.get_exit_code() != 0) throw UsageFailure(*app, error.what());
        app->exit(error, help);
    }
    return help.str();
}

/// Prints the help or the version on standard output. Result: the exit status. Throws `Failure`.
inline int PrintHelp(const std::string& help) {
    if (!(std::cout << help).flush()) throw Failure("Cannot write to standard output.");
    return kExitSuccess;
}

#endif  // COMMON_OPTIONS_H
