// The log: one line a record, each with a severity, a channel and the place in
// the source that wrote it.
//
//     MSG_LOG("tm_velt_cloop", msg_log::progress) << "msg: Entering periodic control loop.";
//
// The texts after MSG_LOG are evaluated only when the record is written.
#pragma once

#include <iosfwd>
#include <memory>
#include <string>

class msg_log {
  public:
    // As the journal numbers them; a smaller number is more severe.
    enum severity_level {
        failure = 3,
        warning = 4,
        progress = 6,
        detail = 7,
        trace = 8,
    };

    static msg_log& instance();

    // Opens the log on standard error. The highest severity number written is
    // `VELT_LOG_LEVEL`; the program's name and the second argument are not used
    // by this back end.
    void init(const std::string& program, bool to_console);

    severity_level level() const;
    void set_level(severity_level);
    bool admits(severity_level severity) const { return severity <= level(); }

    // " [SOURCE:LINE]", where SOURCE is the name of the file without folder and ending.
    static std::string getCodeTrace(const char* file, int line);

    // Where finished lines go instead of standard error; an empty function
    // goes back to standard error. For tests. Called by one thread at a time.
    using line_sink = void (*)(void* context, severity_level, const std::string& channel,
                               const std::string& text);
    void set_sink(line_sink sink, void* context);

    // From now on only the calling thread's lines are written: what it has to say
    // is the last that is heard of the program.
    void leave_to_this_thread();

    msg_log(const msg_log&) = delete;
    msg_log& operator=(const msg_log&) = delete;

  private:
    msg_log();
    ~msg_log() = default;
};

namespace msg_log_slg {

// One record being written; made by MSG_LOG only.
class statement {
  public:
    statement(const std::string& channel, msg_log::severity_level severity);
    ~statement();
    statement(const statement&) = delete;
    statement& operator=(const statement&) = delete;

    bool is_open() const { return record_ != nullptr; }
    std::ostream& stream();
    void push(const char* file, int line);

  private:
    struct record;
    std::unique_ptr<record> record_;
};

}  // namespace msg_log_slg

// What the code trace names. One of several files of a class is compiled with
// the name of the class.
#ifndef MSG_LOG_SOURCE
#define MSG_LOG_SOURCE __FILE__
#endif

#define MSG_LOG(channel, severity)                                                      \
    for (msg_log_slg::statement msg_log_statement((channel), (severity));               \
         msg_log_statement.is_open(); msg_log_statement.push(MSG_LOG_SOURCE, __LINE__)) \
    msg_log_statement.stream()
