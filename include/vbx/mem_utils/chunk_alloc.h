// A bump allocator for many small blocks that die together: no header for each block, no free for each.
//
//     malloc      32768 bytes: a chunk          more than fits: a separate block
//                 [block|block|pad|block|......]           [block]
//                                        ^ position, `remaining` bytes behind it
//
// With the configuration key `mem_utils_no_chunk_allocation` on, each block is a malloc of its own, so that
// memory checkers and the tracking see every one. The same host code works both ways: it asks for blocks,
// says chunk_delete_when_chunking_disabled() for each that it drops, and chunk_free_memory() at the end.
#pragma once

#include <vbx/mem/export.h>

#include <cstdint>

// One thread at a time may use an object; different objects have nothing in common.
class VBX_MEM_API MEM_UTILS_CHUNK_ALLOC {
  public:
    // The first object of the process reads the key; its answer holds for all later ones.
    MEM_UTILS_CHUNK_ALLOC();
    // Forgets the blocks without giving them back: they stay valid and can't be freed any more. Call
    // chunk_free_memory() first, unless blocks are to live as long as the process.
    ~MEM_UTILS_CHUNK_ALLOC();
    MEM_UTILS_CHUNK_ALLOC(const MEM_UTILS_CHUNK_ALLOC&) = delete;
    MEM_UTILS_CHUNK_ALLOC& operator=(const MEM_UTILS_CHUNK_ALLOC&) = delete;

    // Hands out a zeroed block. One that fits into the chunk costs a division and a few additions.
    // size       bytes. 0 may give null or the address of the next block: no failure.
    // alignment  bytes, not only powers of two; 0 counts as 1. A block at the start of a new chunk
    //            and, with chunking off, every block has malloc's alignment and no larger one.
    // Returns the block; never null for want of memory: that ends the process as mem_out_of_memory() does,
    // or, where a list node can't be had, with what operator new throws, the object unchanged
    //
    // From the 501st block above 32768 bytes on, each sends a warning through the debug message slot.
    void* chunk_malloc(std::uint64_t size, std::uint64_t alignment);

    // Gives back all memory of the object. Its blocks are dead; it can be used again. With chunking off the
    // blocks are not the object's, and nothing is freed.
    void chunk_free_memory();

    // Returns whether this object hands out blocks from chunks
    bool chunk_allocation_is_enabled() const;

    // Frees a block if chunking is off; does nothing if it is on.
    // ptr  a block of any object, or null
    void chunk_delete_when_chunking_disabled(void* ptr);

    // Sets how many bytes a chunk must have left to be kept when a block does not fit into it. The block
    // becomes a separate one then; otherwise the rest is given up for a new chunk.
    // bytes  100 in a new object. 0 makes every block a separate one.
    void set_fragment_threshold(unsigned int bytes);

  private:
    struct ALLOCATION;
    void* start_chunk(std::uint64_t size);
    void* make_separate_block(std::uint64_t size, std::uint64_t alignment);
    char* list_zeroed(std::uint64_t size);
    void count_oversize_block();
    void free_list(void (*free_memory)(void*));

    ALLOCATION* m_allocations; // newest first
    std::uint64_t m_remaining;
    char* m_position; // null until there is a chunk
    std::uint32_t m_fragment_threshold;
    std::int32_t m_oversize_blocks; // since memory was last given back
    bool m_is_enabled;
};
