// What the process was doing at each sample, in the host's words.
//
// Labels and the rows that they name are matched by position alone. They are not taken in one step, so with
// samples on several threads at once a label can stand one row off.
#pragma once

#include "vbx/mem/base/spin_lock.h"
#include "vbx/mem/mem_tbb_tracker/records/runs.h"

#include <string>

class MEM_LABEL_TIMELINE {
  public:
    // The label of all samples from now on; empty for none. Throws std::bad_alloc, the old one stays then.
    void set_label(const std::string& label) MEM_REQUIRES(lock) { m_current_label = label; }

    // Samples the current label. Throws std::bad_alloc, with nothing changed.
    void take_sample() MEM_REQUIRES(lock) { m_labels.append(m_current_label); }

    const MEM_RUNS<std::string>& labels() const MEM_REQUIRES(lock) { return m_labels; }

    mutable MEM_SPIN_LOCK lock{MEM_LOCK_RANK::leaf};

  private:
    MEM_RUNS<std::string> m_labels MEM_GUARDED_BY(lock);
    std::string m_current_label MEM_GUARDED_BY(lock);
};

// From tracker start to teardown.
inline constinit MEM_LABEL_TIMELINE* mem_label_timeline = nullptr;
