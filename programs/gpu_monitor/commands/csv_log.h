#ifndef GPU_MONITOR_CSV_LOG_H
#define GPU_MONITOR_CSV_LOG_H

#include <string>

#include "commands/new_samples.h"

/// A CSV file to which every sample is appended once.
class CsvLog {
public:
    /// Without a path, nothing is logged. Throws `Failure` when the file cannot be written.
    explicit CsvLog(std::string path);
    ~CsvLog();
    CsvLog(const CsvLog&) = delete;
    CsvLog& operator=(const CsvLog&) = delete;

    /// Writes the samples of `gpus` that are new. What cannot be written is tried again the next time.
    void Add(const PolledFeed::Gpus& gpus);

    /// Why samples are missing from the file, for the user; empty when the file has all of them.
    const std::string& Problem() const { return LastProblem; }

private:
    void WritePending();

    const std::string Path;
    int File = -1;
    NewSamples Samples;
    /// What is not in the file yet. While there is something, the feed keeps what is newer.
    std::string Pending;
    std::string LastProblem;
};

#endif  // GPU_MONITOR_CSV_LOG_H
