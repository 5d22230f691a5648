// Which hardware variant the program runs on.
#pragma once

// Answers from the kernel's list of compatible boards
// ("/proc/device-tree/compatible"). The list is read at each call; a board
// without it is none of the variants. Any thread may call.
class device_tree_lib {
  public:
    static const device_tree_lib& instance();

    bool is_velt_t47() const;   // EDFA and express ports, one control loop
    bool is_velt_mx47() const;  // two control loops, EDFA and EQ
    bool is_velt_k47() const;   // amplifier card, no control loop of its own

  private:
    device_tree_lib() = default;
};
