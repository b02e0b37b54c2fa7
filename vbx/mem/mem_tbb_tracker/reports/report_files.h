// The files of the reports, all in the current working directory.
#pragma once

#include <fstream>
#include <string>

// Opens a report for writing in place of an older file of its name. The stream has the classic locale,
// whatever the host has made the global one. A file that can't be opened leaves the stream in its failed
// state, and what is written to it goes nowhere.
std::ofstream mem_open_report(const std::string& name);
// The same behind what the file already holds.
std::ofstream mem_open_report_for_append(const std::string& name);
