#include <vbx/mem/out_of_memory.h>

MEM_OUT_OF_MEMORY::MEM_OUT_OF_MEMORY() = default;
MEM_OUT_OF_MEMORY::MEM_OUT_OF_MEMORY(const MEM_OUT_OF_MEMORY&) = default;
MEM_OUT_OF_MEMORY::MEM_OUT_OF_MEMORY(MEM_OUT_OF_MEMORY&&) noexcept = default;
MEM_OUT_OF_MEMORY& MEM_OUT_OF_MEMORY::operator=(const MEM_OUT_OF_MEMORY&) = default;
MEM_OUT_OF_MEMORY& MEM_OUT_OF_MEMORY::operator=(MEM_OUT_OF_MEMORY&&) noexcept = default;
MEM_OUT_OF_MEMORY::~MEM_OUT_OF_MEMORY() = default;
