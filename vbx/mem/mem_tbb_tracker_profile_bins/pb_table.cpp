#include "vbx/mem/mem_tbb_tracker_profile_bins/pb_table.h"

#include "vbx/mem/base/check.h"

MEM_PB_TABLE::MEM_PB_TABLE() {
    open("Root");
}

std::uint32_t MEM_PB_TABLE::find_or_add(std::string_view name) {
    if (const auto known = m_pb_ids.find(name); known != m_pb_ids.end())
        return known->second;
    const auto id = static_cast<std::uint32_t>(size());
    // Nobody sees the name before the size is stored, so what fails halfway leaves nothing behind.
    m_pb_names.make_room_for(id);
    m_pb_names[id] = name;
    m_pb_ids.emplace(name, id);
    m_size.store(std::size_t{id} + 1, std::memory_order_release);
    return id;
}

void MEM_PB_TABLE::push(std::uint32_t id) {
    m_pb_id_stack.push_back(id);
    m_current_id.store(id, std::memory_order_release);
}

void MEM_PB_TABLE::pop() {
    m_pb_id_stack.pop_back();
    MEM_CHECK(!m_pb_id_stack.empty());
    m_current_id.store(m_pb_id_stack.back(), std::memory_order_release);
}

void MEM_PB_TABLE::close(std::string_view name) {
    MEM_CHECK(name == get_curr_name());
    pop();
}

const std::string& MEM_PB_TABLE::get_curr_name() const {
    return m_pb_names[get_curr_id()];
}

std::string MEM_PB_TABLE::name_of(std::uint32_t id) const {
    return id < size() ? m_pb_names[id] : "Other";
}
