// The names of bins or tags, and the stack of those that are open.
//
//     names   0 Root   1 Root::parse   2 Root::build        dense, first come first served, for good
//     stack   [0] [2]                                       "Root::build" is current; Root is never closed
//
// The host opens and closes from one thread at a time. Meanwhile any thread reads the current id and copies
// names: neither takes a lock, because the first happens in every event, and an open allocates, which makes
// events of its own thread.
#pragma once

#include "vbx/mem/base/fnv1a.h"
#include "vbx/mem/base/stable_array.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

// The id that every table begins with, and what is charged when the host has opened nothing.
constexpr std::uint32_t MEM_ROOT_ID = 0;

class MEM_PB_TABLE {
  public:
    // With "Root" open. Throws std::bad_alloc, as do the operations of the host below; whoever fails leaves
    // the stack as it was.
    MEM_PB_TABLE();

    // ---- for the one thread that opens and closes

    // The id of a name, a new one for a new name. Exact comparison of the bytes.
    std::uint32_t find_or_add(std::string_view name);
    // Makes an id the current one.
    void push(std::uint32_t id);
    // Both.
    void open(std::string_view name) { push(find_or_add(name)); }
    // Makes the id below the current one. An internal error if there is none.
    void pop();
    // Likewise; the name has to be the current one, which is an internal error too.
    void close(std::string_view name);
    const std::string& get_curr_name() const;

    // ---- for any thread; lock-free

    // An id that was on top of the stack at some moment during the call.
    std::uint32_t get_curr_id() const { return m_current_id.load(std::memory_order_acquire); }
    // How many names there are. It only grows.
    std::size_t size() const { return m_size.load(std::memory_order_acquire); }
    // A copy of the name of an id; "Other" for one that has none.
    std::string name_of(std::uint32_t id) const;

  private:
    struct HASH {
        using is_transparent = void;
        std::size_t operator()(std::string_view name) const { return mem_fnv1a(name); }
    };

    std::deque<std::uint32_t> m_pb_id_stack;
    std::unordered_map<std::string, std::uint32_t, HASH, std::equal_to<>> m_pb_ids;
    // An element is written once, before the size takes it in.
    MEM_STABLE_ARRAY<std::string> m_pb_names;
    std::atomic<std::size_t> m_size{0};
    // The top of the stack again: a deque can't be read while it grows.
    std::atomic<std::uint32_t> m_current_id{MEM_ROOT_ID};
};
