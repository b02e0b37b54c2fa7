// The files of the reports, all in the current working directory.
#pragma once

#include <ext/stdio_filebuf.h>

#include <ostream>
#include <string>

// A stream into a report. It has the classic locale, whatever the host has made the global one. A file that
// can't be opened leaves it in its failed state, and what is written to it goes nowhere.
class MEM_REPORT_FILE : public std::ostream {
  public:
    // descriptor  of the open file, owned from here on; negative when it could not be opened
    explicit MEM_REPORT_FILE(int descriptor);

  private:
    __gnu_cxx::stdio_filebuf<char> m_buffer;
};

// Opens a report for writing in place of an older file of its name.
MEM_REPORT_FILE mem_open_report(const std::string& name);
// The same behind what the file already holds.
MEM_REPORT_FILE mem_open_report_for_append(const std::string& name);
