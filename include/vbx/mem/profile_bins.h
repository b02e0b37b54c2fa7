// Profile bins: the host says what it is doing, and memory is charged to phases of work.
//
//     MEM_PROFILE_BIN_SCOPE load("load", "input");          tag input, bin input::load
//     {
//         MEM_PROFILE_BIN_SCOPE parse("parse");             still tag input, bin input::parse
//         ...
//     }                                                     bin input::load again
//
// A tag is a coarse category that stays current until it is closed; a bin is a finer name inside the tag that
// is current when it opens. There is one current bin and one current tag for the process: an allocation on
// any thread is charged to them, and the block stays charged there until it is freed, whatever is open then.
//
// Two mechanisms hang on the pair of calls. With MEM_GRANULARITY_PER_BIN each pair measures its region: the
// bytes at its two ends and the highest between. With MEM_GRANULARITY_PER_BIN_DETAILED each pair moves the
// current bin and tag. With neither, the calls do nothing. What counts is how the process started (for
// regions also mem_set_tbb_memory_tracking_enabled): mem_enable_tracking brings neither later.
//
// Opens and closes come in balanced pairs and from one thread at a time, across the whole process, and
// neither switch changes while a bin is open. Breaking this ends the process with an internal error.
#pragma once

#include <vbx/mem/export.h>

#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>

// Opens a bin.
// name  of the bin inside its tag; the same name in the same tag is the same bin again
// tag   becomes the current tag; empty leaves the tag as it is
// Throws std::bad_alloc, with nothing opened.
VBX_MEM_API void mem_open_profile_bin(const std::string& name, const std::string& tag);

// Closes the newest bin. The three figures are 0 while regions are not measured.
// tag               what the matching open was given
// bytes_at_open     gets the live bytes of the process when the bin was opened
// bytes_at_close    the same now
// local_peak_bytes  the highest between
VBX_MEM_API void mem_close_profile_bin(const std::string& tag, std::uint64_t* bytes_at_open,
                                       std::uint64_t* bytes_at_close, std::uint64_t* local_peak_bytes);

// From now on opens and closes leave the label of the timelines alone, for the rest of the process. A label
// that is set stays. On the thread that opens and closes.
VBX_MEM_API void mem_disable_profile_bin_tag_timeline_labels();

// Writes one line a bin (a tag) up to the last one that was ever charged: the highest its current bytes have
// been, what it held at the peak of the process, all that was ever charged to it, what it holds now. Needs a
// started tracker; holds up no event, so the figures of a busy process are not of one instant. Throws
// std::bad_alloc, and what the stream is set to throw.
// stream  gets the lines, numbers in its own format
// Returns true, whatever became of the stream
VBX_MEM_API bool mem_dump_tbb_profile_bin_stats_tracking(std::ostream& stream);
VBX_MEM_API bool mem_dump_tbb_profile_bin_tag_stats_tracking(std::ostream& stream);

// Bytes of the process over a bin that was closed.
struct MEM_PROFILE_BIN_FIGURES {
    std::uint64_t bytes_at_open = 0;    // live when it was opened
    std::uint64_t bytes_at_close = 0;   // live when it was closed
    std::uint64_t local_peak_bytes = 0; // the highest between
};

// A bin that is open for a scope.
class MEM_PROFILE_BIN_SCOPE {
  public:
    // As mem_open_profile_bin.
    // name  of the bin
    // tag   becomes the current tag; empty leaves the tag as it is
    explicit MEM_PROFILE_BIN_SCOPE(const std::string& name, std::string tag = {}) : m_tag(std::move(tag)) {
        mem_open_profile_bin(name, m_tag);
    }
    ~MEM_PROFILE_BIN_SCOPE() { close(); }
    MEM_PROFILE_BIN_SCOPE(const MEM_PROFILE_BIN_SCOPE&) = delete;
    MEM_PROFILE_BIN_SCOPE& operator=(const MEM_PROFILE_BIN_SCOPE&) = delete;

    // Closes the bin before the scope ends, if it is open yet.
    // Returns its figures
    const MEM_PROFILE_BIN_FIGURES& close() {
        if (m_is_open) {
            m_is_open = false;
            mem_close_profile_bin(m_tag, &m_figures.bytes_at_open, &m_figures.bytes_at_close,
                                  &m_figures.local_peak_bytes);
        }
        return m_figures;
    }

  private:
    std::string m_tag;
    MEM_PROFILE_BIN_FIGURES m_figures;
    bool m_is_open = true;
};
