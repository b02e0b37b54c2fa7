// The modules that queries have met so far, each with its indexes.
#pragma once

#include "vbx/platform/debug_symbols/function_index.h"
#include "vbx/platform/debug_symbols/line_index.h"
#include "vbx/platform/debug_symbols/loaded_module.h"

#include <memory>
#include <string>
#include <vector>

class SYM_MODULE_ENTRY {
  public:
    explicit SYM_MODULE_ENTRY(SYM_LOADED_MODULE loaded);

    const SYM_LOADED_MODULE& loaded() const { return m_loaded; }
    const std::string& path() const { return m_path; }
    const std::string& short_name() const { return m_short_name; }

    // The indexes, read from the symbol files at the first call; null when there is no information. The
    // module has to be loaded at that time. May throw std::bad_alloc; the next call then tries again, as it
    // does when the process had no descriptor for the file.
    const SYM_FUNCTION_INDEX* functions();
    SYM_LINE_INDEX* lines();

  private:
    enum class STATE { unread, read };

    bool open_file(SYM_ELF_FILE& file) const;
    static STATE state_behind(const SYM_ELF_FILE& file, const SYM_ELF_FILE& debug_file);

    SYM_LOADED_MODULE m_loaded;
    std::string m_path;
    std::string m_short_name;
    STATE m_functions_state = STATE::unread;
    STATE m_lines_state = STATE::unread;
    std::unique_ptr<SYM_FUNCTION_INDEX> m_functions;
    std::unique_ptr<SYM_LINE_INDEX> m_lines;
};

class SYM_MODULE_LIST {
  public:
    // The entry of the module that holds the code address now; null when it is not listed. An entry that
    // stood for another module at that place is not handed out.
    SYM_MODULE_ENTRY* find(std::uint64_t address) const;

    // Drops the entries of modules that are gone and adds the module at the address, if there is one.
    void refresh(std::uint64_t address);

  private:
    std::vector<std::unique_ptr<SYM_MODULE_ENTRY>> m_entries; // in the order of their addresses
};
