#include "vbx/platform/vbx_err/eh_frame.h"

#include "vbx/platform/vbx_err/byte_reader.h"

#include <cstddef>

namespace {

// Pointer encodings of the exception header format: how a value is stored, and what it is relative to.
constexpr std::uint8_t ABSOLUTE_POINTER = 0x00;
constexpr std::uint8_t UNSIGNED_4 = 0x03;
constexpr std::uint8_t SIGNED_4 = 0x0B;
constexpr std::uint8_t FORM_MASK = 0x0F;
constexpr std::uint8_t RELATIVE_MASK = 0x70;
constexpr std::uint8_t RELATIVE_TO_PLACE = 0x10;
constexpr std::uint8_t RELATIVE_TO_HEADER = 0x30;
constexpr std::uint8_t INDIRECT = 0x80;
constexpr std::uint8_t OMITTED = 0xFF;

constexpr std::uint64_t RETURN_ADDRESS_COLUMN = 16;

struct HEADER {
    std::uint8_t version;
    std::uint8_t eh_frame_encoding;
    std::uint8_t count_encoding;
    std::uint8_t table_encoding;
    std::int32_t eh_frame; // the encoding that every linker uses, pcrel sdata4
    std::uint32_t count;
};

// Both relative to the header.
struct TABLE_ROW {
    std::int32_t code_begin;
    std::int32_t description;
};

std::uintptr_t moved(std::uintptr_t base, std::int64_t distance) {
    return base + static_cast<std::uintptr_t>(distance);
}

struct POINTER {
    std::uint64_t value = 0;
    bool is_supported = false;
};

// The number alone, without what it is relative to.
POINTER read_number(ERR_BYTE_READER& reader, std::uint8_t encoding) {
    switch (encoding & FORM_MASK) {
    case ABSOLUTE_POINTER:
    case 0x04: // unsigned, 8 bytes
    case 0x0C: // signed, 8 bytes
        return {reader.fixed<std::uint64_t>(), true};
    case UNSIGNED_4:
        return {reader.fixed<std::uint32_t>(), true};
    case SIGNED_4:
        return {static_cast<std::uint64_t>(std::int64_t{reader.fixed<std::int32_t>()}), true};
    default:
        return {};
    }
}

POINTER read_pointer(ERR_BYTE_READER& reader, std::uint8_t encoding) {
    const std::uintptr_t place = reader.at();
    POINTER pointer = read_number(reader, encoding);
    const std::uint8_t relative = encoding & RELATIVE_MASK;
    if (relative == RELATIVE_TO_PLACE)
        pointer.value += place;
    else if (relative != 0)
        pointer.is_supported = false;
    if ((encoding & INDIRECT) != 0)
        pointer.is_supported = false;
    return pointer;
}

// The bytes of the entry at `place` behind its length word; false when they aren't all in the object.
bool entry_bytes(const ERR_UNWIND_TABLES& tables, std::uintptr_t place, std::uintptr_t& begin,
                 std::uintptr_t& end) {
    if (place < tables.begin || place > tables.end)
        return false;
    ERR_BYTE_READER reader(place, tables.end);
    const std::uint32_t length = reader.fixed<std::uint32_t>();
    begin = reader.at();
    // 0 ends the section; the largest length says that a 64-bit one follows, which no tool writes.
    if (reader.has_failed() || length == 0 || length == UINT32_MAX || length > tables.end - begin)
        return false;
    end = begin + length;
    return true;
}

// The sorted table; no rows when it isn't of the usual form.
struct TABLE {
    const TABLE_ROW* rows = nullptr;
    std::uint32_t count = 0;
};

TABLE table_of(const ERR_UNWIND_TABLES& tables) {
    if (tables.header < tables.begin || tables.header > tables.end || tables.header % alignof(TABLE_ROW) != 0)
        return {};
    ERR_BYTE_READER reader(tables.header, tables.end);
    const HEADER header = reader.fixed<HEADER>();
    const std::uintptr_t room = (tables.end - reader.at()) / sizeof(TABLE_ROW);
    if (reader.has_failed() || header.version != 1 ||
        header.eh_frame_encoding != (RELATIVE_TO_PLACE | SIGNED_4) || header.count_encoding != UNSIGNED_4 ||
        header.table_encoding != (RELATIVE_TO_HEADER | SIGNED_4) || header.count > room)
        return {};
    return {reinterpret_cast<const TABLE_ROW*>(reader.at()), header.count};
}

struct COMMON_ENTRY {
    std::uint8_t pointer_encoding = ABSOLUTE_POINTER;
    bool has_augmentation_data = false;
};

// The data of a common entry, as its augmentation string describes them.
bool read_augmentation(ERR_BYTE_READER& reader, const char* letters, COMMON_ENTRY& common,
                       ERR_FRAME_DESCRIPTION& description) {
    if (*letters == '\0')
        return true;
    if (*letters != 'z')
        return false;
    common.has_augmentation_data = true;
    const std::uint64_t length = reader.uleb();
    const std::uintptr_t data = reader.at();
    for (++letters; *letters != '\0'; ++letters) {
        switch (*letters) {
        case 'R':
            common.pointer_encoding = reader.byte();
            break;
        case 'L':
            reader.byte();
            break;
        case 'P': {
            const std::uint8_t encoding = reader.byte();
            if (encoding != OMITTED && !read_number(reader, encoding).is_supported)
                return false;
            break;
        }
        case 'S':
            description.is_signal_frame = true;
            break;
        default:
            return false;
        }
    }
    const std::uint64_t used = reader.at() - data;
    if (reader.has_failed() || used > length)
        return false;
    reader.skip(length - used);
    return !reader.has_failed();
}

bool read_common_entry(const ERR_DESCRIPTION_BYTES& bytes, COMMON_ENTRY& common,
                       ERR_FRAME_DESCRIPTION& description) {
    ERR_BYTE_READER reader(bytes.common_begin, bytes.common_end);
    const std::uint32_t id = reader.fixed<std::uint32_t>();
    const std::uint8_t version = reader.byte();
    if (id != 0 || (version != 1 && version != 3))
        return false;
    char letters[8] = {};
    for (std::size_t index = 0; char letter = static_cast<char>(reader.byte()); ++index) {
        if (index == sizeof letters - 1)
            return false;
        letters[index] = letter;
    }
    description.code_factor = reader.uleb();
    description.data_factor = reader.sleb();
    const std::uint64_t column = version == 1 ? reader.byte() : reader.uleb();
    if (reader.has_failed() || column != RETURN_ADDRESS_COLUMN ||
        !read_augmentation(reader, letters, common, description))
        return false;
    description.initial_begin = reader.at();
    description.initial_end = bytes.common_end;
    return true;
}

} // namespace

ERR_LOOKUP err_find_row(const ERR_UNWIND_TABLES& tables, std::uintptr_t address, std::uint32_t& row) {
    const TABLE table = table_of(tables);
    if (table.rows == nullptr)
        return ERR_LOOKUP::unusual;
    // The last row that begins at or before the address lies in front of `high`.
    std::uint32_t low = 0;
    std::uint32_t high = table.count;
    while (low < high) {
        const std::uint32_t middle = low + (high - low) / 2;
        if (moved(tables.header, table.rows[middle].code_begin) <= address)
            low = middle + 1;
        else
            high = middle;
    }
    if (high == 0)
        return ERR_LOOKUP::none;
    row = high - 1;
    return ERR_LOOKUP::found;
}

bool err_description_in_row(const ERR_UNWIND_TABLES& tables, std::uint32_t row, std::uintptr_t address,
                            ERR_DESCRIPTION_BYTES& bytes) {
    const TABLE table = table_of(tables);
    if (row >= table.count || moved(tables.header, table.rows[row].code_begin) > address ||
        (row + 1 < table.count && moved(tables.header, table.rows[row + 1].code_begin) <= address))
        return false;
    const std::uintptr_t place = moved(tables.header, table.rows[row].description);
    if (!entry_bytes(tables, place, bytes.entry_begin, bytes.entry_end))
        return false;
    const std::uintptr_t begin = bytes.entry_begin;
    ERR_BYTE_READER reader(begin, bytes.entry_end);
    const std::uint32_t distance = reader.fixed<std::uint32_t>();
    return !reader.has_failed() && distance != 0 && distance <= begin - tables.begin &&
           entry_bytes(tables, begin - distance, bytes.common_begin, bytes.common_end);
}

bool err_read_description(const ERR_DESCRIPTION_BYTES& bytes, ERR_FRAME_DESCRIPTION& description) {
    COMMON_ENTRY common;
    if (!read_common_entry(bytes, common, description))
        return false;
    ERR_BYTE_READER reader(bytes.entry_begin, bytes.entry_end);
    reader.fixed<std::uint32_t>(); // the distance to the common entry
    const POINTER code_begin = read_pointer(reader, common.pointer_encoding);
    const POINTER code_size = read_number(reader, common.pointer_encoding);
    if (common.has_augmentation_data)
        reader.skip(reader.uleb());
    if (reader.has_failed() || !code_begin.is_supported || !code_size.is_supported)
        return false;
    description.code_begin = code_begin.value;
    description.code_end = code_begin.value + code_size.value;
    description.program_begin = reader.at();
    description.program_end = bytes.entry_end;
    return true;
}
