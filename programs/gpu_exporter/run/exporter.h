#ifndef EXPORTER_H
#define EXPORTER_H

#include <chrono>
#include <string>

#include "serve/listen_address.h"

struct ExporterOptions {
    ListenAddress Listen;
    /// The file of users and passwords; empty: everyone gets metrics.
    std::string AuthFile;
    bool bProcesses = false;
    std::chrono::milliseconds Interval{1000};
};

/// Serves metrics until a signal ends it. Result: the exit status. Throws `Failure`.
int RunExporter(const ExporterOptions& options);

#endif  // EXPORTER_H
