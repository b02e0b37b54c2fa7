// What the pieces of the planted programs give each other.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif
void c_allocate(void);
void c_free_before_tide(void);
void c_free_after_tide(void);
__attribute__((visibility("default"))) char* library_buffer(void);
__attribute__((visibility("default"))) const void* library_base(void);
void run_on_thread(void (*function)(void));
#ifdef __cplusplus
}
#endif

// Makes the compiler believe that the block is used: neither its allocation nor the frame of its caller goes.
#define KEEP(block) __asm__ volatile("" : : "r"(block) : "memory")
