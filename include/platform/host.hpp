// The seam to the host: time, files' places, the shell and the end of the
// process. Nothing else in the system calls a clock, sleeps, or spells out
// where the host's root is.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace host {

// The program's time. The real one runs `VELT_TIME_SCALE` times as fast as the
// host's; its origin is the real time at the start of the process.
class time_source {
  public:
    virtual ~time_source() = default;

    virtual std::chrono::nanoseconds wall() = 0;       // since the Unix epoch
    virtual std::chrono::nanoseconds monotonic() = 0;  // since an arbitrary origin
    virtual void sleep(std::chrono::nanoseconds) = 0;  // of the program's time
};

// The time source in force. Any thread may call.
time_source& time();

// Puts another time source in force for the life of this object. For tests,
// which turn a clock by hand; made and destroyed while no other thread asks.
class time_override {
  public:
    explicit time_override(time_source&);
    ~time_override();
    time_override(const time_override&) = delete;
    time_override& operator=(const time_override&) = delete;

  private:
    time_source* previous_;
};

// Milliseconds since the Unix epoch by the program's clock: the time stamp of events.
std::int64_t wall_milliseconds();

// How long a span of the program's time is in real time.
std::chrono::nanoseconds real_duration(std::chrono::nanoseconds program_duration);

// An absolute path of the host, under the prefix `VELT_ROOT`.
std::string path(std::string_view absolute);

// Whether the absolute path exists under the prefix. A path that cannot be
// examined does not exist.
bool exists(std::string_view absolute);

// An environment variable, or the fallback where it is not set.
std::string environment(const char* name, std::string_view fallback);

// A word as a POSIX shell reads it back unchanged; plain words stay as they are.
std::string shell_word(const std::string& word);

// Runs a command line through the shell and waits for it. The result is that
// of system(3).
int run_shell(const std::string& command_line);

// What a command line that is run through the shell prints. The command is
// waited for when this object ends.
class shell_reader {
  public:
    explicit shell_reader(const std::string& command_line);
    ~shell_reader();
    shell_reader(const shell_reader&) = delete;
    shell_reader& operator=(const shell_reader&) = delete;

    // To the end of its output, of which at most 64 KiB are kept. Nothing where
    // the command could not be run.
    std::string read_all();

  private:
    std::FILE* const output_;
};

// Ends the process at once with everything left as it is: threads may still be
// using the log, clients and singletons, so nothing is destroyed.
[[noreturn]] void end_process(int status);

}  // namespace host
