#include "msg_log.hpp"

#include "host.hpp"

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions/message.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <boost/smart_ptr/make_shared_object.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <unistd.h>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>

namespace logging = boost::log;

namespace {

using logger_type =
    logging::sources::severity_channel_logger_mt<msg_log::severity_level, std::string>;

std::atomic<int> highest_severity{msg_log::progress};

int level_from_environment() {
    const std::string text = host::environment("VELT_LOG_LEVEL", "6");
    int level = msg_log::progress;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), level);
    const bool number = error == std::errc() && end == text.data() + text.size();
    return number ? level : static_cast<int>(msg_log::progress);
}

// A record is one line, whatever bytes a path or a text from outside holds.
void append_on_one_line(std::string& line, std::string_view text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            line += c;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            line += escaped;
        }
    }
}

std::string channel_word(const std::string& channel) {
    if (channel.empty())
        return "-";
    std::string word;
    append_on_one_line(word, channel);
    for (char& c : word) {
        if (c == ' ')
            c = '_';
    }
    return word;
}

std::string time_stamp() {
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(host::time().wall());
    const std::time_t seconds = now.count() / 1'000'000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + length, sizeof text - length, ".%06dZ",
                  static_cast<int>(now.count() % 1'000'000));
    return text;
}

void write_to_standard_error(const std::string& line) {
    std::string_view rest = line;
    while (!rest.empty()) {
        const ssize_t written = ::write(STDERR_FILENO, rest.data(), rest.size());
        if (written <= 0)
            return;
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
}

class line_backend final
    : public logging::sinks::basic_sink_backend<logging::sinks::synchronized_feeding> {
  public:
    void consume(const logging::record_view& record) {
        const auto severity = logging::extract_or_default<msg_log::severity_level>(
            "Severity", record, msg_log::progress);
        const auto channel =
            logging::extract_or_default<std::string>("Channel", record, std::string());
        const auto message =
            logging::extract_or_default<std::string>("Message", record, std::string());
        const std::lock_guard lock(sink_mutex_);
        if (only_writer_ && *only_writer_ != std::this_thread::get_id())
            return;
        if (sink_ != nullptr) {
            sink_(sink_context_, severity, channel, message);
            return;
        }
        std::string line;
        if (to_journal_)
            line = "<" + std::to_string(static_cast<int>(severity)) + ">";
        else
            line = time_stamp() + " ";
        line += std::to_string(static_cast<int>(severity)) + " " + channel_word(channel) + " ";
        append_on_one_line(line, message);
        line += '\n';
        write_to_standard_error(line);
    }

    void set_sink(msg_log::line_sink sink, void* context) {
        const std::lock_guard lock(sink_mutex_);
        sink_ = sink;
        sink_context_ = context;
    }

    void leave_to(std::thread::id writer) {
        const std::lock_guard lock(sink_mutex_);
        only_writer_ = writer;
    }

  private:
    const bool to_journal_ = !host::environment("JOURNAL_STREAM", "").empty();
    std::mutex sink_mutex_;
    msg_log::line_sink sink_ = nullptr;
    void* sink_context_ = nullptr;
    std::optional<std::thread::id> only_writer_;
};

boost::shared_ptr<line_backend>& installed_backend() {
    static auto* const backend = new boost::shared_ptr<line_backend>;
    return *backend;
}

}  // namespace

namespace msg_log_slg {

// The one logger of the program. Never destroyed: threads log until the end.
static logger_type& construct_logger() {
    static auto* const logger = new logger_type;
    return *logger;
}

// Records share the channel's value with the logger, by counts inside a library
// that no sanitizer sees into: so the opening and the end of records are put in
// an order here.
static std::mutex& record_mutex() {
    static auto* const mutex = new std::mutex;
    return *mutex;
}

struct statement::record {
    explicit record(logging::record&& opened) : opened_record(std::move(opened)) {
        stream.attach_record(opened_record);
    }

    logging::record opened_record;
    logging::record_ostream stream;
};

statement::statement(const std::string& channel, msg_log::severity_level severity) {
    if (!msg_log::instance().admits(severity))
        return;
    namespace keywords = logging::keywords;
    const std::lock_guard lock(record_mutex());
    logging::record opened = construct_logger().open_record(
        (keywords::channel = channel, keywords::severity = severity));
    if (opened)
        record_ = std::make_unique<record>(std::move(opened));
}

statement::~statement() {
    if (!record_)
        return;
    const std::lock_guard lock(record_mutex());
    record_.reset();
}

std::ostream& statement::stream() {
    return record_->stream.stream();
}

void statement::push(const char* file, int line) {
    record_->stream << msg_log::getCodeTrace(file, line);
    record_->stream.flush();
    const std::lock_guard lock(record_mutex());
    construct_logger().push_record(std::move(record_->opened_record));
    record_.reset();
}

}  // namespace msg_log_slg

msg_log::msg_log() {
    highest_severity = level_from_environment();
    auto backend = boost::make_shared<line_backend>();
    logging::core::get()->add_sink(
        boost::make_shared<logging::sinks::synchronous_sink<line_backend>>(backend));
    installed_backend() = backend;
    msg_log_slg::construct_logger();
}

msg_log& msg_log::instance() {
    static auto* const log = new msg_log;
    return *log;
}

void msg_log::init(const std::string& /*program*/, bool /*to_console*/) {
    logging::core::get()->set_logging_enabled(true);
}

msg_log::severity_level msg_log::level() const {
    return static_cast<severity_level>(highest_severity.load(std::memory_order_relaxed));
}

void msg_log::set_level(severity_level level) {
    highest_severity.store(level, std::memory_order_relaxed);
}

void msg_log::set_sink(line_sink sink, void* context) {
    installed_backend()->set_sink(sink, context);
}

void msg_log::leave_to_this_thread() {
    installed_backend()->leave_to(std::this_thread::get_id());
}

std::string msg_log::getCodeTrace(const char* file, int line) {
    std::string_view source = file;
    if (const auto slash = source.rfind('/'); slash != std::string_view::npos)
        source.remove_prefix(slash + 1);
    if (const auto dot = source.rfind('.'); dot != std::string_view::npos && dot > 0)
        source = source.substr(0, dot);
    return " [" + std::string(source) + ":" + std::to_string(line) + "]";
}
