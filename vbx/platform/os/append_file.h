// A file to which threads append whole lines from inside anything that their program does.
//
//     closed --open--> open --stop--> stopped --close--> closed
//
// The program owns the table of descriptors. It may close all of them, and its next file then has our number:
// before each write the file behind the number is looked at, and what is not ours is left alone.
#pragma once

#include <atomic>
#include <cstddef>

class OS_APPEND_FILE {
  public:
    constexpr OS_APPEND_FILE() = default;
    OS_APPEND_FILE(const OS_APPEND_FILE&) = delete;
    OS_APPEND_FILE& operator=(const OS_APPEND_FILE&) = delete;

    // Opens the file for appending, emptied the first time that this object does so. An open file stays as it
    // is. Programs that are executed don't inherit it.
    // Returns 0 or an errno. Any thread.
    int open(const char* path);
    bool is_open() const { return m_descriptor.load(std::memory_order_acquire) >= 0; }

    // One write, without stdio or heap; errors are dropped, errno is kept, no signal is raised, and it is no
    // cancellation point. Does nothing unless the file is open. Any thread.
    void append(const char* text, std::size_t length);

    // From here on appends do nothing; one that is under way may still write.
    void stop();
    // Closes a stopped file, once no append is under way any more.
    void close();

  private:
    static constexpr int NONE = -1;
    bool is_still_ours(int descriptor) const;

    std::atomic<int> m_descriptor{NONE};
    int m_stopped_descriptor = NONE;
    std::atomic<bool> m_was_opened{false};
    std::atomic<unsigned long> m_device{0};
    std::atomic<unsigned long> m_inode{0};
};
