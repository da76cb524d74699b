#ifndef EXPORTER_PROCESS_H
#define EXPORTER_PROCESS_H

#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "http.h"

/// gpu_exporter in a process of its own, on any free port.
class ExporterProcess {
public:
    /// `options` and, before the program, `environment` (assignments) are written as for a shell. Returns when the
    /// program serves, or has ended without that.
    explicit ExporterProcess(const std::string& options, const std::string& environment = {}) {
        const std::string command = "echo $$; exec setpriv --pdeathsig KILL env " + environment +
                                    " '" PROGRAM_DIR "/gpu_exporter' --listen 127.0.0.1:0 " + options + " 2>&1";
        // NOLINTNEXTLINE(cert-env33-c): a shell, as for a user
        Output = popen(command.c_str(), "r");
        while (Port == 0 && ReadLine()) {
        }
    }
    /// Kills the program when it still runs.
    ~ExporterProcess() {
        if (Output != nullptr) Stop(SIGKILL);
    }
    ExporterProcess(const ExporterProcess&) = delete;
    ExporterProcess& operator=(const ExporterProcess&) = delete;

    HttpAnswer Get(const std::string& path, const std::string& fields = {}) const {
        return HttpConnection(Port).Get(path, fields);
    }

    /// Signals the program and waits until it has ended. Result: its exit status, or 128 and the signal that ended it.
    int Stop(int signal = SIGTERM) {
        kill(Id, signal);
        while (ReadLine()) {
        }
        const int status = pclose(Output);
        Output = nullptr;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    /// 0 when the program has not begun to serve.
    int Port = 0;
    pid_t Id = 0;
    /// What the program has written until it served and, after `Stop`, until its end.
    std::string Log;

private:
    bool ReadLine() {
        char line[4096];
        if (std::fgets(line, sizeof line, Output) == nullptr) return false;
        static_cast<void>(
            std::sscanf(line, Id == 0 ? "%d" : "Listening on http://127.0.0.1:%d/", Id == 0 ? &Id : &Port));
        Log += line;
        return true;
    }

    FILE* Output = nullptr;
};

#endif  // EXPORTER_PROCESS_H
