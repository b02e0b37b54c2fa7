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
    // Puts the label of all samples from now on in place, empty for none, and gives the old one back.
    void exchange_label(std::string& label) noexcept MEM_REQUIRES(lock) { m_current_label.swap(label); }

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
