#include "vbx/mem/host/messages.h"

#include <vbx/mem/host.h>
#include <vbx/mem/out_of_memory.h>
#include <vbx/mem_utils/chunk_alloc.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <memory>

namespace {

constexpr std::uint64_t CHUNK_SIZE = 32768;
constexpr std::uint32_t DEFAULT_FRAGMENT_THRESHOLD = 100;
constexpr std::int32_t SILENT_OVERSIZE_BLOCKS = 500;

enum class CHUNKING { unread, off, on };
constinit std::atomic<CHUNKING> process_chunking{CHUNKING::unread};

// Not a local static: the host that answers the query may use a chunk allocator for it.
bool chunking_is_on() {
    CHUNKING chunking = process_chunking.load(std::memory_order_relaxed);
    if (chunking != CHUNKING::unread)
        return chunking == CHUNKING::on;
    const CHUNKING read =
        mem_cfg_is_on("mem_utils_no_chunk_allocation", false) ? CHUNKING::off : CHUNKING::on;
    // Whoever was first meanwhile has answered for the process: its blocks exist already.
    if (process_chunking.compare_exchange_strong(chunking, read, std::memory_order_relaxed))
        chunking = read;
    return chunking == CHUNKING::on;
}

// Bytes up to the next address that is a multiple of the alignment.
std::uint64_t pad_of(const char* address, std::uint64_t alignment) {
    const std::uint64_t rest = reinterpret_cast<std::uintptr_t>(address) % alignment;
    return rest == 0 ? 0 : alignment - rest;
}

// By calloc, behind which a large block costs pages only where it is written to.
void* allocate_zeroed(std::uint64_t size) {
    void* const block = std::calloc(1, size);
    if (block == nullptr)
        mem_out_of_memory();
    return block;
}

} // namespace

struct MEM_UTILS_CHUNK_ALLOC::ALLOCATION {
    ALLOCATION* next;
    void* memory;
};

MEM_UTILS_CHUNK_ALLOC::MEM_UTILS_CHUNK_ALLOC()
    : m_allocations(nullptr), m_remaining(0), m_position(nullptr),
      m_fragment_threshold(DEFAULT_FRAGMENT_THRESHOLD), m_oversize_blocks(0), m_is_enabled(chunking_is_on()) {
}

MEM_UTILS_CHUNK_ALLOC::~MEM_UTILS_CHUNK_ALLOC() {
    free_list([](void*) {});
}

void* MEM_UTILS_CHUNK_ALLOC::chunk_malloc(std::uint64_t size, std::uint64_t alignment) {
    if (!m_is_enabled)
        return allocate_zeroed(size != 0 ? size : 8);
    if (alignment == 0)
        alignment = 1;
    // Compared without a sum: one that overflows would fit.
    const std::uint64_t pad = pad_of(m_position, alignment);
    if (size <= m_remaining && pad <= m_remaining - size) {
        char* const block = m_position + pad;
        m_position = block + size;
        m_remaining -= pad + size;
        return block;
    }
    if (size > CHUNK_SIZE) {
        void* const block = make_separate_block(size, alignment);
        count_oversize_block();
        return block;
    }
    return m_remaining < m_fragment_threshold ? start_chunk(size) : make_separate_block(size, alignment);
}

void* MEM_UTILS_CHUNK_ALLOC::start_chunk(std::uint64_t size) {
    char* const chunk = list_zeroed(CHUNK_SIZE);
    m_position = chunk + size;
    m_remaining = CHUNK_SIZE - size;
    return chunk;
}

void* MEM_UTILS_CHUNK_ALLOC::make_separate_block(std::uint64_t size, std::uint64_t alignment) {
    std::uint64_t room = 0;
    if (__builtin_add_overflow(size, alignment, &room))
        mem_out_of_memory();
    char* const memory = list_zeroed(room);
    return memory + pad_of(memory, alignment);
}

// The node first: if there is none, nothing has happened.
char* MEM_UTILS_CHUNK_ALLOC::list_zeroed(std::uint64_t size) {
    auto node = std::make_unique<ALLOCATION>();
    node->memory = allocate_zeroed(size);
    node->next = m_allocations;
    m_allocations = node.release();
    return static_cast<char*>(m_allocations->memory);
}

void MEM_UTILS_CHUNK_ALLOC::count_oversize_block() {
    if (m_oversize_blocks < INT32_MAX)
        ++m_oversize_blocks;
    if (m_oversize_blocks > SILENT_OVERSIZE_BLOCKS)
        mem_msg_debug("WARNING: More than %d chunk allocations have failed because they are bigger than one "
                      "chunk size in vbx/mem_utils\n",
                      SILENT_OVERSIZE_BLOCKS);
}

void MEM_UTILS_CHUNK_ALLOC::free_list(void (*free_memory)(void*)) {
    while (m_allocations != nullptr) {
        const std::unique_ptr<ALLOCATION> node(m_allocations);
        m_allocations = node->next;
        free_memory(node->memory);
    }
}

void MEM_UTILS_CHUNK_ALLOC::chunk_free_memory() {
    free_list(std::free);
    m_remaining = 0;
    m_position = nullptr;
    m_oversize_blocks = 0;
}

bool MEM_UTILS_CHUNK_ALLOC::chunk_allocation_is_enabled() const {
    return m_is_enabled;
}

void MEM_UTILS_CHUNK_ALLOC::chunk_delete_when_chunking_disabled(void* ptr) {
    if (!m_is_enabled)
        std::free(ptr);
}

void MEM_UTILS_CHUNK_ALLOC::set_fragment_threshold(unsigned int bytes) {
    m_fragment_threshold = bytes;
}
