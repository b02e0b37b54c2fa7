// Brings the library up with the first module of a process and down with the last.
#pragma once

#include <vbx/mem/export.h>

// A module of the suite owns one, with static storage; nothing else is needed of it.
class VBX_MEM_API MEM_INITIALIZER {
  public:
    // Counts one more live initialiser; the first of the process starts the library. Every module of a host
    // owns one, with static storage.
    // module_name  text for the load and unload lines that MEM_PRINT_LIB_LOAD turns on; kept as a pointer, so
    //              it must outlive the object. Null counts like any other.
    explicit MEM_INITIALIZER(const char* module_name = nullptr);

    // Counts one less; the last of the process writes the reports and frees the tracker.
    ~MEM_INITIALIZER();

    // A copy would count itself out without having counted itself in.
    MEM_INITIALIZER(const MEM_INITIALIZER&) = delete;
    // Copies the name alone; the count is not touched.
    MEM_INITIALIZER& operator=(const MEM_INITIALIZER& other);

  private:
    const char* m_module_name;

    // Live initialisers of the process.
    static unsigned int s_init_counter;
};
