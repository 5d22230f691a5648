// A state that hands may change, and who shows it.
#pragma once

#include <mutex>

namespace simulator {

// Shows the state to somebody.
template <class State>
class display {
  public:
    virtual ~display() = default;
    virtual void show(const State&) = 0;
};

// Any thread may call any member.
template <class State>
class displayed_state {
  public:
    // Shows the state on the display now and after each change, until `hide`
    // has returned. There is one display at a time.
    void show_on(display<State>& shown_by) {
        const std::lock_guard lock(mutex_);
        display_ = &shown_by;
        shown_by.show(now_);
    }
    void hide() {
        const std::lock_guard lock(mutex_);
        display_ = nullptr;
    }

  protected:
    template <class Value>
    Value get(Value State::*member) const {
        const std::lock_guard lock(mutex_);
        return now_.*member;
    }

    template <class Value>
    void change(Value State::*member, const Value& value) {
        change([&](State& now) { now.*member = value; });
    }

    template <class Edit>
    void change(const Edit& edit) {
        const std::lock_guard lock(mutex_);
        edit(now_);
        if (display_ != nullptr)
            display_->show(now_);
    }

  private:
    mutable std::mutex
        mutex_;  // held while the display shows, so that nothing is shown out of turn
    State now_;
    display<State>* display_ = nullptr;
};

}  // namespace simulator
