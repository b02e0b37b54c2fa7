// Formatting into std::string, and change of case without a locale. For hosts; independent of the tracking.
//
//     std::string text;
//     stl_sprintf(&text, "%d modules", 3);       // text is replaced
//     stl_tolower(text);
//
// Each call works on its caller's string alone: threads need no care. What the string throws for want of
// memory goes to the caller.
#pragma once

#include <vbx/mem/export.h>

#include <cstdarg>
#include <string>

// Replaces a string with text formatted by the C library.
// out     gets the text. Untouched when it or the format is null, and when the formatter fails.
// format  as for printf
// args    its arguments. Not consumed: the caller's list stands where it stood.
//
// Up to 8192 characters one pass of the formatter and no heap but the string's own; longer texts take a
// second pass. Arguments may point into the string.
[[gnu::format(printf, 2, 0)]] VBX_MEM_API void stl_vsprintf(std::string* out, const char* format,
                                                            std::va_list args);

// The same with the arguments themselves.
// out     as above
// format  as above, followed by its arguments
[[gnu::format(printf, 2, 3)]] VBX_MEM_API void stl_sprintf(std::string* out, const char* format, ...);

// Appends text formatted by an engine of the library's own, which knows no locale but for wide characters,
// and never fails. docs/string-formatting.md tells where it differs from printf; most of all, `%e` and `%g`
// print like `%f`, and all three always print the point.
// out     gets the text at its end; grows in steps of 512 characters. Null: nothing is done.
// format  the format. Null: nothing is done.
// args    its arguments. Consumed: the caller's list moves past every argument taken, also when it
//         is a parameter of the caller. None may point into the string.
// Returns characters added to the string; negative if an int can't count them, the rest of the format is
// left out then
VBX_MEM_API int stl_output(std::string* out, const char* format, std::va_list args);

// Turns the bytes 'A' to 'Z' into lower case, in place; all other bytes stay.
// text  the string
// Returns the same string
VBX_MEM_API std::string& stl_tolower(std::string& text);

// Turns the bytes 'a' to 'z' into upper case, in place; all other bytes stay.
// text  the string
// Returns the same string
VBX_MEM_API std::string& stl_toupper(std::string& text);
