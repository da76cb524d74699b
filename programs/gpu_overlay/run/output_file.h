#ifndef GPU_OVERLAY_OUTPUT_FILE_H
#define GPU_OVERLAY_OUTPUT_FILE_H

#include <string>

/// A file that is written at the end of the run, and opened at its beginning, so that a wrong path is found out before.
class OutputFile {
public:
    /// Throws `Failure` when the file cannot be opened for writing. What it holds stays until `Write`. With an empty
    /// path there is no file.
    explicit OutputFile(const std::string& path);
    ~OutputFile();

    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    bool IsWanted() const { return Descriptor >= 0; }

    /// Removes a file that was created and never written; nothing can be written any more. The destructor does it too.
    void Abandon();

    /// Only where it is wanted: makes `bytes` the content of the file. Throws `Failure`.
    void Write(const std::string& bytes);

private:
    const std::string Path;
    int Descriptor = -1;
    bool bEmptyAndNew = false;
};

#endif  // GPU_OVERLAY_OUTPUT_FILE_H
