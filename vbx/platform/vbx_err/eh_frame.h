// The unwind information of one loaded object: .eh_frame, and .eh_frame_hdr with its sorted table.
//
// Understands what GNU and LLVM tools write for x86-64 and says no to everything else. Nothing outside the
// object is ever read, whatever its tables say.
#pragma once

#include <cstdint>

// Where the object is mapped, and where its .eh_frame_hdr is.
struct ERR_UNWIND_TABLES {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    std::uintptr_t header = 0;
};

// One frame description entry together with the common entry that it refers to.
struct ERR_FRAME_DESCRIPTION {
    std::uintptr_t code_begin = 0;
    std::uintptr_t code_end = 0;
    std::uint64_t code_factor = 1;
    std::int64_t data_factor = 1;
    std::uintptr_t initial_begin = 0; // instructions of the common entry
    std::uintptr_t initial_end = 0;
    std::uintptr_t program_begin = 0; // instructions of the entry itself
    std::uintptr_t program_end = 0;
    bool is_signal_frame = false;
};

enum class ERR_LOOKUP {
    found,
    none,    // the tables are complete and have nothing for the address
    unusual, // the tables are of a form that isn't understood
};

// Looks the row for an address up in the sorted table: the last one that begins at or before it. Its entry
// may still end before the address. Safe anywhere; takes no lock.
ERR_LOOKUP err_find_row(const ERR_UNWIND_TABLES& tables, std::uintptr_t address, std::uint32_t& row);

// The bytes that an entry consists of, those of the common entry included, both behind their length
// words.
struct ERR_DESCRIPTION_BYTES {
    std::uintptr_t entry_begin = 0;
    std::uintptr_t entry_end = 0;
    std::uintptr_t common_begin = 0;
    std::uintptr_t common_end = 0;
};

// Finds those of a row, after making sure that it still is the row for the address. False when it isn't, or
// when they aren't all in the object. Safe anywhere, with any number for a row.
bool err_description_in_row(const ERR_UNWIND_TABLES& tables, std::uint32_t row, std::uintptr_t address,
                            ERR_DESCRIPTION_BYTES& bytes);

// Reads an entry; false when it is none, or one of an unusual form. Safe anywhere.
bool err_read_description(const ERR_DESCRIPTION_BYTES& bytes, ERR_FRAME_DESCRIPTION& description);
