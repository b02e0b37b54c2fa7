// What the pieces of the planted programs give each other.
#pragma once

#define EXPORTED extern "C" __attribute__((visibility("default")))
EXPORTED char* library_buffer();
EXPORTED const void* library_base();
EXPORTED void run_on_thread(void (*function)()); // apart from the sites, because starting a thread allocates

// Makes the compiler believe that the block is used: neither its allocation nor the frame of its caller goes.
#define KEEP(block) __asm__ volatile("" : : "r"(block) : "memory")
