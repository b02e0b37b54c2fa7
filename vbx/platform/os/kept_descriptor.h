// A descriptor that the library keeps in a program that owns the table of descriptors.
//
// The program may close all of them, and its next file then has our number: before each use the file behind
// the number is looked at, and what is not ours is left alone.
#pragma once

#include <atomic>

class OS_KEPT_DESCRIPTOR {
  public:
    static constexpr int NONE = -1;

    constexpr OS_KEPT_DESCRIPTOR() = default;
    OS_KEPT_DESCRIPTOR(const OS_KEPT_DESCRIPTOR&) = delete;
    OS_KEPT_DESCRIPTOR& operator=(const OS_KEPT_DESCRIPTOR&) = delete;

    // Keeps an open descriptor, under a number that programs don't count on and that programs which are
    // executed don't inherit. When one is kept already, and the program has not closed it, this one is
    // closed. Any thread.
    void keep(int descriptor);
    bool is_kept() const { return m_descriptor.load(std::memory_order_acquire) != NONE; }

    // The number while it is ours, else NONE. Any thread.
    int usable() const;

    // From here on nothing is kept; whoever has the number already may still use it.
    void stop();
    // Closes what was kept until the stop, if it is still ours. Once nobody uses it.
    void close_stopped();

  private:
    bool is_ours(int descriptor) const;

    std::atomic<int> m_descriptor{NONE};
    int m_stopped = NONE;
    std::atomic<unsigned long> m_device{0};
    std::atomic<unsigned long> m_inode{0};
};
