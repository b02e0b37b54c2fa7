// Marks what libvbx_mem exports; everything else in it is hidden.
#pragma once

// Stands before the name of a class or in front of a function.
#define VBX_MEM_API __attribute__((visibility("default")))
