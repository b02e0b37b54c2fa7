// The peak figures of the sites at the end of the best stretch of the run so far.
#pragma once

#include "vbx/mem/mem_tbb_tracker/records/site_table.h"

#include <cstdint>
#include <unordered_map>

class MEM_PEAK_SNAPSHOT {
  public:
    // Keeps the peak figures of every site that has any, in place of what was kept before. Throws
    // std::bad_alloc.
    void save(MEM_SITE_TABLE& sites) MEM_REQUIRES(mem_site_lock);
    // Puts them back. A site that the snapshot doesn't know held nothing then.
    void restore(MEM_SITE_TABLE& sites) const MEM_REQUIRES(mem_site_lock);

  private:
    struct FIGURES {
        std::int64_t peak_bytes = 0;
        std::int32_t peak_blocks = 0;
    };
    std::unordered_map<std::uint64_t, FIGURES> m_figures;
};

// Made by the first flush that finds a new peak; freed by the teardown.
inline constinit MEM_PEAK_SNAPSHOT* mem_peak_snapshot MEM_GUARDED_BY(mem_site_lock) = nullptr;
