// The command line client, run by the test itself.
#pragma once

#include "eventually.hpp"
#include "tmctl.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace test {

// A stream that one thread writes and others look at.
class shared_text : public std::stringbuf {
  public:
    std::string text() const {
        const std::lock_guard lock(mutex_);
        return text_;
    }

  protected:
    std::streamsize xsputn(const char* data, std::streamsize size) override {
        const std::lock_guard lock(mutex_);
        text_.append(data, static_cast<std::size_t>(size));
        return size;
    }
    int_type overflow(int_type letter) override {
        const char text = traits_type::to_char_type(letter);
        xsputn(&text, 1);
        return letter;
    }

  private:
    mutable std::mutex mutex_;
    std::string text_;
};

// The tool, running in a thread of its own until it ends or is interrupted.
class running_tool {
  public:
    // `terminal` as in the surroundings; with one, in colours.
    explicit running_tool(std::vector<std::string> words,
                          std::function<tmctl::terminal_size()> terminal = {}) {
        if (pipe(interrupt_) != 0)
            throw std::runtime_error("no pipe");
        thread_ = std::thread([this, words = std::move(words), terminal = std::move(terminal)] {
            std::ostream out(&out_);
            std::ostream err(&err_);
            status_ = tmctl::run(words, {.out = out,
                                         .err = err,
                                         .interrupt = interrupt_[0],
                                         .has_colours = terminal != nullptr,
                                         .terminal = terminal});
        });
    }
    ~running_tool() {
        interrupt();
        join();
        close(interrupt_[0]);
        close(interrupt_[1]);
    }
    running_tool(const running_tool&) = delete;
    running_tool& operator=(const running_tool&) = delete;

    bool shows(const std::string& text) const {
        return eventually([&] { return out_.text().find(text) != std::string::npos; });
    }
    void interrupt() { EXPECT_EQ(write(interrupt_[1], "x", 1), 1); }
    int join() {
        if (thread_.joinable())
            thread_.join();
        return status_;
    }
    std::string out() const { return out_.text(); }
    std::string err() const { return err_.text(); }

  private:
    int interrupt_[2] = {-1, -1};
    shared_text out_;
    shared_text err_;
    std::atomic<int> status_ = -1;
    std::thread thread_;
};

struct outcome {
    int status;
    std::string out;
    std::string err;
};

inline outcome run(const std::vector<std::string>& words) {
    std::ostringstream out;
    std::ostringstream err;
    const int status = tmctl::run(words, {.out = out, .err = err});
    return {status, out.str(), err.str()};
}

}  // namespace test
