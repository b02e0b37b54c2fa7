#include "vbx/platform/debug_symbols/demangle.h"

#include "vbx/platform/debug_symbols/scratch_stack.h"

#include <libiberty/demangle.h>

#include <algorithm>
#include <csetjmp>
#include <cstring>
#include <string_view>

namespace {

// The demangler keeps its working set on the stack, about 64 bytes a character, and recurses with the depth
// of the name: some 0.9 MB for the deepest name of this length.
constexpr std::size_t longest_decorated_name = 4096;

// For each reference to a template parameter it has room for a copy of the list of all templates: 16 bytes an
// entry, where either may be counted twice.
constexpr std::size_t most_template_copies = 32768;
static_assert(most_template_copies * 4 * 16 + (1u << 20) <= SYM_SCRATCH_STACK_BYTES);

// Its own limit goes by the length, and is 1024 characters: templates of templates have more.
constexpr int options = DMGL_PARAMS | DMGL_ANSI | DMGL_RET_DROP | DMGL_NO_RECURSE_LIMIT;

// Letters of identifiers are taken for more of both, never for less.
bool fits_the_stack(std::string_view name) {
    if (name.size() > longest_decorated_name) {
        return false;
    }
    std::size_t templates = 0;
    std::size_t references = 0;
    for (std::size_t at = 0; at + 1 < name.size(); ++at) {
        templates += name[at] == 'I' || name[at] == 'J';
        references += (name[at] == 'R' || name[at] == 'O') && (name[at + 1] == 'T' || name[at + 1] == 'S');
    }
    return templates * references <= most_template_copies;
}

struct DEMANGLE_SINK {
    char* out;
    std::size_t room; // without the terminating NUL
    std::size_t used;
    std::jmp_buf full;
};

// Substitutions let a short name expand without bound. What does not fit is not wanted, so the printing ends
// here; the demangler owns nothing at this point, its working set lies on the stack.
void take_text(const char* text, std::size_t size, void* opaque) {
    auto& sink = *static_cast<DEMANGLE_SINK*>(opaque);
    const std::size_t taken = std::min(size, sink.room - sink.used);
    std::memcpy(sink.out + sink.used, text, taken);
    sink.used += taken;
    if (taken < size) {
        std::longjmp(sink.full, 1);
    }
}

bool print_demangled(const char* name, DEMANGLE_SINK& sink) {
    if (setjmp(sink.full) != 0) {
        return true;
    }
    return cplus_demangle_v3_callback(name, options, take_text, &sink) != 0;
}

void copy_cut(const char* name, std::size_t size, char* out, std::size_t length) {
    const std::size_t taken = std::min(size, length - 1);
    std::memcpy(out, name, taken);
    out[taken] = '\0';
}

} // namespace

void sym_demangle(const char* name, char* out, std::size_t length) {
    if (length == 0) {
        return;
    }
    const std::size_t size = std::strlen(name);
    // Only the C++ prefix: the demangler would also take plain identifiers for types.
    if (std::strncmp(name, "_Z", 2) == 0 && fits_the_stack({name, size})) {
        DEMANGLE_SINK sink{out, length - 1, 0, {}};
        if (print_demangled(name, sink)) {
            out[sink.used] = '\0';
            return;
        }
    }
    copy_cut(name, size, out, length);
}

void sym_demangle_symbol(const char* name, char* out, std::size_t length) {
    const char* version = std::strchr(name, '@');
    if (version == nullptr || version == name) {
        sym_demangle(name, out, length);
        return;
    }
    const std::size_t size = static_cast<std::size_t>(version - name);
    char plain[longest_decorated_name + 1];
    if (size < sizeof(plain)) {
        std::memcpy(plain, name, size);
        plain[size] = '\0';
        sym_demangle(plain, out, length);
    } else if (length > 0) {
        copy_cut(name, size, out, length);
    }
}
