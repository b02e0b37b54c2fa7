// The classes that the suite's older code reaches the memory of the process through. They hold nothing: they
// answer with fixed values, pass a question on to the process-wide statistics, or do nothing. New code asks
// the functions of stats.h.
//
// Everything here may be called from any thread, also after the teardown, and takes no lock.
#pragma once

#include <vbx/mem/export.h>

#include <cstdint>
#include <iosfwd>

// The heap of the process as one segment. There are no others.
class VBX_MEM_API MEM_SEGMENT {
  public:
    MEM_SEGMENT() = default;
    // One segment is like the other.
    MEM_SEGMENT(const MEM_SEGMENT&) = default;
    // These do nothing.
    MEM_SEGMENT& operator=(const MEM_SEGMENT&);
    MEM_SEGMENT& operator=(MEM_SEGMENT&&) noexcept;

    // Returns 1
    int get_id() const;
    // Does nothing: blocks carry no guards.
    void check_memory_guards() const;

    // These write nothing, and open no file.
    void dump(std::ofstream&) const;
    void dump(std::ofstream&, int) const;
    void dump(const char*) const;
    void dump(const char*, int) const;
};

// The heap of the process.
class VBX_MEM_API MEM_MANAGER {
  public:
    constexpr MEM_MANAGER() = default;
    // One manager is like the other.
    MEM_MANAGER(const MEM_MANAGER&) = default;
    // These do nothing.
    MEM_MANAGER& operator=(const MEM_MANAGER&);
    MEM_MANAGER& operator=(MEM_MANAGER&&) noexcept;

    // Returns live bytes, as mem_get_global_current() counts them; a figure below 0 turns into a very large
    // number
    static std::uint64_t current_total_memory();
    // Returns the highest that the live bytes have been, as mem_get_global_peak() counts them
    static std::uint64_t peak_total_memory();
    // block  a live block of the heap, or null
    // Returns bytes that can be used in the block, at least as many as were asked for; 0 for null
    static std::uint64_t msize(void* block);
    // Does nothing: blocks carry no guards.
    static void check_memory_guards();
    // Returns the one segment, the same at every call, never null
    static MEM_SEGMENT* get_default_segment();

  private:
    friend class MEM_INITIALIZER;
    // Makes the library lock, the first time in the life of the process.
    void initialize();
};

// The one object of its class.
VBX_MEM_API extern MEM_MANAGER mem_manager;

// Base of the suite's counted records: a number that belongs to the object and not to its value, so neither
// a copy nor an assignment takes the other's.
class VBX_MEM_API MEM_MRC_CLASS__ {
  protected:
    // Begins with 0.
    MEM_MRC_CLASS__();
    // Begins with 0, whatever the other's.
    MEM_MRC_CLASS__(const MEM_MRC_CLASS__&);
    // Leaves the number as it is.
    MEM_MRC_CLASS__& operator=(const MEM_MRC_CLASS__&);

    std::uint32_t m_count; // for the derived class to count with
};

// block  any pointer; it isn't looked at
// Returns always true
VBX_MEM_API bool mem_is_allocated(void* block);
